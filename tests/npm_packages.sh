# Sourced by the tests' Node.js runners (tests/recording/node/run_node.sh,
# tests/browser/run.sh): npm_packages DIR installs the npm packages of DIR's
# package-lock.json into DIR (`npm ci`), once per lock file, under a lock so that tests
# running side by side install once. Without npm, flock or the registry it calls the
# runner's skip() with the reason.
npm_packages() {
    local dir=$1
    local stamp=$dir/node_modules/.qv-installed
    cmp -s "$dir/package-lock.json" "$stamp" 2>/dev/null && return 0
    command -v npm >/dev/null || skip "npm is not installed"
    command -v flock >/dev/null || skip "flock is not installed"
    (
        flock 9
        if ! cmp -s "$dir/package-lock.json" "$stamp" 2>/dev/null; then
            npm ci --prefix "$dir" --no-audit --no-fund --loglevel=error >&2 || exit 1
            cp "$dir/package-lock.json" "$stamp"
        fi
    ) 9>"$dir/.install.lock" || skip "npm ci could not install the packages of $dir/package-lock.json (no registry?)"
}
