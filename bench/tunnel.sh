#!/usr/bin/env bash
# Throughput and connection rate through `corvane tunnel` (tcp to tcp), against haproxy (tcp
# mode, one thread) and socat doing the same forwarding and against the direct connection, with
# the CPU each forwarder uses per 1000 connections and per GB. Loopback only; every server is started here
# on a free port and killed by its PID on exit.
#   CORVANE      the corvane binary (default build/tools/corvane/corvane)
#   TUNNELBENCH  the peer and client program (default: bench/tunnelbench beside corvane's build)
#   REPEAT       repetitions of each figure (default 5)
#   THREADS      corvane's reactors (default 1, as haproxy's one thread here: the same means)
set -euo pipefail

CORVANE=${CORVANE:-build/tools/corvane/corvane}
TUNNELBENCH=${TUNNELBENCH:-$(dirname "$CORVANE")/../../bench/tunnelbench}
REPEAT=${REPEAT:-5}
BULK_BYTES=${BULK_BYTES:-268435456}
RATE_SECONDS=${RATE_SECONDS:-1}
LATENCY_ROUNDS=${LATENCY_ROUNDS:-5000}
STALL_SECONDS=${STALL_SECONDS:-3}

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

"$CORVANE" tunnel tcp://127.0.0.1 "tcp://127.0.0.1:$server_port" --threads "${THREADS:-1}" >"$work/corvane" &
pids+=($!)
corvane_pids=$!
wait_for grep -q '^listening on ' "$work/corvane"
corvane_port=$(sed -n 's/^listening on .*:\([0-9]*\)$/\1/p' "$work/corvane")

socat_port=$(free_port)
socat "TCP-LISTEN:$socat_port,bind=127.0.0.1,fork,reuseaddr" "TCP:127.0.0.1:$server_port" &
pids+=($!)
socat_pids=$!
wait_for accepting "$socat_port"

haproxy_tcp haproxy_port "$server_port"

haproxy_pids=$haproxy_port_pid
direct_port=$server_port

# report LABEL UNIT RUNS: one figure line with the ratios against socat and the direct connection.
report() {
    local -A medians=()
    figures "$1" "$2" "$3" medians corvane haproxy socat direct
    awk -v c="${medians[corvane]}" -v h="${medians[haproxy]}" -v s="${medians[socat]}" -v d="${medians[direct]}" \
        'BEGIN { printf "; corvane/haproxy %.2f, corvane/socat %.2f, corvane/direct %.2f\n", c / h, c / s, c / d }'
}

# measure MODE ARGUMENT LABEL UNIT: runs each target in turn, REPEAT times, and prints one line.
measure() {
    local -A runs=()
    collect runs "$1" "$2" corvane haproxy socat direct
    report "$3" "$4" runs
}

measure bulk "$BULK_BYTES" "tunnel throughput" "MB/s"
cpu_figures "tunnel CPU per GB" "ms" haproxy corvane haproxy socat
measure rate "$RATE_SECONDS" "tunnel connection rate" "conn/s"
cpu_figures "tunnel CPU per 1000 connections" "ms" haproxy corvane haproxy socat

# System calls per connection, every thread of the forwarder counted by strace over one second
# of the rate client (strace slows the forwarder down; the counts per connection stand).
syscalls_per_connection() {
    command -v strace >/dev/null || { echo "system calls per connection: strace is missing (scripts/install-deps)"; return; }
    local -A per=()
    local target
    for target in corvane haproxy; do
        local pid_variable="${target}_pids" port_variable="${target}_port"
        strace -c -f -o "$work/strace_$target" -p "${!pid_variable}" 2>/dev/null &
        local tracer=$!
        sleep 0.5
        local rate
        rate=$("$TUNNELBENCH" rate "${!port_variable}" 1)
        sleep 0.2
        kill -INT "$tracer"
        wait "$tracer" || true
        per[$target]=$(awk -v r="$rate" '$NF == "total" { printf "%.1f", $4 / r }' "$work/strace_$target")
    done
    awk -v c="${per[corvane]}" -v h="${per[haproxy]}" \
        'BEGIN { printf "tunnel system calls per connection: corvane %s, haproxy %s; corvane/haproxy %.2f\n", c, h, c / h }'
}
syscalls_per_connection

# Round trips of 64 bytes with every process on CPU 0: unpinned round trips on a 2-CPU machine
# are bimodal (the two ends wake on the same or on different CPUs) and mean nothing.
for pid in "${pids[@]}"; do taskset -apc 0 "$pid" >/dev/null; done
latency() {
    local -A p50s=() p99s=()
    for _ in $(seq 1 "$REPEAT"); do
        for target in corvane haproxy socat direct; do
            local port_variable="${target}_port"
            read -r p50 p99 < <(taskset -c 0 "$TUNNELBENCH" latency "${!port_variable}" "$LATENCY_ROUNDS")
            p50s[$target]+=" $p50"
            p99s[$target]+=" $p99"
        done
    done
    report "tunnel latency p50 (pinned to cpu 0)" us p50s
    report "tunnel latency p99 (pinned to cpu 0)" us p99s
}
latency

# CPU while stalled: a client pushes into a tunnel in front of `corvane serve --echo` of each
# target scheme and reads nothing; both corvane processes should sleep, not spin, while the
# buffers stay full.
make_certificates
cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
stalled() {
    local scheme=$1 serve_options="" target_options="EnableProxy=false"
    case $scheme in
        ssl | wss)
            serve_options="CertificateFile=$work/cert.pem;PrivateKeyFile=$work/key.pem;NoCertify=true"
            target_options+=";LoadCryptoCertStore=false;CAFile=$work/ca.pem"
            ;;
    esac
    # A ws or wss server given port 0 takes its scheme's default port: pick a free one here.
    "$CORVANE" serve "$scheme://localhost:$(free_port)" --echo --options "$serve_options" \
        >"$work/echo_$scheme" 2>"$work/echo_$scheme.err" &
    pids+=($!)
    local echo_pid=$!
    wait_for grep -qs "^listening on " "$work/echo_$scheme"
    local echo_port
    echo_port=$(sed -n 's/^listening on .*:\([0-9]*\)$/\1/p' "$work/echo_$scheme")
    corvane_tunnel stall_port tcp://127.0.0.1:0 "$scheme://localhost:$echo_port" --target-options "$target_options"
    local tunnel_pid=${pids[-1]}
    "$TUNNELBENCH" stall "$stall_port" $((STALL_SECONDS + 1)) >"$work/stalled_$scheme" &
    local client=$!
    sleep 0.5
    local tunnel_before echo_before tunnel_after echo_after
    tunnel_before=$(cpu_ticks "$tunnel_pid")
    echo_before=$(cpu_ticks "$echo_pid")
    sleep "$STALL_SECONDS"
    tunnel_after=$(cpu_ticks "$tunnel_pid")
    echo_after=$(cpu_ticks "$echo_pid")
    wait "$client"
    awk -v t=$((tunnel_after - tunnel_before)) -v e=$((echo_after - echo_before)) -v hz="$(getconf CLK_TCK)" \
        -v s="$STALL_SECONDS" -v b="$(cat "$work/stalled_$scheme")" -v scheme="$scheme" \
        'BEGIN { printf "stalled CPU over %d s, tcp -> %s (client wrote %.1f MB, read nothing): corvane tunnel %.1f%%, corvane serve --echo %.1f%% (aim: under 5%% each)\n", s, scheme, b / 1e6, 100 * t / hz / s, 100 * e / hz / s }'
}
for scheme in tcp ssl ws wss; do
    stalled "$scheme"
done
