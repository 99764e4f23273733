#!/usr/bin/env bash
# Throughput and connection rate through WebSocket tunnel pairs, `corvane tunnel tcp->ws` into
# `corvane tunnel ws->tcp` (and the same over wss), against the plain tcp tunnel pair. Loopback
# only; certificates are made here for this run; every server is started here and killed by its
# PID on exit.
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

# One connection through each pair first: a first TLS client connection builds its context.
for port in "$ws_port" "$wss_port" "$tcp_port"; do
    "$TUNNELBENCH" rate "$port" 0.001 >/dev/null
done

# measure MODE ARGUMENT LABEL UNIT: each pair in turn, REPEAT times; one figure line.
measure() {
    local -A runs=() medians=()
    collect runs "$1" "$2" ws wss tcp
    figures "$3" "$4" runs medians ws wss tcp
    awk -v w="${medians[ws]}" -v s="${medians[wss]}" -v t="${medians[tcp]}" \
        'BEGIN { printf "; ws/tcp %.2f (aim 0.7), wss/tcp %.2f (aim 0.5)\n", w / t, s / t }'
}

measure bulk "$BULK_BYTES" "WebSocket tunnel pair throughput" "MB/s"
measure rate "$RATE_SECONDS" "WebSocket tunnel pair connection rate" "conn/s"
