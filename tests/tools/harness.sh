# What the host's shell tests share, sourced after `set -uo pipefail`: a scratch directory, the
# PIDs of the peers started (each stopped at exit), and counted checks with a summary.
corvane=${1:?path to the corvane binary}
tmp=$(mktemp -d)
pids=()
failures=0
checks=0
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; done
    rm -rf "$tmp"
}
trap cleanup EXIT

check() {  # check NAME COMMAND...: counts a failure when the command fails
    local name=$1; shift
    checks=$((checks + 1))
    if "$@"; then echo "ok: $name"; else echo "FAILED: $name"; failures=$((failures + 1)); fi
}
summary() {  # the counts; fails when a check failed
    echo "$((checks - failures)) passed, $failures failed"
    [ "$failures" -eq 0 ]
}
