#!/usr/bin/env bash
# Throughput and connection rate through WebSocket tunnel pairs, `corvane tunnel tcp->ws` into
# `corvane tunnel ws->tcp` (and the same over wss), against the plain tcp tunnel pair, with the
# CPU both tunnel processes of a pair use per GB and per 1000 connections. Loopback only;
# certificates are made here for this run; every server is started here and killed by its PID
# on exit.
#   CORVANE      the corvane binary (default build/tools/corvane/corvane)
#   TUNNELBENCH  the peer and client program (default: bench/tunnelbench beside corvane's build)
#   REPEAT       repetitions of each figure (default 5)
#   SYSCALLS     1: also one bulk transfer per pair with every tunnel process under `strace -c -f`,
#                printing the reads, polls and memory calls per MB of each hop (default 0)
set -euo pipefail

CORVANE=${CORVANE:-build/tools/corvane/corvane}
TUNNELBENCH=${TUNNELBENCH:-$(dirname "$CORVANE")/../../bench/tunnelbench}
REPEAT=${REPEAT:-5}
BULK_BYTES=${BULK_BYTES:-268435456}
RATE_SECONDS=${RATE_SECONDS:-1}

for program in "$CORVANE" "$TUNNELBENCH"; do
    [[ -x $program ]] || { echo "wstunnel.sh: $program is not built" >&2; exit 1; }
done

# shellcheck source=bench/common.sh
source "$(dirname "$0")/common.sh"


make_certificates

"$TUNNELBENCH" serve >"$work/server" &
pids+=($!)
wait_for test -s "$work/server"
server_port=$(head -n1 "$work/server")

# A ws or wss server given port 0 takes its scheme's default port: pick free ones here.
corvane_tunnel ws_in "ws://127.0.0.1:$(free_port)" "tcp://127.0.0.1:$server_port"
corvane_tunnel ws_port tcp://127.0.0.1:0 "ws://127.0.0.1:$ws_in" --target-options "EnableProxy=false"
corvane_tunnel wss_in "wss://127.0.0.1:$(free_port)" "tcp://127.0.0.1:$server_port" \
    --listen-options "CertificateFile=$work/cert.pem;PrivateKeyFile=$work/key.pem;NoCertify=true"
corvane_tunnel wss_port tcp://127.0.0.1:0 "wss://localhost:$wss_in" \
    --target-options "EnableProxy=false;LoadCryptoCertStore=false;CAFile=$work/ca.pem"
corvane_tunnel tcp_in tcp://127.0.0.1:0 "tcp://127.0.0.1:$server_port"
corvane_tunnel tcp_port tcp://127.0.0.1:0 "tcp://127.0.0.1:$tcp_in"
# The two processes of each pair, for the CPU figures: the hop the client enters first.
ws_pids="${pids[-5]} ${pids[-6]}"
wss_pids="${pids[-3]} ${pids[-4]}"
tcp_pids="${pids[-1]} ${pids[-2]}"

# One connection through each pair first: a first TLS client connection builds its context.
for port in "$ws_port" "$wss_port" "$tcp_port"; do
    "$TUNNELBENCH" rate "$port" 0.001 >/dev/null
done

# measure MODE ARGUMENT LABEL UNIT AIMS CPU_LABEL: each pair in turn, REPEAT times; one figure
# line with the ratios to the tcp pair, and one of the CPU of both processes of each pair.
measure() {
    local -A runs=() medians=()
    collect runs "$1" "$2" ws wss tcp
    figures "$3" "$4" runs medians ws wss tcp
    awk -v w="${medians[ws]}" -v s="${medians[wss]}" -v t="${medians[tcp]}" -v aims="$5" \
        'BEGIN { printf "; ws/tcp %.2f, wss/tcp %.2f%s\n", w / t, s / t, aims }'
    cpu_figures "$6" ms tcp ws wss tcp
}

measure bulk "$BULK_BYTES" "WebSocket tunnel pair throughput" "MB/s" " (aims 0.7, 0.5)" \
    "WebSocket tunnel pair CPU per GB"
measure rate "$RATE_SECONDS" "WebSocket tunnel pair connection rate" "conn/s" " (aim 0.8 for ws)" \
    "WebSocket tunnel pair CPU per 1000 connections"

# System calls per MB of one bulk transfer, hop by hop: each tunnel process of the pair under
# `strace -c -f` (attached, then detached by its PID once the transfer is done). Slow: strace
# stops the process at every call, so only the counts mean anything here, not the time.
[[ ${SYSCALLS:-0} == 1 ]] || exit 0
command -v strace >/dev/null || { echo "wstunnel.sh: strace is missing" >&2; exit 1; }
SYSCALL_BYTES=${SYSCALL_BYTES:-67108864}
syscalls() {
    local pair=$1 port_variable="${1}_port" pids_variable="${1}_pids" hop=client tracers=() pid
    for pid in ${!pids_variable}; do
        strace -qq -c -f -U name,calls -S name -p "$pid" -o "$work/strace_${pair}_$hop" &
        tracers+=($!)
        hop=server
    done
    sleep 0.5
    "$TUNNELBENCH" bulk "${!port_variable}" "$SYSCALL_BYTES" >/dev/null
    for pid in "${tracers[@]}"; do kill -INT "$pid"; done
    for pid in "${tracers[@]}"; do wait "$pid" || true; done
    for hop in client server; do
        awk -v label="$pair pair, $hop hop" -v mb="$((SYSCALL_BYTES / 1000000))" '
            $2 ~ /^[0-9]+$/ { calls[$1] = $2 }
            END {
                line = sprintf("system calls per MB, %s:", label)
                n = split("recvfrom read poll epoll_wait select sendto write madvise mmap munmap futex", names, " ")
                for (i = 1; i <= n; i++) if (names[i] in calls) line = line sprintf(" %s %.2f,", names[i], calls[names[i]] / mb)
                sub(/,$/, "", line); print line
            }' "$work/strace_${pair}_$hop"
    done
}
for pair in ws wss tcp; do syscalls "$pair"; done
