#!/usr/bin/env bash
# corvane serve / connect against socat, byte for byte both ways, and the host's answers to
# bad input. Every server is started here on a free loopback port and stopped by its PID.
set -uo pipefail
source "$(dirname "$0")/harness.sh"
one_line_error() {  # one_line_error EXPECTED_FRAGMENT COMMAND...: non-zero exit, one stderr line
    local fragment=$1; shift
    "$@" > /dev/null 2> "$tmp/err" < /dev/null
    local status=$?
    [ "$status" -ne 0 ] && [ "$(wc -l < "$tmp/err")" -eq 1 ] && grep -qF -- "$fragment" "$tmp/err" \
        || { echo "  exit $status, stderr: $(cat "$tmp/err")"; return 1; }
}

head -c 3000000 /dev/urandom > "$tmp/in"

# socat as the client of our echo server.
"$corvane" serve tcp://127.0.0.1:0 --echo > "$tmp/serve.out" 2> "$tmp/serve.err" & pids+=($!)
serve_pid=$!
port=$(listening_port "$tmp/serve.out")
timeout 30 socat -t 5 - "TCP:127.0.0.1:$port" < "$tmp/in" > "$tmp/out1"
check "socat client through corvane serve --echo" cmp -s "$tmp/in" "$tmp/out1"

# Our client to our server, and the port in use.
timeout 30 "$corvane" connect "tcp://127.0.0.1:$port" < "$tmp/in" > "$tmp/out2"
check "corvane connect through corvane serve" cmp -s "$tmp/in" "$tmp/out2"
check "serve on a port in use" one_line_error "while binding to tcp://127.0.0.1:$port: Address already in use" \
    "$corvane" serve "tcp://127.0.0.1:$port"
kill -INT "$serve_pid"; wait "$serve_pid"; status=$?
check "serve ends cleanly on SIGINT" test "$status" -eq 0

# socat as the echo server of our client.
sport=$(free_port)
socat "TCP-LISTEN:$sport,bind=127.0.0.1,reuseaddr,fork" EXEC:cat & pids+=($!)
wait_accepting "$sport"
timeout 30 "$corvane" connect "tcp://127.0.0.1:$sport" < "$tmp/in" > "$tmp/out3"
check "corvane connect through a socat echo server" cmp -s "$tmp/in" "$tmp/out3"

# A discarding server takes everything and answers nothing.
"$corvane" serve tcp://127.0.0.1:0 --discard > "$tmp/discard.out" & pids+=($!)
dport=$(listening_port "$tmp/discard.out")
timeout 30 "$corvane" connect "tcp://127.0.0.1:$dport" --wait 200 < "$tmp/in" > "$tmp/out4"
check "discard answers nothing" test ! -s "$tmp/out4"

# Bad input: one clear line and a non-zero exit, never a hang.
closed=$(free_port)
check "malformed URI" one_line_error "invalid URI" timeout 10 "$corvane" connect "tcp://[::1:80"
check "unknown scheme" one_line_error "transport protocol 'gopher' not recognized" \
    timeout 10 "$corvane" connect gopher://127.0.0.1:70
check "refused connection" one_line_error "while connecting to tcp://127.0.0.1:$closed: Connection refused" \
    timeout 10 "$corvane" connect "tcp://127.0.0.1:$closed"
check "unknown option" one_line_error "unknown option" timeout 10 "$corvane" --colour connect x
check "missing URI" one_line_error "a URI to connect to is needed" timeout 10 "$corvane" connect

# "http" connects through the proxy of http_proxy (tinyproxy here), for connect and for a
# tunnel's outgoing side; at INFO the log names the proxy tried and its answer.
tport=$(free_port)
printf '%s\n' "Port $tport" "Listen 127.0.0.1" "Allow 127.0.0.1" "LogFile \"$tmp/tp.log\"" "LogLevel Info" > "$tmp/tp.conf"
tinyproxy -d -c "$tmp/tp.conf" & pids+=($!)
wait_accepting "$tport"
http_proxy="127.0.0.1:$tport" timeout 30 "$corvane" --log-level INFO connect "http://127.0.0.1:$sport" \
    < "$tmp/in" > "$tmp/out5" 2> "$tmp/proxy.err"
check "corvane connect http:// through tinyproxy" cmp -s "$tmp/in" "$tmp/out5"
check "the proxy tried, at INFO" grep -qF "initiating connection with proxy '127.0.0.1:$tport'" "$tmp/proxy.err"
check "the proxy's answer, at INFO" grep -qF "got response: HTTP/1.0 200 Connection established" "$tmp/proxy.err"
http_proxy="127.0.0.1:$tport" "$corvane" tunnel tcp://127.0.0.1:0 "http://127.0.0.1:$sport" > "$tmp/tunnel.out" 2>/dev/null & pids+=($!)
tunnel_port=$(listening_port "$tmp/tunnel.out")
(printf 'through the tunnel'; sleep 1) | timeout 30 socat -t 5 - "TCP:127.0.0.1:$tunnel_port" > "$tmp/out6"
check "tunnel to http:// through tinyproxy" test "$(cat "$tmp/out6")" = "through the tunnel"
check "tinyproxy saw both CONNECTs" test "$(grep -c "): CONNECT 127.0.0.1:$sport " "$tmp/tp.log")" -eq 2

# Ctrl-C ends an idle client at once.
mkfifo "$tmp/fifo"
sleep 30 > "$tmp/fifo" & pids+=($!)
timeout 20 "$corvane" connect "tcp://127.0.0.1:$sport" < "$tmp/fifo" > /dev/null & client=$!
# Idle means connected: wait (at most 10 s) until a connection to the server stands, since a
# signal during the connect itself ends the client with 128 + the signal.
established_to() {
    awk -v port="$(printf ':%04X' "$1")" '$3 ~ port "$" && $4 == "01" { found = 1 } END { exit !found }' /proc/net/tcp
}
for _ in $(seq 1 200); do established_to "$sport" && break; sleep 0.05; done
sleep 0.2
kill -INT "$client"; wait "$client"; status=$?
check "connect ends cleanly on SIGINT" test "$status" -eq 0

# The version as proxy requests carry it, and the libraries' versions.
version_lines() {
    "$corvane" "$@" > "$tmp/version" && [ "$(head -n1 "$tmp/version")" = "corvane/2.0.1.34" ] &&
        grep -Eq '^built with OpenSSL [0-9.]+, websocketpp [0-9.]+, log4cxx [0-9.]+$' "$tmp/version" \
        || { echo "  $(cat "$tmp/version")"; return 1; }
}
check "--version" version_lines --version
check "version" version_lines version


# TLS: certificates made here (a CA and a localhost server signed by it), never committed.
make_certificates
server_tls="CertificateFile=$tmp/server.pem;PrivateKeyFile=$tmp/server.key;NoCertify=true"
client_tls="LoadCryptoCertStore=false;CAFile=$tmp/ca.pem"
"$corvane" serve ssl://127.0.0.1:0 --echo --options "$server_tls" > "$tmp/tls.out" & pids+=($!)
tls_port=$(listening_port "$tmp/tls.out")
timeout 30 "$corvane" connect "ssl://localhost:$tls_port" --options "$client_tls" < "$tmp/in" > "$tmp/tls_out5"
check "corvane connect ssl through corvane serve ssl --echo" cmp -s "$tmp/in" "$tmp/tls_out5"
check "failed handshake" one_line_error "SSL_connect:SSL_ERROR_SSL:" \
    timeout 10 "$corvane" connect "ssl://localhost:$tls_port"
check "failed name check" one_line_error "validateCertificates: Common name doesn't match host name" \
    timeout 10 "$corvane" connect "ssl://127.0.0.1:$tls_port" --options "$client_tls"
timeout 10 "$corvane" serve ssl://127.0.0.1:0 --options "CertificateFile=$tmp/missing.pem" > /dev/null 2> "$tmp/err"
status=$?
check "server with a missing certificate file names it and the cause" \
    grep -qF "unable to load certificate file '$tmp/missing.pem': No such file or directory" "$tmp/err"
check "server with a missing certificate file exits 1" test "$status" -eq 1
check "server without a certificate" one_line_error "a TLS server needs a certificate" \
    timeout 10 "$corvane" serve ssl://127.0.0.1:0
# Port 0 is a free port for ws and wss too, and "listening on" names it.
"$corvane" serve ws://127.0.0.1:0 > "$tmp/ws0.out" & pids+=($!)
"$corvane" serve wss://127.0.0.1:0 --options "$server_tls" > "$tmp/wss0.out" & pids+=($!)
ws0_port=$(listening_port "$tmp/ws0.out")
wss0_port=$(listening_port "$tmp/wss0.out")
check "ws port 0 is a free port" sh -c "[ '$ws0_port' -gt 1024 ] && echo hi | timeout 10 '$corvane' connect ws://127.0.0.1:$ws0_port --options EnableProxy=false | grep -qx hi"
check "wss port 0 is a free port" sh -c "[ '$wss0_port' -gt 1024 ] && echo hi | timeout 10 '$corvane' connect wss://127.0.0.1:$wss0_port --options 'EnableProxy=false;NoCertify=true' | grep -qx hi"
# AllowedOrigins and TextMessages against a browser-like client (python3-websockets).
"$corvane" serve ws://127.0.0.1:0 --log-level WARN \
    --options "AllowedOrigins=http://ok.example,http://also.example;TextMessages=true" > "$tmp/wso.out" 2> "$tmp/wso.err" & pids+=($!)
"$corvane" serve ws://127.0.0.1:0 --log-level WARN > "$tmp/wst.out" 2> "$tmp/wst.err" & pids+=($!)
wso_port=$(listening_port "$tmp/wso.out")
wst_port=$(listening_port "$tmp/wst.out")
ws_client() {  # ws_client PORT ORIGIN: sends a text message, prints what comes back or the status
    timeout 10 /usr/bin/python3 - "$@" <<'PY'
import asyncio, sys, websockets
async def main(port, origin):
    try:
        async with websockets.connect("ws://127.0.0.1:%s/" % port, origin=origin or None) as ws:
            await ws.send("hello")
            try:
                print(repr(await asyncio.wait_for(ws.recv(), 1)))
            except asyncio.TimeoutError:
                print("nothing")
    except websockets.exceptions.InvalidStatusCode as e:
        print("status", e.status_code)
asyncio.run(main(sys.argv[1], sys.argv[2]))
PY
}
answers() {  # answers EXPECTED PORT ORIGIN
    local got; got=$(ws_client "$2" "$3"); [ "$got" = "$1" ] || { echo "  got: $got"; return 1; }
}
check "Origin outside AllowedOrigins gets 403" answers "status 403" "$wso_port" http://evil.example
check "listed Origin, text echoed as binary" answers "b'hello'" "$wso_port" http://also.example
check "no Origin is accepted" answers "b'hello'" "$wso_port" ""
check "refused Origin logs one WARN line" test "$(grep -c "upgrade from Origin 'http://evil.example' refused" "$tmp/wso.err")" -eq 1
check "text dropped without TextMessages" answers "nothing" "$wst_port" ""
check "dropped text logs one WARN line per channel" test "$(grep -c 'text message dropped on' "$tmp/wst.err")" -eq 1

# 64 MiB full duplex through a TLS tunnel pair, tcp -> ssl -> tcp, in front of socat's echo.
head -c $((64 << 20)) /dev/urandom > "$tmp/big"
"$corvane" tunnel ssl://127.0.0.1:0 "tcp://127.0.0.1:$sport" --listen-options "$server_tls" \
    > "$tmp/tunnel2.out" & pids+=($!)
t2_port=$(listening_port "$tmp/tunnel2.out")
"$corvane" tunnel tcp://127.0.0.1:0 "ssl://localhost:$t2_port" --target-options "$client_tls" \
    > "$tmp/tunnel3.out" & pids+=($!)
t3_port=$(listening_port "$tmp/tunnel3.out")
timeout 60 "$corvane" connect "tcp://127.0.0.1:$t3_port" --wait 500 < "$tmp/big" > "$tmp/tls_out8"
check "64 MiB through the tunnel pair tcp -> ssl -> tcp" cmp -s "$tmp/big" "$tmp/tls_out8"

summary
