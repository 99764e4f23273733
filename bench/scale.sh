#!/usr/bin/env bash
# Many quiet connections: N connections (N=1000 by default) each echo 1 KiB per second through
# `corvane tunnel` (tcp to tcp) to an epoll echo server, against
# haproxy in tcp mode in front of the same server, one after the other in the same run. Prints
# the connections kept, the proxy's CPU share of one core, its RSS and the echo delay p50/p99,
# with the ratios corvane/haproxy. SECONDS=10 measured after a 2 s warm-up.
set -euo pipefail
cd "$(dirname "$0")/.."
source bench/common.sh
CORVANE=${CORVANE:-build/tools/corvane/corvane}
SCALEBENCH=${SCALEBENCH:-build/bench/scalebench}
HAPROXY=${HAPROXY:-/usr/sbin/haproxy}
N=${N:-1000}
SECONDS_MEASURED=${SECONDS_MEASURED:-10}
for program in "$CORVANE" "$SCALEBENCH" "$HAPROXY"; do
    [[ -x $program ]] || { echo "scale.sh: $program is missing (build, or scripts/install-deps)" >&2; exit 1; }
done
ulimit -n "$(ulimit -Hn)"
# One reactor thread per core, and at least one per 350 connections: a reactor holds 511 tunnel
# connections and the kernel spreads them by hash (SO_REUSEPORT), not by load.
cores=$(nproc)
THREADS=${THREADS:-$((cores > (N + 349) / 350 ? cores : (N + 349) / 350))}

"$SCALEBENCH" echo >"$work/echo" &
pids+=($!)
wait_for grep -q '^port ' "$work/echo"
echo_port=$(sed -n 's/^port //p' "$work/echo")

# stop PID: ends one proxy before the next is measured, so that they never share the CPUs.
stop() {
    kill "$1" 2>/dev/null || true
    wait "$1" 2>/dev/null || true
}

declare -A result
corvane_tunnel corvane_port tcp://127.0.0.1:0 "tcp://127.0.0.1:$echo_port" --threads "$THREADS"
corvane_pid=${pids[-1]}
result[corvane]=$("$SCALEBENCH" client "$corvane_port" "$N" "$SECONDS_MEASURED" "$corvane_pid")
stop "$corvane_pid"

haproxy_port=$(free_port)
cat >"$work/haproxy.cfg" <<CFG
global
    maxconn $((N * 2 + 100))
defaults
    mode tcp
    timeout connect 5s
    timeout client 60s
    timeout server 60s
frontend scale
    bind 127.0.0.1:$haproxy_port
    default_backend echo
backend echo
    server echo 127.0.0.1:$echo_port
CFG
"$HAPROXY" -db -f "$work/haproxy.cfg" >"$work/haproxy.out" 2>&1 &
haproxy_pid=$!
pids+=("$haproxy_pid")
wait_for accepting "$haproxy_port"
result[haproxy]=$("$SCALEBENCH" client "$haproxy_port" "$N" "$SECONDS_MEASURED" "$haproxy_pid")
stop "$haproxy_pid"

# "kept K p50 MS p99 MS cpu PERCENT rss KIB" of each, then the ratios.
read -r _ ck _ c50 _ c99 _ ccpu _ crss <<<"${result[corvane]}"
read -r _ hk _ h50 _ h99 _ hcpu _ hrss <<<"${result[haproxy]}"
awk -v n="$N" -v s="$SECONDS_MEASURED" -v t="$THREADS" -v ck="$ck" -v c50="$c50" -v c99="$c99" -v ccpu="$ccpu" -v crss="$crss" \
    -v hk="$hk" -v h50="$h50" -v h99="$h99" -v hcpu="$hcpu" -v hrss="$hrss" 'function r(a, b) { return b > 0 ? a / b : 0 }
BEGIN {
    printf "scale, %d connections x 1 KiB/s over %d s, corvane --threads %d: connections kept: corvane %d, haproxy %d; corvane/haproxy %.2f\n", n, s, t, ck, hk, r(ck, hk)
    printf "scale CPU (%% of one core): corvane %.1f, haproxy %.1f; corvane/haproxy %.2f (aim: at most 1)\n", ccpu, hcpu, r(ccpu, hcpu)
    printf "scale RSS: corvane %.1f MiB, haproxy %.1f MiB; corvane/haproxy %.2f\n", crss / 1024, hrss / 1024, r(crss, hrss)
    printf "scale echo delay p50: corvane %.2f ms, haproxy %.2f ms; corvane/haproxy %.2f\n", c50, h50, r(c50, h50)
    printf "scale echo delay p99: corvane %.2f ms, haproxy %.2f ms; corvane/haproxy %.2f (aim: at most 1.5)\n", c99, h99, r(c99, h99)
}'
