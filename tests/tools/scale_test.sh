#!/usr/bin/env bash
# More connections than one reactor holds (511 tunnel connections: two sockets each, 1023 per
# reactor) through `corvane tunnel --threads 2` to `corvane serve --threads 2`, all open at
# once, and every one carries its own bytes there and back.
set -uo pipefail
source "$(dirname "$0")/harness.sh"
listening_port() {  # waits up to 5 s for "listening on URI" in a file and prints the port
    for _ in $(seq 50); do
        local line; line=$(grep -m1 '^listening on ' "$1" 2>/dev/null) && { echo "${line##*:}"; return 0; }
        sleep 0.1
    done
    return 1
}
connections=700

"$corvane" serve tcp://127.0.0.1:0 --threads 2 > "$tmp/serve.out" 2> "$tmp/serve.err" &
pids+=($!)
target=$(listening_port "$tmp/serve.out") || { echo "serve did not listen"; exit 1; }
"$corvane" tunnel tcp://127.0.0.1:0 "tcp://127.0.0.1:$target" --threads 2 \
    > "$tmp/tunnel.out" 2> "$tmp/tunnel.err" &
pids+=($!)
port=$(listening_port "$tmp/tunnel.out") || { echo "tunnel did not listen"; exit 1; }

carried() {
    /usr/bin/python3 - "$port" "$connections" <<'PY'
import resource, selectors, socket, sys, time
port, count = int(sys.argv[1]), int(sys.argv[2])
soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, max(soft, count + 64)), hard))
socks = []
for i in range(count):  # all open before any data: the tunnel holds them at the same time
    s = socket.create_connection(("127.0.0.1", port), timeout=5)
    socks.append(s)
time.sleep(0.5)  # a connection refused at the limit would be closed by now
deadline = time.monotonic() + 20  # a few seconds in a plain build; sanitizers are slower
sel = selectors.DefaultSelector()
want, got = {}, {}
for i, s in enumerate(socks):
    token = b"connection %05d carries its bytes\n" % i
    s.sendall(token)
    s.setblocking(False)
    want[s], got[s] = token, b""
    sel.register(s, selectors.EVENT_READ)
while sel.get_map() and time.monotonic() < deadline:
    for key, _ in sel.select(timeout=0.5):
        data = key.fileobj.recv(4096)
        got[key.fileobj] += data
        if not data or len(got[key.fileobj]) >= len(want[key.fileobj]):
            sel.unregister(key.fileobj)
bad = sum(1 for s in socks if got[s] != want[s])
print("%d of %d connections carried their bytes" % (count - bad, count))
sys.exit(1 if bad else 0)
PY
}
check "$connections connections through tunnel --threads 2, each carrying data" carried
check "no connection refused at a reactor's limit" \
    bash -c "! grep -q 'too many open sockets' '$tmp/tunnel.err' '$tmp/serve.err'"
summary
