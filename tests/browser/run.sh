#!/bin/bash
# run.sh NODE_DIR [TEST_FILE...]: runs the viewer's browser tests (the named files of
# NODE_DIR, by default its *.test.mjs, copied there by the build) with the npm packages
# of NODE_DIR's package-lock.json, installing them there first (`npm ci`, once per lock
# file, under a lock). QV_VIEWER_ASSETS names the assembled page the server serves.
# The server is the mock, unless QV_VIEWER_INPUTS (the program writing the viewer
# tests' recording) and QVRECON are set: then a recording is written to a temporary
# folder and the tests run against `qvrecon view` playing it (see harness.mjs).
# QV_VIEWER_SERVER, when set, is the command of another server to test.
# Exits 77 (the tests' "skipped") with the reason when Chromium, Node.js, npm, the
# packages or the page are not to be had, unless QV_REQUIRE_BROWSER=1 asks for a
# failure instead (CI).
set -u
dir=$1
shift
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
. "$(dirname "${BASH_SOURCE[0]}")/../npm_packages.sh"
npm_packages "$dir"
if [ -n "${QV_VIEWER_INPUTS:-}" ] && [ -z "${QV_VIEWER_SERVER:-}" ]; then
    inputs=$(mktemp -d "${TMPDIR:-/tmp}/qv-browser.XXXXXX") || exit 1
    trap 'rm -rf "$inputs"' EXIT
    # Five frames of a boxes scene at different distances, with colour.
    "$QV_VIEWER_INPUTS" "$inputs" 5 --session-only || exit 1
    export QV_VIEWER_RECORDING=$inputs/session.mcap
fi
[ $# -gt 0 ] || set -- ./*.test.mjs
# (Not exec: the trap removes the recording's folder afterwards.)
cd "$dir" && node --test --test-concurrency=1 "$@"
