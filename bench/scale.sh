#!/usr/bin/env bash
# Many quiet connections: N connections (N=1000 by default) each echo 1 KiB per second through
# corvane to an epoll echo server, then through haproxy in tcp mode in front of the same server,
# one after the other in the same run. Prints the connections kept, the proxies' CPU share of
# one core, their RSS and the echo delay p50/p99, with the ratios corvane/haproxy.
#   MODE=tcp  one `corvane tunnel` tcp->tcp (default)
#   MODE=wss  a `corvane tunnel` tcp->wss into a `corvane tunnel` wss->tcp (CPU and RSS of both);
#             haproxy is not measured (it has no WebSocket tunnel of this shape)
#   THREADS   reactor threads of each corvane process (default: one per core, and at least one
#             per 350 connections)
#   CORVANE_BEFORE  a second corvane binary (e.g. a build of the previous commit), measured first
#             in the same run, with the ratios after/before
#   SECONDS_MEASURED=10 after a warm-up of 2 s that goes on until every connection has had
#             its first echo, for at most WARMUP seconds (default 30; wss: 120, for the handshakes)
#   REPEAT=1  rounds, the proxies taking turns in each; every figure is the median of the rounds
#             (on a shared machine p99 swings with the load: compare medians of several rounds)
set -euo pipefail
cd "$(dirname "$0")/.."
source bench/common.sh
CORVANE=${CORVANE:-build/tools/corvane/corvane}
SCALEBENCH=${SCALEBENCH:-build/bench/scalebench}
HAPROXY=${HAPROXY:-/usr/sbin/haproxy}
MODE=${MODE:-tcp}
N=${N:-1000}
SECONDS_MEASURED=${SECONDS_MEASURED:-10}
REPEAT=${REPEAT:-1}
CORVANE_BEFORE=${CORVANE_BEFORE:-}
[[ $MODE == tcp || $MODE == wss ]] || { echo "scale.sh: MODE is tcp or wss, not '$MODE'" >&2; exit 2; }
for program in "$CORVANE" "$SCALEBENCH" ${CORVANE_BEFORE:+"$CORVANE_BEFORE"}; do
    [[ -x $program ]] || { echo "scale.sh: $program is missing (build it first)" >&2; exit 1; }
done
use_haproxy=false
if [[ $MODE == tcp ]]; then
    if [[ -x $HAPROXY ]]; then
        use_haproxy=true
    else
        echo "scale.sh: $HAPROXY is missing (scripts/install-deps): corvane only" >&2
    fi
fi
# Each tcp tunnel connection takes two descriptors in the proxy; the client and the echo server
# one each. A run that may raises the hard limit too (often 4096 to 20000; a container may
# refuse: 10 000 connections need 20 100 or so).
ulimit -Hn $((N * 2 + 4096)) 2>/dev/null || true
ulimit -n "$(ulimit -Hn)"
if (($(ulimit -n) < N * 2 + 100)); then
    echo "scale.sh: the descriptor limit $(ulimit -n) holds fewer than $N proxied connections" >&2
fi
# One reactor thread per core, and at least one per 350 connections: a reactor holds 511 tunnel
# connections and the kernel spreads them by hash (SO_REUSEPORT), not by load.
cores=$(nproc)
THREADS=${THREADS:-$((cores > (N + 349) / 350 ? cores : (N + 349) / 350))}
if [[ $MODE == wss ]]; then
    WARMUP=${WARMUP:-120}
    make_certificates
else
    WARMUP=${WARMUP:-30}
fi

"$SCALEBENCH" echo >"$work/echo" &
pids+=($!)
wait_for grep -q '^port ' "$work/echo"
echo_port=$(sed -n 's/^port //p' "$work/echo")

# stop PID...: ends one proxy before the next is measured, so that they never share the CPUs.
stop() {
    kill "$@" 2>/dev/null || true
    for pid in "$@"; do wait "$pid" 2>/dev/null || true; done
}

# measure NAME BINARY: the client's result line through corvane BINARY, added to rounds[NAME].
declare -A rounds
measure() {
    local name=$1 binary=$2 measured
    local CORVANE=$binary
    if [[ $MODE == tcp ]]; then
        corvane_tunnel front tcp://127.0.0.1:0 "tcp://127.0.0.1:$echo_port" --threads "$THREADS"
        measured=${pids[-1]}
    else
        # A wss server given port 0 takes its scheme's default port: pick a free one here. The
        # handshakes of N connections arrive at once; on a busy machine the last ones wait longer
        # than the host's 10 s for their turn.
        corvane_tunnel back "wss://127.0.0.1:$(free_port)" "tcp://127.0.0.1:$echo_port" --threads "$THREADS" \
            --handshake-timeout 120000 \
            --listen-options "CertificateFile=$work/cert.pem;PrivateKeyFile=$work/key.pem;NoCertify=true"
        measured=${pids[-1]}
        corvane_tunnel front tcp://127.0.0.1:0 "wss://localhost:$back" --threads "$THREADS" \
            --target-options "EnableProxy=false;LoadCryptoCertStore=false;CAFile=$work/ca.pem"
        measured="${pids[-1]},$measured"
    fi
    rounds[$name]+="$("$SCALEBENCH" client "$front" "$N" "$SECONDS_MEASURED" "$measured" "$WARMUP")"$'\n'
    stop ${measured//,/ }
}

measure_haproxy() {
    local haproxy_port haproxy_pid
    haproxy_port=$(free_port)
    cat >"$work/haproxy.cfg" <<CFG
global
    maxconn $((N + 100 < ($(ulimit -n) - 100) / 2 ? N + 100 : ($(ulimit -n) - 100) / 2))
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
    if ! wait_for accepting "$haproxy_port"; then
        cat "$work/haproxy.out" >&2
        use_haproxy=false
        stop "$haproxy_pid"
        return
    fi
    rounds[haproxy]+="$("$SCALEBENCH" client "$haproxy_port" "$N" "$SECONDS_MEASURED" "$haproxy_pid" "$WARMUP")"$'\n'
    stop "$haproxy_pid"
}

for _ in $(seq 1 "$REPEAT"); do
    if [[ -n $CORVANE_BEFORE ]]; then
        measure before "$CORVANE_BEFORE"
    fi
    measure corvane "$CORVANE"
    if $use_haproxy; then
        measure_haproxy
    fi
done

# Each field's median over the rounds, as one "kept K p50 MS p99 MS cpu PERCENT rss KIB" line.
declare -A result
for name in "${!rounds[@]}"; do
    line=""
    for field in 2 4 6 8 10; do
        # shellcheck disable=SC2046
        read -r median _ < <(stats $(awk -v f="$field" 'NF { print $f }' <<<"${rounds[$name]}"))
        line+="x $median "
    done
    result[$name]=$line
done

# compare A B LABEL AIM_CPU AIM_P99: the five lines of A against B, from their "kept K p50 MS
# p99 MS cpu PERCENT rss KIB".
compare() {
    read -r _ ak _ a50 _ a99 _ acpu _ arss <<<"${result[$1]}"
    read -r _ bk _ b50 _ b99 _ bcpu _ brss <<<"${result[$2]}"
    awk -v a="$1" -v b="$2" -v label="$3" -v aimc="$4" -v aimp="$5" \
        -v ak="$ak" -v a50="$a50" -v a99="$a99" -v acpu="$acpu" -v arss="$arss" \
        -v bk="$bk" -v b50="$b50" -v b99="$b99" -v bcpu="$bcpu" -v brss="$brss" 'function r(x, y) { return y > 0 ? x / y : 0 }
BEGIN {
    printf "%s connections kept: %s %d, %s %d; %s/%s %.2f\n", label, a, ak, b, bk, a, b, r(ak, bk)
    printf "%s CPU (%% of one core): %s %.1f, %s %.1f; %s/%s %.2f%s\n", label, a, acpu, b, bcpu, a, b, r(acpu, bcpu), aimc
    printf "%s RSS: %s %.1f MiB, %s %.1f MiB; %s/%s %.2f\n", label, a, arss / 1024, b, brss / 1024, a, b, r(arss, brss)
    printf "%s echo delay p50: %s %.2f ms, %s %.2f ms; %s/%s %.2f\n", label, a, a50, b, b50, a, b, r(a50, b50)
    printf "%s echo delay p99: %s %.2f ms, %s %.2f ms; %s/%s %.2f%s\n", label, a, a99, b, b99, a, b, r(a99, b99), aimp
}'
}

shape="$N connections x 1 KiB/s over $SECONDS_MEASURED s, $MODE, medians of $REPEAT round(s)"
[[ $MODE == wss ]] && shape+=" (tcp->wss->tcp pair)"
echo "scale, $shape, corvane --threads $THREADS:"
if $use_haproxy; then
    compare corvane haproxy "scale" " (aim: at most 1)" " (aim: at most 1.5)"
else
    read -r _ ck _ c50 _ c99 _ ccpu _ crss <<<"${result[corvane]}"
    awk -v ck="$ck" -v c50="$c50" -v c99="$c99" -v ccpu="$ccpu" -v crss="$crss" 'BEGIN {
        printf "scale: corvane connections kept %d, CPU %.1f%% of one core, RSS %.1f MiB, echo delay p50 %.2f ms, p99 %.2f ms\n", ck, ccpu, crss / 1024, c50, c99 }'
fi
if [[ -n $CORVANE_BEFORE ]]; then
    compare corvane before "scale, this build against CORVANE_BEFORE:" "" ""
fi
