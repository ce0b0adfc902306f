#!/usr/bin/env python3
"""Checks that the documentation names only what the repository has.

    docs_links.py REPOSITORY_ROOT

Reads README.md and docs/*.md and reports, one line each, and exits 1 on:
  - a relative link or picture, [text](path) or ![alt](path), whose file or folder is
    missing, or whose #anchor names no heading of the Markdown file it points to;
  - a repository path in inline code (`src/depth/`, `scripts/test.sh`): a word with a
    slash that starts with a top-level folder or ends in an extension (message types
    such as `sensor_msgs/msg/Image` and media types are not paths), or a bare file name with a source extension (`module.cpp`, found anywhere in
    the repository), that does not exist; `*` matches as in a shell;
  - in fenced code blocks, a word that starts with one of the repository's top-level
    folders (`bash scripts/demo.sh`) and does not exist.
Build outputs, install locations and placeholders are left alone (ALLOWED_PREFIXES,
PLACEHOLDER_NAMES).
"""
import glob
import os
import re
import sys
import unicodedata

# Paths that name what a build or an install makes, or what lies outside the checkout.
ALLOWED_PREFIXES = (
    "build/", "build-",            # build trees
    "/",                           # absolute: install locations, system files
    "../",                         # beside the checkout
    "share/", "lib/", "bin/",      # places under an install prefix
    "qvrecon-demo/",               # the demo's output folder
)
# Bare file names the prose uses as placeholders or examples, not as repository files.
PLACEHOLDER_NAMES = {"x.h", "x.cpp", "x_kernel.cpp", "app.cpp", "script.py"}
# Extensions a bare name must have to be taken for a repository file.
SOURCE_EXTENSIONS = (".h", ".cpp", ".py", ".pyi", ".sh", ".cmake", ".map", ".in", ".md", ".txt")

LINK = re.compile(r"!?\[[^\]]*\]\(([^)\s]+)(?:\s+\"[^\"]*\")?\)")
CODE_SPAN = re.compile(r"(`+)(.+?)\1")
FENCE = re.compile(r"^\s*(```|~~~)")
HEADING = re.compile(r"^#{1,6}\s+(.*?)\s*#*\s*$")


def slug(heading):
    """The anchor GitHub gives a heading."""
    text = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading).strip().lower()
    kept = []
    for ch in text:
        if ch in " -_" or unicodedata.category(ch)[0] in "LN":
            kept.append("-" if ch == " " else ch)
    return "".join(kept)


def anchors(path):
    found, seen, fenced = set(), {}, False
    with open(path, encoding="utf-8") as f:
        for line in f:
            if FENCE.match(line):
                fenced = not fenced
                continue
            m = None if fenced else HEADING.match(line)
            if m:
                s = slug(m.group(1).replace("`", ""))
                n = seen.get(s, 0)
                seen[s] = n + 1
                found.add(s if n == 0 else f"{s}-{n}")
    return found


class Checker:
    def __init__(self, root):
        self.root = root
        self.top = {e for e in os.listdir(root) if os.path.isdir(os.path.join(root, e)) and not e.startswith(".")}
        self.top.discard("build")
        self.basenames = set()
        for folder, dirs, files in os.walk(root):
            dirs[:] = [d for d in dirs if d != ".git" and not d.startswith("build")]
            self.basenames.update(files)
        self.errors = []

    def report(self, doc, line, message):
        self.errors.append(f"{os.path.relpath(doc, self.root)}:{line}: {message}")

    def exists(self, path):
        full = os.path.join(self.root, path)
        return bool(glob.glob(full)) if "*" in path else os.path.exists(full)

    def check_link(self, doc, line, target):
        if re.match(r"^[a-z][a-z0-9+.-]*:", target, re.I):   # http:, mailto: ...
            return
        path, _, anchor = target.partition("#")
        full = os.path.normpath(os.path.join(os.path.dirname(doc), path)) if path else doc
        if not full.startswith(self.root + os.sep) and full != self.root:
            self.report(doc, line, f"link leaves the repository: {target}")
        elif not os.path.exists(full):
            self.report(doc, line, f"broken link: {target}")
        elif anchor and full.endswith(".md") and anchor not in anchors(full):
            self.report(doc, line, f"no heading for the anchor: {target}")

    def check_word(self, doc, line, word, fenced):
        word = word.lstrip("'\"(").rstrip("'\"),;:.")
        word = re.sub(r"^[A-Za-z_][A-Za-z0-9_]*=", "", word)          # VAR=path
        if word.startswith("<") and word.endswith(">"):                # <qvreconstruction/x.h>
            word = "include/" + word[1:-1]
        if not word or "://" in word or re.search(r"[<>{}$|]|\.\.\.", word):
            return
        if word.startswith(ALLOWED_PREFIXES):
            return
        if "/" in word:
            in_top = word.split("/", 1)[0] in self.top
            if fenced and not in_top:
                return                                                 # a command's own output
            if not in_top and not re.search(r"\.[A-Za-z0-9]+$", word):
                return                                                 # a message type, media type, package
            if not self.exists(word):
                self.report(doc, line, f"no such file or folder: {word}")
        elif not fenced and word.endswith(SOURCE_EXTENSIONS) and word not in PLACEHOLDER_NAMES:
            if word not in self.basenames:
                self.report(doc, line, f"no file of this name in the repository: {word}")

    def check(self, doc):
        fenced = False
        with open(doc, encoding="utf-8") as f:
            for number, text in enumerate(f, 1):
                if FENCE.match(text):
                    fenced = not fenced
                    continue
                if fenced:
                    for word in text.split("#", 1)[0].split():
                        self.check_word(doc, number, word, True)
                    continue
                for target in LINK.findall(text):
                    self.check_link(doc, number, target)
                for _, span in CODE_SPAN.findall(text):
                    for word in span.split():
                        self.check_word(doc, number, word, False)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    root = os.path.realpath(sys.argv[1])
    docs = [os.path.join(root, "README.md")] + sorted(glob.glob(os.path.join(root, "docs", "*.md")))
    checker = Checker(root)
    for doc in docs:
        checker.check(doc)
    for error in checker.errors:
        print(error)
    print(f"{len(docs)} files checked, {len(checker.errors)} problems")
    return 1 if checker.errors else 0


if __name__ == "__main__":
    sys.exit(main())
