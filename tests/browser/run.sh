#!/bin/bash
# run.sh NODE_DIR: runs the viewer's browser tests (NODE_DIR/*.test.mjs, copied there
# by the build) with the npm packages of NODE_DIR's package-lock.json, installing them
# there first (`npm ci`, once per lock file, under a lock). QV_VIEWER_ASSETS names the
# assembled page the mock server serves; QV_VIEWER_SERVER, when set, is the command of
# the server to test instead (see harness.mjs).
# Exits 77 (the tests' "skipped") with the reason when Chromium, Node.js, npm, the
# packages or the page are not to be had, unless QV_REQUIRE_BROWSER=1 asks for a
# failure instead (CI).
set -u
dir=$1
skip() {
    echo "SKIPPED: $*" >&2
    if [ "${QV_REQUIRE_BROWSER:-0}" = 1 ]; then exit 1; fi
    exit 77
}
chromium=${QV_CHROMIUM:-/usr/bin/chromium}
[ -x "$chromium" ] || skip "$chromium is not installed (Debian: apt-get install chromium)"
command -v node >/dev/null || skip "node is not installed"
major=$(node -p 'process.versions.node.split(".")[0]')
[ "$major" -ge 20 ] || skip "node $major is older than 20 (playwright-core needs 20)"
if [ -z "${QV_VIEWER_SERVER:-}" ]; then
    [ -f "${QV_VIEWER_ASSETS:-}/index.html" ] || skip "the viewer's page was not assembled (npm missing at build time?)"
fi
stamp=$dir/node_modules/.qv-installed
if ! cmp -s "$dir/package-lock.json" "$stamp" 2>/dev/null; then
    command -v npm >/dev/null || skip "npm is not installed"
    command -v flock >/dev/null || skip "flock is not installed"
    (
        flock 9
        if ! cmp -s "$dir/package-lock.json" "$stamp" 2>/dev/null; then
            npm ci --prefix "$dir" --no-audit --no-fund --loglevel=error >&2 || exit 1
            cp "$dir/package-lock.json" "$stamp"
        fi
    ) 9>"$dir/.install.lock" || skip "npm ci could not install the packages of $dir/package-lock.json (no registry?)"
fi
cd "$dir" && exec node --test --test-concurrency=1 ./*.test.mjs
