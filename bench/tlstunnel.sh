#!/usr/bin/env bash
# Throughput and connection rate through a TLS tunnel pair, `corvane tunnel tcp->ssl` into
# `corvane tunnel ssl->tcp`, against haproxy and stunnel client/server pairs with the same
# certificates and against the plain tcp tunnel pair; corvane and haproxy both with session
# resumption (their default) and with full handshakes only; with the CPU of each pair per 1000
# connections and per GB. Loopback only; certificates are made here for this run;
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
corvane_pids="$(jobs -p | tail -n2 | tr '\n' ' ')"
corvane_tunnel full_in ssl://127.0.0.1:0 "tcp://127.0.0.1:$server_port" \
    --listen-options "CertificateFile=$work/cert.pem;PrivateKeyFile=$work/key.pem;NoCertify=true;SessionResumption=false"
corvane_tunnel corvane_full_port tcp://127.0.0.1:0 "ssl://localhost:$full_in" \
    --target-options "CAFile=$work/ca.pem;SessionResumption=false${CLIENT_TLS:+;$CLIENT_TLS}"
corvane_full_pids="$(jobs -p | tail -n2 | tr '\n' ' ')"
corvane_tunnel tcp_in tcp://127.0.0.1:0 "tcp://127.0.0.1:$server_port"
corvane_tunnel tcp_port tcp://127.0.0.1:0 "tcp://127.0.0.1:$tcp_in"
tcp_pids="$(jobs -p | tail -n2 | tr '\n' ' ')"

# haproxy: the same pair, verifying the server's chain and name; once resuming sessions (its
# default), once with full handshakes only.
cat "$work/cert.pem" "$work/key.pem" >"$work/haproxy.pem"
FRONT_SUFFIX="ssl crt $work/haproxy.pem" haproxy_tcp haproxy_in "$server_port"
haproxy_tcp haproxy_port "$haproxy_in" "ssl verify required ca-file $work/ca.pem sni str(localhost) verifyhost localhost"
haproxy_pids="$haproxy_in_pid $haproxy_port_pid"
FRONT_SUFFIX="ssl crt $work/haproxy.pem no-tls-tickets" haproxy_tcp haproxy_full_in "$server_port"
haproxy_tcp haproxy_full_port "$haproxy_full_in" \
    "ssl verify required ca-file $work/ca.pem sni str(localhost) verifyhost localhost no-ssl-reuse"
haproxy_full_pids="$haproxy_full_in_pid $haproxy_full_port_pid"

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
stunnel_pids=$!
stunnel4 "$work/out.conf" 2>/dev/null &
pids+=($!)
stunnel_pids+=" $!"
wait_for accepting "$stunnel_in"
wait_for accepting "$stunnel_port"

# One connection through each pair first: the first TLS client connection of a tunnel builds
# its context, which is not what the figures are about.
for port in "$corvane_port" "$corvane_full_port" "$haproxy_port" "$haproxy_full_port" "$stunnel_port" "$tcp_port"; do
    "$TUNNELBENCH" rate "$port" 0.001 >/dev/null
done


# measure MODE ARGUMENT LABEL UNIT CPU_LABEL: each pair in turn, REPEAT times; one figure line and
# one CPU line.
measure() {
    local -A runs=() medians=()
    local targets=(corvane corvane_full haproxy haproxy_full stunnel tcp)
    collect runs "$1" "$2" "${targets[@]}"
    figures "$3" "$4" runs medians "${targets[@]}"
    awk -v c="${medians[corvane]}" -v cf="${medians[corvane_full]}" -v h="${medians[haproxy]}" \
        -v hf="${medians[haproxy_full]}" -v s="${medians[stunnel]}" -v t="${medians[tcp]}" \
        'BEGIN { printf "; corvane/haproxy %.2f, corvane_full/haproxy_full %.2f, corvane/stunnel %.2f, corvane tls/tcp %.2f\n", c / h, cf / hf, c / s, c / t }'
    cpu_figures "$5" ms haproxy "${targets[@]}"
}

measure bulk "$BULK_BYTES" "TLS tunnel pair throughput" "MB/s" "TLS tunnel pair CPU per GB"
measure rate "$RATE_SECONDS" "TLS tunnel pair connection rate" "conn/s" "TLS tunnel pair CPU per 1000 connections"
