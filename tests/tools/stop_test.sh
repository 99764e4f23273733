#!/usr/bin/env bash
# SIGTERM ends every corvane command within a second, also while it is blocked in the library,
# and a server with clients connected ends cleanly: status 0 and nothing on stderr, which in the
# sanitizer build also means no leak report. Every peer is started here on a free loopback port
# and stopped by its PID.
set -uo pipefail
source "$(dirname "$0")/harness.sh"
wait_for() {  # wait_for FILE PATTERN: up to 5 s for a line matching PATTERN in FILE
    for _ in $(seq 50); do grep -q "$2" "$1" 2>/dev/null && return 0; sleep 0.1; done
    echo "  no '$2' in $1: $(cat "$1" 2>/dev/null)"; return 1
}
# stops_in_time PID STATUS STDERR_FILE [FRAGMENT]: the process still runs; after SIGTERM it
# ends within a second with STATUS, and its stderr is empty or is FRAGMENT's one line.
stops_in_time() {
    local pid=$1 expected=$2 err=$3 fragment=${4:-}
    kill -0 "$pid" 2>/dev/null || { echo "  ended before the signal: $(cat "$err")"; return 1; }
    local start; start=$(date +%s%N)
    kill -TERM "$pid"
    for _ in $(seq 300); do kill -0 "$pid" 2>/dev/null || break; sleep 0.01; done
    local elapsed=$(( ($(date +%s%N) - start) / 1000000 ))
    if kill -0 "$pid" 2>/dev/null; then kill -KILL "$pid"; fi
    wait "$pid"; local status=$?
    local ok=1
    [ "$elapsed" -le 1000 ] || ok=0
    [ "$status" -eq "$expected" ] || ok=0
    if [ -z "$fragment" ]; then [ ! -s "$err" ] || ok=0
    else [ "$(wc -l < "$err")" -eq 1 ] && grep -qF -- "$fragment" "$err" || ok=0; fi
    [ "$ok" -eq 1 ] || echo "  ended after $elapsed ms with status $status, stderr: $(head -c 2000 "$err")"
    [ "$ok" -eq 1 ]
}

# Peers: one whose listen backlog is full, so that connects to it hang in the handshake, and one
# that accepts and never reads. Each prints its port.
cat > "$tmp/peers.py" <<'PY'
import socket, sys, time
listener = socket.socket()
listener.bind(("127.0.0.1", 0))
fillers = []
if sys.argv[1] == "full-backlog":
    listener.listen(0)
    for _ in range(3):
        filler = socket.socket()
        filler.setblocking(False)
        filler.connect_ex(listener.getsockname())
        fillers.append(filler)
else:
    listener.listen(8)
print(listener.getsockname()[1], flush=True)
if sys.argv[1] == "never-reads":
    fillers.append(listener.accept()[0])
    print("accepted", flush=True)
time.sleep(60)
PY
python3 "$tmp/peers.py" full-backlog > "$tmp/silent.port" & pids+=($!)
python3 "$tmp/peers.py" never-reads > "$tmp/deaf.port" & pids+=($!)
wait_for "$tmp/silent.port" . && wait_for "$tmp/deaf.port" . || exit 1
deaf_port=$(head -n 1 "$tmp/deaf.port")

"$corvane" connect "tcp://127.0.0.1:$(cat "$tmp/silent.port")" < /dev/null > /dev/null 2> "$tmp/c1.err" & client=$!
sleep 0.5
check "connect blocked in the handshake ends on SIGTERM" stops_in_time "$client" 143 "$tmp/c1.err" \
    "stopped by SIGTERM while connecting to tcp://127.0.0.1:"

head -c $((64 << 20)) /dev/zero > "$tmp/zeros"
"$corvane" connect "tcp://127.0.0.1:$deaf_port" < "$tmp/zeros" > /dev/null 2> "$tmp/c2.err" & client=$!
# Past the connect (the peer took it), and a moment for the data to fill the socket buffers:
# under load the host may need a while to start.
wait_for "$tmp/deaf.port" accepted > /dev/null; sleep 0.3
check "connect sending to a peer that never reads ends on SIGTERM" stops_in_time "$client" 0 "$tmp/c2.err"

# The echo server with one client in a conversation and one that sends and never reads, so
# that echoed data waits in the server when it stops.
"$corvane" serve tcp://127.0.0.1:0 --echo > "$tmp/serve.out" 2> "$tmp/serve.err" & serve=$!; pids+=($!)
port=$(listening_port "$tmp/serve.out")
mkfifo "$tmp/talk" "$tmp/flood"
socat - "TCP:127.0.0.1:$port" < "$tmp/talk" > "$tmp/talker.out" & pids+=($!)
(echo "held open"; exec sleep 30) > "$tmp/talk" 2> /dev/null & pids+=($!)
socat -u - "TCP:127.0.0.1:$port" < "$tmp/flood" 2> /dev/null & pids+=($!)
(head -c $((16 << 20)) /dev/zero; exec sleep 30) > "$tmp/flood" 2> /dev/null & pids+=($!)
wait_for "$tmp/talker.out" "held open" && sleep 0.5
check "serve with clients connected ends cleanly on SIGTERM" stops_in_time "$serve" 0 "$tmp/serve.err"

summary
