#!/usr/bin/env bash
# Throughput and connection rate through `corvane tunnel` (tcp to tcp), against socat doing the
# same forwarding and against the direct connection. Loopback only; every server is started here
# on a free port and killed by its PID on exit.
#   CORVANE      the corvane binary (default build/tools/corvane/corvane)
#   TUNNELBENCH  the peer and client program (default: bench/tunnelbench beside corvane's build)
#   REPEAT       repetitions of each figure (default 5)
set -euo pipefail

CORVANE=${CORVANE:-build/tools/corvane/corvane}
TUNNELBENCH=${TUNNELBENCH:-$(dirname "$CORVANE")/../../bench/tunnelbench}
REPEAT=${REPEAT:-5}
BULK_BYTES=${BULK_BYTES:-268435456}
RATE_SECONDS=${RATE_SECONDS:-1}

for program in "$CORVANE" "$TUNNELBENCH"; do
    [[ -x $program ]] || { echo "tunnel.sh: $program is not built" >&2; exit 1; }
done
command -v socat >/dev/null || { echo "tunnel.sh: socat is missing (scripts/install-deps)" >&2; exit 1; }

# shellcheck source=bench/common.sh
source "$(dirname "$0")/common.sh"

"$TUNNELBENCH" serve >"$work/server" &
pids+=($!)
wait_for test -s "$work/server"
server_port=$(head -n1 "$work/server")

"$CORVANE" tunnel tcp://127.0.0.1 "tcp://127.0.0.1:$server_port" >"$work/corvane" &
pids+=($!)
wait_for grep -q '^listening on ' "$work/corvane"
corvane_port=$(sed -n 's/^listening on .*:\([0-9]*\)$/\1/p' "$work/corvane")

socat_port=$(free_port)
socat "TCP-LISTEN:$socat_port,bind=127.0.0.1,fork,reuseaddr" "TCP:127.0.0.1:$server_port" &
pids+=($!)
wait_for accepting "$socat_port"

# measure MODE ARGUMENT: runs each target in turn, REPEAT times, and prints one figure line.
measure() {
    local mode=$1 argument=$2 label=$3 unit=$4
    local -A runs=()
    for _ in $(seq 1 "$REPEAT"); do
        for target in corvane socat direct; do
            case $target in
                corvane) port=$corvane_port ;;
                socat) port=$socat_port ;;
                direct) port=$server_port ;;
            esac
            runs[$target]+=" $("$TUNNELBENCH" "$mode" "$port" "$argument")"
        done
    done
    local line="$label:" median
    declare -A medians=()
    for target in corvane socat direct; do
        # shellcheck disable=SC2086
        read -r median min max < <(stats ${runs[$target]})
        medians[$target]=$median
        line+=" $target $median $unit (min/median/max $min/$median/$max),"
    done
    line=${line%,}
    line+=$(awk -v c="${medians[corvane]}" -v s="${medians[socat]}" -v d="${medians[direct]}" \
        'BEGIN { printf "; corvane/socat %.2f, corvane/direct %.2f", c / s, c / d }')
    echo "$line"
}

measure bulk "$BULK_BYTES" "tunnel throughput" "MB/s"
measure rate "$RATE_SECONDS" "tunnel connection rate" "conn/s"
