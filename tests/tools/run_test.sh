#!/usr/bin/env bash
# corvane run: four tunnel kinds and a server from one file carry data, each tunnel connection
# ends with one INFO line with its byte counts, --check names the line of each mistake, and
# SIGHUP adds and removes sections while a connection of an unchanged one keeps flowing. Every
# peer is started here on loopback and stopped by its PID.
set -uo pipefail
source "$(dirname "$0")/harness.sh"
wait_for() {  # wait_for FILE PATTERN: up to 10 s for a line matching PATTERN in FILE
    for _ in $(seq 100); do grep -q -- "$2" "$1" 2>/dev/null && return 0; sleep 0.1; done
    echo "  no '$2' in $1: $(head -c 2000 "$1" 2>/dev/null)"; return 1
}
port_of() {  # port_of NAME: the port of "NAME: listening on URI" in the run's output
    wait_for "$tmp/run.out" "^$1: listening on " >/dev/null || return 1
    local line; line=$(grep -m1 "^$1: listening on " "$tmp/run.out"); line=${line##*:}; echo "${line%%/*}"
}

make_certificates

echo_port=$(free_port)
tls_port=$(free_port)
closed_port=$(free_port)
cat > "$tmp/run.conf" <<CONF
# every kind of section once
[global]
threads = 2

[echo]
serve = tcp://127.0.0.1:$echo_port
mode = echo

[plain]
listen = tcp://127.0.0.1:0
target = tcp://127.0.0.1:$echo_port
buffer-size = 65536

[tls]
listen = ssl://127.0.0.1:$tls_port
listen-options = CertificateFile=$tmp/server.pem;PrivateKeyFile=$tmp/server.key;NoCertify=true
target = tcp://127.0.0.1:$echo_port

[to-tls]
listen = tcp://127.0.0.1:0
target = ssl://localhost:$tls_port
target-options = LoadCryptoCertStore=false;CAFile=$tmp/ca.pem

[ws]
listen = ws://127.0.0.1:0
target = tcp://127.0.0.1:$echo_port

[nowhere]
listen = tcp://127.0.0.1:0
target = tcp://127.0.0.1:$closed_port
CONF
check "--check of a good file" "$corvane" run --check "$tmp/run.conf"

"$corvane" run "$tmp/run.conf" > "$tmp/run.out" 2> "$tmp/run.err" & run=$!; pids+=($!)
plain=$(port_of plain); to_tls=$(port_of to-tls); ws=$(port_of ws); nowhere=$(port_of nowhere)
port_of tls > /dev/null && port_of echo > /dev/null
head -c 100000 /dev/urandom > "$tmp/in"
through() {  # through URI: the input comes back unchanged
    timeout 20 "$corvane" connect "$1" --wait 300 < "$tmp/in" > "$tmp/out" && cmp -s "$tmp/in" "$tmp/out"
}
check "tcp -> tcp" through "tcp://127.0.0.1:$plain"
check "tcp -> ssl -> tcp" through "tcp://127.0.0.1:$to_tls"
check "ws -> tcp" through "ws://127.0.0.1:$ws"
check "the server section" through "tcp://127.0.0.1:$echo_port"

# One line per connection when it ends, with both byte counts; nothing else at the default.
line_of_plain() {
    wait_for "$tmp/run.err" "on tcp://127.0.0.1:$plain to tcp://127.0.0.1:$echo_port ended after" &&
        grep -E "INFO .* corvane.net.TunnelConnection - connection from tcp://127.0.0.1:[0-9]+ on tcp://127.0.0.1:$plain to tcp://127.0.0.1:$echo_port ended after [0-9.]+ s: 100000 bytes to the target, 100000 bytes to the client, closed by the client$" \
            "$tmp/run.err" > /dev/null
}
check "connection-end line with byte counts" line_of_plain
(exec 3<>"/dev/tcp/127.0.0.1/$nowhere"; read -r -t 5 <&3) 2>/dev/null
check "connection-end line of a refused target" \
    wait_for "$tmp/run.err" "to tcp://127.0.0.1:$closed_port ended after .* 0 bytes to the target, 0 bytes to the client, connect to the target failed: "
check "only the connection lines at INFO" test "$(grep -c ' INFO ' "$tmp/run.err")" -eq "$(grep -c 'TunnelConnection - connection from' "$tmp/run.err")"

# SIGHUP: [ws] and [nowhere] go, [extra] comes, [plain] keeps its open connection.
exec 3<>"/dev/tcp/127.0.0.1/$plain"
echo "before the reload" >&3
read -r -t 5 before <&3
sed -i '/^\[ws\]/,$d' "$tmp/run.conf"
printf '[extra]\nlisten = tcp://127.0.0.1:0\ntarget = tcp://127.0.0.1:%s\n' "$echo_port" >> "$tmp/run.conf"
kill -HUP "$run"
check "reload reported" wait_for "$tmp/run.out" "^reloaded .*: 1 started, 2 stopped, 4 unchanged"
extra=$(port_of extra)
check "the added section carries data" through "tcp://127.0.0.1:$extra"
check "the removed section stopped listening" bash -c "! (exec 4<>/dev/tcp/127.0.0.1/$ws) 2>/dev/null"
echo "after the reload" >&3
read -r -t 5 after <&3
exec 3<&-
check "a connection of an unchanged section kept flowing" test "$before|$after" = "before the reload|after the reload"
check "the unchanged section was not restarted" test "$(grep -c '^plain: listening on' "$tmp/run.out")" -eq 1

# A file with mistakes keeps the running sections.
echo "colour = red" >> "$tmp/run.conf"
kill -HUP "$run"
check "a bad reload names the line" wait_for "$tmp/run.err" "run.conf:[0-9]*: unknown key 'colour' in \[extra\]"
check "and keeps the sections" through "tcp://127.0.0.1:$extra"
kill -TERM "$run"; wait "$run"; status=$?
check "SIGTERM ends run cleanly" test "$status" -eq 0

# --check names the line of each mistake and fails.
cat > "$tmp/bad.conf" <<'CONF'
[global]
threads = many

[a]
listen = tcp://[::1:80
target = tcp://127.0.0.1:1
colour = red
[b]
serve = tcp://127.0.0.1:1
mode = loud
CONF
"$corvane" run --check "$tmp/bad.conf" > /dev/null 2> "$tmp/check.err"; status=$?
check "--check fails on mistakes" test "$status" -eq 1
check "--check: bad number" grep -qF "bad.conf:2: threads needs a number" "$tmp/check.err"
check "--check: bad URI" grep -qF "bad.conf:5: invalid URI 'tcp://[::1:80'" "$tmp/check.err"
check "--check: unknown key" grep -qF "bad.conf:7: unknown key 'colour' in [a]" "$tmp/check.err"
check "--check: bad mode" grep -qF "bad.conf:10: mode is 'echo' or 'discard'" "$tmp/check.err"
check "--check: one line per mistake" test "$(wc -l < "$tmp/check.err")" -eq 4

# The command line: help everywhere, global options after the command.
check "version --help exits 0" "$corvane" version --help
check "-h of a command" bash -c "'$corvane' run -h | grep -q '^usage: corvane run'"
"$corvane" serve tcp://127.0.0.1:0 --log-level INFO > "$tmp/serve.out" 2> "$tmp/serve.err" & serve=$!; pids+=($!)
check "global option after the command" wait_for "$tmp/serve.err" "INFO .*startChannelServer"
kill -TERM "$serve"; wait "$serve"

summary
