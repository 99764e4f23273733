#!/usr/bin/env bash
# The host against peers that end at once: `connect` never dies by a signal, and a tunnel
# outlives targets that close right after the connect or right after the WebSocket upgrade.
# Every peer is started here on a free loopback port and stopped by its PID.
set -uo pipefail
source "$(dirname "$0")/harness.sh"
rounds=${HOSTILE_ROUNDS:-20}

# close-at-once: accepts and closes. upgrade-then-close: answers the WebSocket upgrade with a
# valid 101, then closes. violate: a valid 101, then a frame of a reserved opcode. bad-accept:
# a 101 with the wrong Sec-WebSocket-Accept. Each prints its port.
cat > "$tmp/peer.py" <<'PY'
import base64, hashlib, socket, sys
listener = socket.socket()
listener.bind(("127.0.0.1", 0))
listener.listen(64)
print(listener.getsockname()[1], flush=True)
while True:
    client, _ = listener.accept()
    if sys.argv[1] != "close-at-once":
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
        if sys.argv[1] == "bad-accept":
            accept = b"AAAAAAAAAAAAAAAAAAAAAAAAAAA="
        try:
            client.sendall(b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                           b"Sec-WebSocket-Accept: " + accept + b"\r\n\r\n")
            if sys.argv[1] == "violate":
                client.sendall(b"\x8f\x00")  # a frame of a reserved opcode
                client.recv(100)
        except OSError:
            pass
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

# Deadlines: the host's --handshake-timeout reaches its servers (the hostile table covers every
# server scheme with silent and dripped handshakes): a client silent after its connect is
# dropped within 2 s, a prompt one is served.
openssl req -x509 -newkey rsa:2048 -nodes -keyout "$tmp/key.pem" -out "$tmp/cert.pem" -days 2 -subj "/CN=localhost" 2>/dev/null
tls="CertificateFile=$tmp/cert.pem;PrivateKeyFile=$tmp/key.pem;NoCertify=true"
"$corvane" serve wss://127.0.0.1:0 --handshake-timeout 1000 --options "$tls" > "$tmp/wss.out" 2>/dev/null & pids+=($!)
wss_port=$(listening_port "$tmp/wss.out")
dropped_in_time() {  # dropped_in_time PORT
    local start=$EPOCHREALTIME seconds
    timeout 5 bash -c "exec 3<>/dev/tcp/127.0.0.1/$1 && cat <&3 > /dev/null"
    seconds=$(awk -v a="$start" -v b="$EPOCHREALTIME" 'BEGIN { printf "%.1f", b - a }')
    awk -v s="$seconds" 'BEGIN { exit !(s >= 0.9 && s < 2.0) }' || { echo "  held for $seconds s"; return 1; }
}
check "wss server drops a silent client on --handshake-timeout" dropped_in_time "$wss_port"
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
gate_holds() {  # gate_holds PORT N: waits up to 20 s for N established connections to the gate
    for _ in $(seq 200); do
        [ "$(ss -Htn state established "( dport = :$1 )" | wc -l)" -ge "$2" ] && return 0; sleep 0.1
    done
    return 1
}
start_gate() {  # start_gate NAME HOLD TARGET: its port lands in $tmp/NAME.port
    python3 "$tmp/gate.py" "$2" "$3" > "$tmp/$1.port" 2> /dev/null & pids+=($!)
    for _ in $(seq 50); do [ -s "$tmp/$1.port" ] && break; sleep 0.1; done
}
# A target silent for as many connections as the tunnel has creator workers (16), with more
# clients waiting: each silent one fails on the limit with a line, and the next client is served.
# The limit leaves room for the served client's own TLS handshake under a sanitizer on a loaded
# machine (over 1 s seen).
next_client_served() {  # next_client_served SCHEME ECHO_PORT
    start_gate "gate_$1" 16 "$2"
    "$corvane" tunnel tcp://127.0.0.1:0 "$1://127.0.0.1:$(cat "$tmp/gate_$1.port")" --connect-timeout 3000 \
        --log-level WARN --target-options "EnableProxy=false;NoCertify=true;LoadCryptoCertStore=false" > "$tmp/tunnel_$1.out" 2> "$tmp/tunnel_$1.err" &
    local tunnel=$! port; port=$(listening_port "$tmp/tunnel_$1.out")
    local clients=()
    for _ in $(seq 20); do sleep 30 | socat -u - "TCP:127.0.0.1:$port" 2>/dev/null & clients+=($!); done
    # The gate must hold its 16 before the served client comes: under a sanitizer the workers'
    # connects reach it seconds after the accepts, in any order.
    gate_holds "$(cat "$tmp/gate_$1.port")" 16
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
    # The stop is timed once all four hang in their handshakes: a sanitizer's build takes a
    # while to make the TLS context before it connects, and no stop cuts that short.
    gate_holds "$(cat "$tmp/silent_$1.port")" 4
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

# WebSocket and TLS failure paths. A client of a ws/wss server that pushes without reading
# ("push": until its socket blocks) or floods pings and reads nothing ("ping"); a tcp client
# that pushes without reading ("tcp-push") or asks for echo and never reads it ("tcp-stall").
cat > "$tmp/client.py" <<'PY'
import os, socket, ssl, struct, sys, time
port, mode, secure = int(sys.argv[1]), sys.argv[2], sys.argv[3:] == ["tls"]
s = socket.create_connection(("127.0.0.1", port))
if secure:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
    s = context.wrap_socket(s)
def frame(opcode, payload):  # masked with the key 0
    n = len(payload)
    length = bytes([0x80 | n]) if n < 126 else bytes([0x80 | 126]) + struct.pack("!H", n)
    return bytes([0x80 | opcode]) + length + b"\0\0\0\0" + payload
if not mode.startswith("tcp"):
    s.sendall(b"GET / HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
              b"Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n")
    response = b""
    while b"\r\n\r\n" not in response:
        response += s.recv(1)
data = {"push": frame(2, b"x" * 16384), "ping": frame(9, b"p" * 125) * 64}.get(mode, b"x" * 65536)
s.settimeout(1.0)
deadline = time.time() + 3
while time.time() < deadline:
    try:
        s.sendall(data)
    except (socket.timeout, ssl.SSLError, OSError):
        if mode != "ping":
            break
print("blocked", flush=True)
time.sleep(60)
PY
instrumented=false
grep -q __asan_init "$corvane" "$(dirname "$corvane")/../../src/libcorvane.so" 2>/dev/null && instrumented=true

ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
descriptors() { ls "/proc/$1/fd" | wc -l; }
lines() { cat "$@" | grep -vc 'EXMPERIMENTAL\|expired certificate'; }
run_client() {  # run_client PORT MODE [tls]: until the client's socket blocks; its PID in $client
    rm -f "$tmp/client.out"
    python3 "$tmp/client.py" "$@" > "$tmp/client.out" 2> /dev/null & client=$!
    for _ in $(seq 100); do grep -q blocked "$tmp/client.out" 2>/dev/null && break; sleep 0.1; done
}
quiet_after() {  # quiet_after PID:DESCRIPTORS...: once the client is killed, each process gets
    # back to its descriptors (within 10 s: the end may first deliver what the tunnel holds)
    # and then spins no more (< 5% over 2 s)
    kill -9 "$client"; wait "$client" 2>/dev/null
    local entry pid status=0 most=10 before=() i=0
    $instrumented && most=20  # the sanitizers' own work on a loaded machine
    for entry in "$@"; do
        pid=${entry%:*}
        for _ in $(seq 100); do [ "$(descriptors "$pid")" -le "${entry#*:}" ] && break; sleep 0.1; done
        [ "$(descriptors "$pid")" -le "${entry#*:}" ] || { echo "  $pid: $(descriptors "$pid") descriptors, ${entry#*:} before"; status=1; }
    done
    for entry in "$@"; do before+=("$(ticks "${entry%:*}")"); done
    sleep 2
    for entry in "$@"; do
        local used=$(( $(ticks "${entry%:*}") - before[i++] ))
        [ "$used" -le "$most" ] || { echo "  process ${entry%:*} used $used ticks in 2 s"; status=1; }
    done
    return $status
}

killed_writer() {  # killed_writer SCHEME: serve SCHEME, a pushing client killed
    "$corvane" serve "$1://127.0.0.1:0" --options "$tls" > "$tmp/kw.out" 2> "$tmp/kw.err" & local server=$!
    local port open; port=$(listening_port "$tmp/kw.out"); open=$(descriptors "$server")
    run_client "$port" push $([ "$1" = wss ] && echo tls)
    quiet_after "$server:$open"; local status=$?
    [ "$(lines "$tmp/kw.err")" -le 2 ] || { echo "  lines: $(head -5 "$tmp/kw.err")"; status=1; }
    kill "$server"; wait "$server"
    return $status
}
check "serve wss: a writer killed with unread output ends its connection at once" killed_writer wss

ping_flood() {  # serve ws: a client that floods pings and reads nothing grows it by < 32 MB
    "$corvane" serve ws://127.0.0.1:0 > "$tmp/pf.out" 2> /dev/null & local server=$!
    local port before after; port=$(listening_port "$tmp/pf.out")
    before=$(awk '/VmRSS/ {print $2}' "/proc/$server/status")
    run_client "$port" ping
    after=$(awk '/VmRSS/ {print $2}' "/proc/$server/status")
    kill -9 "$client"; wait "$client" 2>/dev/null; kill "$server"; wait "$server"
    # Under ASan freed memory waits in the quarantine: only the plain build measures.
    $instrumented || [ $((after - before)) -lt 32768 ] || { echo "  grew by $((after - before)) kB"; return 1; }
}
check "serve ws: a ping flood that reads nothing keeps memory bounded" ping_flood

pair() {  # pair SCHEME: echo server <- SCHEME tunnel <- tcp tunnel; PIDs in $outer $inner $echo
    "$corvane" serve tcp://127.0.0.1:0 > "$tmp/echo.out" 2> /dev/null & echo=$!
    local port; port=$(listening_port "$tmp/echo.out")
    "$corvane" tunnel "$1://127.0.0.1:0" "tcp://127.0.0.1:$port" --listen-options "$tls" \
        > "$tmp/inner.out" 2> "$tmp/inner.err" & inner=$!
    port=$(listening_port "$tmp/inner.out")
    "$corvane" tunnel tcp://127.0.0.1:0 "$1://127.0.0.1:$port" --target-options "NoCertify=true;EnableProxy=false" \
        > "$tmp/outer.out" 2> "$tmp/outer.err" & outer=$!
    entry=$(listening_port "$tmp/outer.out")
}
unpair() { kill "$outer" "$inner" "$echo"; wait "$outer" "$inner" "$echo"; }

killed_through_pair() {  # killed_through_pair SCHEME: a pushing tcp client killed, through a pair
    pair "$1"
    local outer_open inner_open; outer_open=$(descriptors "$outer"); inner_open=$(descriptors "$inner")
    run_client "$entry" tcp-push
    quiet_after "$outer:$outer_open" "$inner:$inner_open"; local status=$?
    [ "$(lines "$tmp/outer.err" "$tmp/inner.err")" -le 2 ] || { echo "  lines: $(head -5 "$tmp/inner.err")"; status=1; }
    unpair; return $status
}
check "tcp->ws->tcp: a killed writer ends both tunnels' connections" killed_through_pair ws
check "tcp->wss->tcp: a killed writer ends both tunnels' connections" killed_through_pair wss

stalled_reader() {  # tcp->ws->tcp: a client that never reads its echo costs the tunnel no CPU
    pair ws; run_client "$entry" tcp-stall
    local before used; before=$(ticks "$outer"); sleep 2; used=$(( $(ticks "$outer") - before ))
    kill -9 "$client"; wait "$client" 2>/dev/null; unpair
    # A spinning tunnel takes a whole core (200 ticks in 2 s); an idle one, under a sanitizer
    # on a loaded machine, up to about a tenth of that.
    [ "$used" -le 50 ] || { echo "  the outer tunnel used $used ticks in 2 s"; return 1; }
}
check "tcp->ws->tcp: a stalled reader does not spin the tunnel" stalled_reader

healthy_pair() {  # tcp->wss->tcp: healthy connections write no ERROR line at the default level
    pair wss
    python3 - "$entry" "${HEALTHY_CONNECTIONS:-300}" <<'PY'
import socket, sys
for i in range(int(sys.argv[2])):
    c = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
    c.settimeout(5)
    c.sendall(b"hello\n")
    assert c.recv(16) == b"hello\n"
    c.close()
PY
    local status=$?
    sleep 0.5; unpair
    ! grep -h ERROR "$tmp/outer.err" "$tmp/inner.err" && [ "$status" -eq 0 ]
}
check "tcp->wss->tcp: healthy connections write no ERROR line" healthy_pair

start_peer violate
start_peer bad-accept
says() {  # says TEXT URI [OPTIONS]: connect fails with exit 1 and TEXT on stderr
    timeout 10 "$corvane" connect "$2" --options "${3:-EnableProxy=false}" < /dev/null > /dev/null 2> "$tmp/says.err"
    local status=$?
    [ "$status" -eq 1 ] && grep -qF "$1" "$tmp/says.err" || { echo "  status $status: $(cat "$tmp/says.err")"; return 1; }
}
check "connect: a protocol violation names its cause" \
    says "broke the WebSocket protocol (1002)" "ws://127.0.0.1:$(cat "$tmp/violate.port")"
check "connect: a wrong Sec-WebSocket-Accept is named" \
    says "Sec-WebSocket-Accept does not match" "ws://127.0.0.1:$(cat "$tmp/bad-accept.port")"
if ! (exec 3<>/dev/tcp/127.0.0.1/80) 2>/dev/null; then
    check "connect: the default port's refusal names the system cause" \
        says "ws://127.0.0.1:80: Connection refused" ws://127.0.0.1
fi
"$corvane" serve ssl://127.0.0.1:0 --options "$tls" > "$tmp/tls.out" 2> /dev/null & pids+=($!)
check "connect: a failed verification says why" says "(self-signed certificate)" "ssl://localhost:$(listening_port "$tmp/tls.out")"

no_version() {  # an upgrade without Sec-WebSocket-Version is answered 426 with the version spoken
    "$corvane" serve ws://127.0.0.1:0 > "$tmp/nv.out" 2> /dev/null & local server=$!
    python3 - "$(listening_port "$tmp/nv.out")" <<'PY'
import socket, sys
s = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
s.settimeout(5)
s.sendall(b"GET / HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
          b"Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n")
answer = s.recv(4096)
sys.exit(0 if answer.startswith(b"HTTP/1.1 426 ") and b"Sec-WebSocket-Version: 13\r\n" in answer else 1)
PY
    local status=$?
    kill "$server"; wait "$server"
    return $status
}
check "serve ws: an upgrade without a version is answered 426" no_version

summary
