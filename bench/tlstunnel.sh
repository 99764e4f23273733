#!/usr/bin/env bash
# Throughput and connection rate through a TLS tunnel pair, `corvane tunnel tcp->ssl` into
# `corvane tunnel ssl->tcp`, against a stunnel client/server pair with the same certificates and
# against the plain tcp tunnel pair. Loopback only; certificates are made here for this run;
# every server is started here and killed by its PID on exit.
#   CORVANE      the corvane binary (default build/tools/corvane/corvane)
#   TUNNELBENCH  the peer and client program (default: bench/tunnelbench beside corvane's build)
#   REPEAT       repetitions of each figure (default 5)
#   CLIENT_TLS   extra option text of corvane's outgoing TLS side (default empty)
set -euo pipefail

CORVANE=${CORVANE:-build/tools/corvane/corvane}
TUNNELBENCH=${TUNNELBENCH:-$(dirname "$CORVANE")/../../bench/tunnelbench}
REPEAT=${REPEAT:-5}
BULK_BYTES=${BULK_BYTES:-268435456}
RATE_SECONDS=${RATE_SECONDS:-1}
CLIENT_TLS=${CLIENT_TLS:-}

for program in "$CORVANE" "$TUNNELBENCH"; do
    [[ -x $program ]] || { echo "tlstunnel.sh: $program is not built" >&2; exit 1; }
done
command -v stunnel4 >/dev/null || { echo "tlstunnel.sh: stunnel4 is missing (scripts/install-deps)" >&2; exit 1; }

# shellcheck source=bench/common.sh
source "$(dirname "$0")/common.sh"


make_certificates

"$TUNNELBENCH" serve >"$work/server" &
pids+=($!)
wait_for test -s "$work/server"
server_port=$(head -n1 "$work/server")

# corvane: tcp -> ssl -> tcp, and the same pair over plain tcp.
corvane_tunnel tls_in ssl://127.0.0.1:0 "tcp://127.0.0.1:$server_port" \
    --listen-options "CertificateFile=$work/cert.pem;PrivateKeyFile=$work/key.pem;NoCertify=true"
corvane_tunnel corvane_port tcp://127.0.0.1:0 "ssl://localhost:$tls_in" \
    --target-options "CAFile=$work/ca.pem${CLIENT_TLS:+;$CLIENT_TLS}"
corvane_tunnel tcp_in tcp://127.0.0.1:0 "tcp://127.0.0.1:$server_port"
corvane_tunnel tcp_port tcp://127.0.0.1:0 "tcp://127.0.0.1:$tcp_in"

# stunnel: the same pair with the same certificates, verifying the server's chain and name.
stunnel_in=$(free_port)
stunnel_port=$(free_port)
printf '%s\n' "foreground = yes" "pid =" "debug = 0" "[in]" "accept = 127.0.0.1:$stunnel_in" \
    "connect = 127.0.0.1:$server_port" "cert = $work/cert.pem" "key = $work/key.pem" >"$work/in.conf"
printf '%s\n' "foreground = yes" "pid =" "debug = 0" "[out]" "client = yes" "accept = 127.0.0.1:$stunnel_port" \
    "connect = 127.0.0.1:$stunnel_in" "CAfile = $work/ca.pem" "verifyChain = yes" "checkHost = localhost" \
    "sni = localhost" >"$work/out.conf"
stunnel4 "$work/in.conf" 2>/dev/null &
pids+=($!)
stunnel4 "$work/out.conf" 2>/dev/null &
pids+=($!)
wait_for accepting "$stunnel_in"
wait_for accepting "$stunnel_port"

# One connection through each pair first: the first TLS client connection of a tunnel builds
# its context, which is not what the figures are about.
for port in "$corvane_port" "$stunnel_port" "$tcp_port"; do
    "$TUNNELBENCH" rate "$port" 0.001 >/dev/null
done


# measure MODE ARGUMENT LABEL UNIT: each pair in turn, REPEAT times; one figure line.
measure() {
    local -A runs=() medians=()
    collect runs "$1" "$2" corvane stunnel tcp
    figures "$3" "$4" runs medians corvane stunnel tcp
    awk -v c="${medians[corvane]}" -v s="${medians[stunnel]}" -v t="${medians[tcp]}" \
        'BEGIN { printf "; corvane/stunnel %.2f, corvane tls/tcp %.2f\n", c / s, c / t }'
}

measure bulk "$BULK_BYTES" "TLS tunnel pair throughput" "MB/s"
measure rate "$RATE_SECONDS" "TLS tunnel pair connection rate" "conn/s"
