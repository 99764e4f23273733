#!/usr/bin/env bash
# corvane serve / connect against socat, byte for byte both ways, and the host's answers to
# bad input. Every server is started here on a free loopback port and stopped by its PID.
set -uo pipefail
source "$(dirname "$0")/harness.sh"
free_port() {
    python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
# Waits up to 5 s for "listening on URI" in a file and prints the port.
listening_port() {
    for _ in $(seq 50); do
        local line; line=$(grep -m1 '^listening on ' "$1" 2>/dev/null) && { echo "${line##*:}"; return 0; }
        sleep 0.1
    done
    return 1
}
wait_accepting() {
    for _ in $(seq 50); do (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0; sleep 0.1; done
    return 1
}
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
sleep 0.5
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

summary
