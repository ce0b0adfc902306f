#!/bin/bash
# run_node.sh NODE_DIR SCRIPT ARGS...: runs a check script under Node.js with the npm
# packages of NODE_DIR's package-lock.json, installing them there first (`npm ci`,
# once per lock file, under a lock so that parallel tests install once).
# Exits 77 (the tests' "skipped") with the reason when Node.js, npm or the packages
# are not to be had, unless QV_REQUIRE_NODE_CHECK=1 asks for a failure instead.
set -u
dir=$1
shift
skip() {
    echo "SKIPPED: $*" >&2
    if [ "${QV_REQUIRE_NODE_CHECK:-0}" = 1 ]; then exit 1; fi
    exit 77
}
command -v node >/dev/null || skip "node is not installed"
major=$(node -p 'process.versions.node.split(".")[0]')
[ "$major" -ge 18 ] || skip "node $major is older than 18"
. "$(dirname "${BASH_SOURCE[0]}")/../../npm_packages.sh"
npm_packages "$dir"
exec node "$@"
