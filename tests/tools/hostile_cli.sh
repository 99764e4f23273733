#!/usr/bin/env bash
# The host against peers that end at once: `connect` never dies by a signal, and a tunnel
# outlives targets that close right after the connect or right after the WebSocket upgrade.
# Every peer is started here on a free loopback port and stopped by its PID.
set -uo pipefail
source "$(dirname "$0")/harness.sh"
rounds=${HOSTILE_ROUNDS:-20}

# close-at-once: accepts and closes. upgrade-then-close: answers the WebSocket upgrade with a
# valid 101, then closes. Each prints its port.
cat > "$tmp/peer.py" <<'PY'
import base64, hashlib, socket, sys
listener = socket.socket()
listener.bind(("127.0.0.1", 0))
listener.listen(64)
print(listener.getsockname()[1], flush=True)
while True:
    client, _ = listener.accept()
    if sys.argv[1] == "upgrade-then-close":
        client.settimeout(5)
        request = b""
        try:
            while b"\r\n\r\n" not in request:
                chunk = client.recv(4096)
                if not chunk:
                    break
                request += chunk
        except OSError:
            pass
        key = b""
        for line in request.split(b"\r\n"):
            if line.lower().startswith(b"sec-websocket-key:"):
                key = line.split(b":", 1)[1].strip()
        accept = base64.b64encode(hashlib.sha1(key + b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11").digest())
        client.sendall(b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                       b"Sec-WebSocket-Accept: " + accept + b"\r\n\r\n")
    client.close()
PY
start_peer() {  # start_peer KIND: its port lands in $tmp/KIND.port
    python3 "$tmp/peer.py" "$1" > "$tmp/$1.port" 2> /dev/null & pids+=($!)
    for _ in $(seq 50); do [ -s "$tmp/$1.port" ] && break; sleep 0.1; done
}
start_peer close-at-once
start_peer upgrade-then-close
closing=$(cat "$tmp/close-at-once.port")
upgrading=$(cat "$tmp/upgrade-then-close.port")

never_signalled() {  # never_signalled URI: ROUNDS connects, none ends by a signal
    local status
    for _ in $(seq "$rounds"); do
        timeout 10 "$corvane" connect "$1" --wait 100 < /dev/null > /dev/null 2>> "$tmp/connect.err"
        status=$?
        if [ "$status" -ge 124 ]; then echo "  status $status: $(tail -n 3 "$tmp/connect.err")"; return 1; fi
    done
}
check "connect to a tcp peer that closes at once" never_signalled "tcp://127.0.0.1:$closing"
check "connect to a ws peer that closes at once" never_signalled "ws://127.0.0.1:$closing"
check "connect to a ws peer that closes after the upgrade" never_signalled "ws://127.0.0.1:$upgrading"

tunnel_survives() {  # tunnel_survives TARGET_URI: the tunnel lives through ROUNDS clients
    "$corvane" tunnel tcp://127.0.0.1:0 "$1" > "$tmp/tunnel.out" 2> "$tmp/tunnel.err" & local tunnel=$!
    local line=""
    for _ in $(seq 50); do line=$(grep -m1 '^listening on ' "$tmp/tunnel.out" 2>/dev/null) && break; sleep 0.1; done
    local port=${line##*:}
    for _ in $(seq "$rounds"); do
        echo hello | timeout 5 socat -t 1 - "TCP:127.0.0.1:$port" > /dev/null 2>&1
    done
    sleep 0.3
    if ! kill -0 "$tunnel" 2>/dev/null; then
        wait "$tunnel"; echo "  the tunnel ended with status $?: $(tail -n 3 "$tmp/tunnel.err")"; return 1
    fi
    kill -TERM "$tunnel"; wait "$tunnel"; local status=$?
    [ "$status" -eq 0 ] || echo "  the tunnel ended with status $status on SIGTERM: $(tail -n 3 "$tmp/tunnel.err")"
    [ "$status" -eq 0 ]
}
check "tunnel to a tcp target that closes at once" tunnel_survives "tcp://127.0.0.1:$closing"
check "tunnel to a ws target that closes after the upgrade" tunnel_survives "ws://127.0.0.1:$upgrading"

# Deadlines. Slow clients of a server: each connects, then sends nothing, half its handshake (a
# ClientHello, an upgrade request), or drips a byte every 0.3 s; HandshakeTimeout=1000 must
# drop it within 2 s, though the silence sweep would restart at each byte. Prints the seconds.
cat > "$tmp/slow.py" <<'PY'
import socket, ssl, sys, time
port, kind, mode = int(sys.argv[1]), sys.argv[2], sys.argv[3]
payload = (b"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
           b"Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n")
context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
context.check_hostname = False
context.verify_mode = ssl.CERT_NONE
conn = socket.create_connection(("127.0.0.1", port))
if kind == "tls":  # the ClientHello itself is the handshake sent by halves or drops
    outgoing = ssl.MemoryBIO()
    hello = context.wrap_bio(ssl.MemoryBIO(), outgoing)
    try:
        hello.do_handshake()
    except ssl.SSLWantReadError:
        pass
    payload = outgoing.read()
elif kind == "wss":  # TLS done, the upgrade is slow
    conn = context.wrap_socket(conn)
start = time.monotonic()
if mode == "half":
    conn.sendall(payload[: len(payload) // 2])
conn.settimeout(0.3)
sent = 0
while time.monotonic() - start < 5:
    try:
        if mode == "drip":
            conn.sendall(payload[sent % (len(payload) - 1):][:1])
            sent += 1
        if conn.recv(4096) == b"":
            break
    except socket.timeout:
        continue
    except OSError:
        break
print("%.1f" % (time.monotonic() - start))
PY
openssl req -x509 -newkey rsa:2048 -nodes -keyout "$tmp/key.pem" -out "$tmp/cert.pem" -days 2 -subj "/CN=localhost" 2>/dev/null
tls="CertificateFile=$tmp/cert.pem;PrivateKeyFile=$tmp/key.pem;NoCertify=true"
listening_port() {  # listening_port FILE: the port of its "listening on" line, once it is there
    local line=""
    for _ in $(seq 50); do line=$(grep -m1 'listening on ' "$1" 2>/dev/null) && break; sleep 0.1; done
    echo "${line##*:}"
}
for scheme in ssl ws wss; do
    "$corvane" serve "$scheme://127.0.0.1:0" --handshake-timeout 1000 --options "$tls" > "$tmp/$scheme.out" 2>/dev/null & pids+=($!)
    eval "${scheme}_port=\$(listening_port \"\$tmp/\$scheme.out\")"
done
dropped_in_time() {  # dropped_in_time PORT KIND MODE
    local seconds; seconds=$(python3 "$tmp/slow.py" "$@")
    awk -v s="$seconds" 'BEGIN { exit !(s >= 0.9 && s < 2.0) }' || { echo "  held for $seconds s"; return 1; }
}
for mode in silent half drip; do
    check "ssl server drops a $mode TLS handshake" dropped_in_time "$ssl_port" tls "$mode"
    check "ws server drops a $mode upgrade" dropped_in_time "$ws_port" ws "$mode"
    check "wss server drops a $mode TLS handshake" dropped_in_time "$wss_port" tls "$mode"
    check "wss server drops a $mode upgrade" dropped_in_time "$wss_port" wss "$mode"
done
check "a prompt wss client is served under the limit" sh -c \
    "echo hi | timeout 10 '$corvane' connect wss://127.0.0.1:$wss_port --options 'EnableProxy=false;NoCertify=true;LoadCryptoCertStore=false' | grep -qx hi"

# Silent peers on the way out. (The clients load no system CA store: under a sanitizer that
# alone outlasts the limits.) gate.py HOLD TARGET: holds its first HOLD connections without a
# word, forwards the later ones to TARGET (0: holds every one). Prints its port.
cat > "$tmp/gate.py" <<'PY'
import socket, sys, threading
hold, target = int(sys.argv[1]), int(sys.argv[2])
listener = socket.socket()
listener.bind(("127.0.0.1", 0))
listener.listen(128)
print(listener.getsockname()[1], flush=True)
held = []
def pump(a, b):
    try:
        while True:
            data = a.recv(65536)
            if not data:
                break
            b.sendall(data)
    except OSError:
        pass
    for s in (a, b):
        try:
            s.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
while True:
    client, _ = listener.accept()
    if target == 0 or len(held) < hold:
        held.append(client)
        continue
    upstream = socket.create_connection(("127.0.0.1", target))
    for a, b in ((client, upstream), (upstream, client)):
        threading.Thread(target=pump, args=(a, b), daemon=True).start()
PY
start_gate() {  # start_gate NAME HOLD TARGET: its port lands in $tmp/NAME.port
    python3 "$tmp/gate.py" "$2" "$3" > "$tmp/$1.port" 2> /dev/null & pids+=($!)
    for _ in $(seq 50); do [ -s "$tmp/$1.port" ] && break; sleep 0.1; done
}
# A target silent for as many connections as the tunnel has creator workers (16), with more
# clients waiting: each silent one fails on the limit with a line, and the next client is served.
next_client_served() {  # next_client_served SCHEME ECHO_PORT
    start_gate "gate_$1" 16 "$2"
    "$corvane" tunnel tcp://127.0.0.1:0 "$1://127.0.0.1:$(cat "$tmp/gate_$1.port")" --connect-timeout 1000 \
        --log-level WARN --target-options "EnableProxy=false;NoCertify=true;LoadCryptoCertStore=false" > "$tmp/tunnel_$1.out" 2> "$tmp/tunnel_$1.err" &
    local tunnel=$! port; port=$(listening_port "$tmp/tunnel_$1.out")
    local clients=()
    for _ in $(seq 20); do sleep 30 | socat -u - "TCP:127.0.0.1:$port" 2>/dev/null & clients+=($!); done
    for _ in $(seq 50); do
        [ "$(ss -Htn state established "( dport = :$port )" | wc -l)" -ge 20 ] && break; sleep 0.1
    done
    sleep 0.2
    # The client keeps its side open (a half-close would end a WebSocket pair at once) until
    # the echo comes, for 20 s at most: a sanitizer's build is slow to make 16 TLS contexts.
    local answer; answer=$(timeout 25 python3 -c '
import socket, sys, time
conn = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
conn.sendall(b"served")
conn.settimeout(20)
received = b""
while received != b"served":
    chunk = conn.recv(64)
    if not chunk:
        break
    received += chunk
print(received.decode())' "$port" 2>/dev/null)
    local failed
    for _ in $(seq 100); do
        failed=$(grep -c 'while creating a connection on behalf of' "$tmp/tunnel_$1.err")
        [ "$failed" -ge 16 ] && break; sleep 0.1
    done
    kill "${clients[@]}" 2>/dev/null; kill -TERM "$tunnel"; wait "$tunnel" 2>/dev/null
    [ "$answer" = served ] && [ "$failed" -ge 16 ] || { echo "  answer '$answer', $failed failure lines"; return 1; }
}
"$corvane" serve tcp://127.0.0.1:0 > "$tmp/echo.out" 2>/dev/null & pids+=($!)
echo_port=$(listening_port "$tmp/echo.out")
"$corvane" serve ssl://127.0.0.1:0 --options "$tls" > "$tmp/sslecho.out" 2>/dev/null & pids+=($!)
"$corvane" serve ws://127.0.0.1:0 > "$tmp/wsecho.out" 2>/dev/null & pids+=($!)
check "a tunnel to a silent ssl target serves its next client" next_client_served ssl "$(listening_port "$tmp/sslecho.out")"
check "a tunnel to a silent ws target serves its next client" next_client_served ws "$(listening_port "$tmp/wsecho.out")"

# Without a limit, a stop ends the handshakes that hang on a silent target at once.
stops_promptly() {  # stops_promptly SCHEME
    start_gate "silent_$1" 0 0
    "$corvane" tunnel tcp://127.0.0.1:0 "$1://127.0.0.1:$(cat "$tmp/silent_$1.port")" --connect-timeout 0 \
        --target-options "EnableProxy=false;NoCertify=true;LoadCryptoCertStore=false" > "$tmp/stop_$1.out" 2>/dev/null &
    local tunnel=$! port; port=$(listening_port "$tmp/stop_$1.out")
    local clients=()
    for _ in $(seq 4); do sleep 30 | socat -u - "TCP:127.0.0.1:$port" 2>/dev/null & clients+=($!); done
    sleep 0.5
    local start=$SECONDS status
    kill -TERM "$tunnel"; wait "$tunnel"; status=$?
    kill "${clients[@]}" 2>/dev/null
    [ "$status" -eq 0 ] && [ $((SECONDS - start)) -le 2 ] || { echo "  status $status after $((SECONDS - start)) s"; return 1; }
}
check "a tunnel stops while ssl handshakes hang" stops_promptly ssl
check "a tunnel stops while ws handshakes hang" stops_promptly ws

# A proxy that accepts and never answers: with ConnectTimeout=500 it fails with its lines and
# the direct connection follows within a second.
start_gate proxy 0 0
milliseconds_of() {  # milliseconds_of PATTERN FILE: the time of day of the first line that has it
    grep -m1 "$1" "$2" | awk '{ split($1, t, "[:.]"); print ((t[1] * 60 + t[2]) * 60 + t[3]) * 1000 + t[4] }'
}
proxy_skipped() {
    local answer; answer=$(echo direct | http_proxy="http://127.0.0.1:$(cat "$tmp/proxy.port")" timeout 10 \
        "$corvane" --log-level INFO connect "http://127.0.0.1:$echo_port" --connect-timeout 500 2> "$tmp/proxy.err")
    # From the CONNECT sent to the proxy to the direct connection.
    local took=$(( $(milliseconds_of 'Initiating/continuing proxy-connection' "$tmp/proxy.err") ))
    took=$(( $(milliseconds_of 'Connecting directly' "$tmp/proxy.err") - took ))
    [ "$answer" = direct ] && [ "$took" -ge 400 ] && [ "$took" -lt 1000 ] &&
        grep -q 'ProxySocketConnect: no answer from the proxy within ConnectTimeout=500 ms' "$tmp/proxy.err" &&
        grep -q 'SocketConnectAttemptProxy: exception caught: no answer from the proxy' "$tmp/proxy.err" &&
        grep -q 'Connecting directly' "$tmp/proxy.err" || { echo "  '$answer' after $took ms"; return 1; }
}
check "a silent proxy is given up for the direct connection" proxy_skipped

summary
