# What the host's shell tests share, sourced after `set -uo pipefail`: a scratch directory, the
# PIDs of the peers started (each stopped at exit), and counted checks with a summary.
corvane=${1:?path to the corvane binary}
tmp=$(mktemp -d)
pids=()
failures=0
checks=0
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; done
    rm -rf "$tmp"
}
trap cleanup EXIT

check() {  # check NAME COMMAND...: counts a failure when the command fails
    local name=$1; shift
    checks=$((checks + 1))
    if "$@"; then echo "ok: $name"; else echo "FAILED: $name"; failures=$((failures + 1)); fi
}
# listening_port FILE: waits up to 10 s for "listening on URI" in FILE and prints the port.
listening_port() {
    local line
    for _ in $(seq 100); do
        line=$(grep -m1 'listening on ' "$1" 2>/dev/null) && { echo "${line##*:}"; return 0; }
        sleep 0.1
    done
    return 1
}
# A port free a moment ago, below the ephemeral range: a port the system handed out and got back
# could go to an outgoing connection of a test running beside this one before the server binds.
free_port() {
    python3 -c '
import random, socket
low = int(open("/proc/sys/net/ipv4/ip_local_port_range").read().split()[0])
for _ in range(200 if low > 10000 else 0):
    s = socket.socket()
    try:
        s.bind(("127.0.0.1", random.randrange(10000, low)))
        break
    except OSError:
        s.close()
else:
    s = socket.socket()
    s.bind(("127.0.0.1", 0))
print(s.getsockname()[1])'
}
wait_accepting() {  # wait_accepting PORT: up to 5 s
    for _ in $(seq 50); do (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0; sleep 0.1; done
    return 1
}
# A CA ($tmp/ca.pem) and a localhost server certificate it signed ($tmp/server.pem and
# $tmp/server.key), made here and never committed.
make_certificates() {
    openssl req -x509 -newkey rsa:2048 -nodes -keyout "$tmp/ca.key" -out "$tmp/ca.pem" -days 2 -subj "/CN=test CA" 2>/dev/null
    openssl req -newkey rsa:2048 -nodes -keyout "$tmp/server.key" -out "$tmp/server.csr" -subj "/CN=localhost" 2>/dev/null
    printf 'subjectAltName=DNS:localhost\n' > "$tmp/san"
    openssl x509 -req -in "$tmp/server.csr" -CA "$tmp/ca.pem" -CAkey "$tmp/ca.key" -CAcreateserial -days 2 \
        -extfile "$tmp/san" -out "$tmp/server.pem" 2>/dev/null
}
summary() {  # the counts; fails when a check failed
    echo "$((checks - failures)) passed, $failures failed"
    [ "$failures" -eq 0 ]
}
