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

summary
