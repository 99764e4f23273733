#!/usr/bin/env bash
# Connection rate through `corvane tunnel` to an "http" target reached through squid: with NTLM
# (corvane authenticates every new connection: type-1, challenge, type-3, then CONNECT), and
# through a port of the same squid without authentication, against socat's PROXY address on
# that port. socat cannot authenticate with NTLM, so the reference is the unauthenticated
# tunnel only. squid checks NTLM with the tests' own GSSAPI helper against NTLM_USER_FILE.
# Loopback only; every server is started here on a free port and killed by its PID on exit.
# Needs root: squid runs as user proxy and gets a folder of its own.
#   CORVANE          the corvane binary (default build/tools/corvane/corvane)
#   TUNNELBENCH      the target and client program (default: bench/tunnelbench beside corvane's build)
#   SQUID_GSS_AUTH   squid's NTLM helper (default: tests/proxy/corvane_squid_gss_auth in that build)
#   REPEAT           repetitions of each figure (default 5)
set -euo pipefail

CORVANE=${CORVANE:-build/tools/corvane/corvane}
build=$(dirname "$CORVANE")/../..
TUNNELBENCH=${TUNNELBENCH:-$build/bench/tunnelbench}
SQUID_GSS_AUTH=${SQUID_GSS_AUTH:-$build/tests/proxy/corvane_squid_gss_auth}
REPEAT=${REPEAT:-5}
RATE_SECONDS=${RATE_SECONDS:-1}

for program in "$CORVANE" "$TUNNELBENCH" "$SQUID_GSS_AUTH"; do
    [[ -x $program ]] || { echo "proxytunnel.sh: $program is not built" >&2; exit 1; }
done
for program in socat squid; do
    command -v "$program" >/dev/null || { echo "proxytunnel.sh: $program is missing (scripts/install-deps)" >&2; exit 1; }
done
[[ $(id -u) == 0 ]] || { echo "proxytunnel.sh: needs root to give squid a folder of user proxy" >&2; exit 1; }

# shellcheck source=bench/common.sh
source "$(dirname "$0")/common.sh"
squid_dir=$(mktemp -d)
squid_pid=
before_cleanup() {
    # A graceful stop takes squid seconds; its helpers end when their pipes close.
    if [[ -n $squid_pid ]]; then kill -KILL "$squid_pid" 2>/dev/null || true; wait "$squid_pid" 2>/dev/null || true; fi
    rm -rf "$squid_dir"
}
listening_port() {
    sed -n 's/^listening on .*:\([0-9]*\)$/\1/p' "$1"
}

"$TUNNELBENCH" serve >"$work/server" &
pids+=($!)
wait_for test -s "$work/server"
server_port=$(head -n1 "$work/server")

# One squid, two ports: "ntlm" demands NTLM, "open" lets everyone through. Its access log
# names the port and the user of every tunnel, to prove that the figures went through it.
ntlm_port=$(free_port)
open_port=$(free_port)
export NTLM_USER_FILE=$squid_dir/ntlm-users
echo "TESTDOM:user:userpw" >"$NTLM_USER_FILE"
chmod 644 "$NTLM_USER_FILE"
cp "$SQUID_GSS_AUTH" "$squid_dir/squid-gss-auth"
chown -R proxy:proxy "$squid_dir"
cat >"$squid_dir/squid.conf" <<EOF
http_port 127.0.0.1:$ntlm_port name=ntlm
http_port 127.0.0.1:$open_port name=open
visible_hostname localhost
pid_filename $squid_dir/squid.pid
cache_log $squid_dir/cache.log
logformat bench %lp %Ss/%>Hs %rm %un
access_log stdio:$squid_dir/access.log bench
coredump_dir $squid_dir
cache deny all
dns_nameservers 127.0.0.1
pinger_enable off
shutdown_lifetime 0 seconds
auth_param ntlm program $squid_dir/squid-gss-auth
auth_param ntlm children 2
acl open myportname open
http_access allow open
acl auth proxy_auth REQUIRED
http_access allow auth
http_access deny all
EOF
squid -N -f "$squid_dir/squid.conf" >"$work/squid.out" 2>&1 &
squid_pid=$!
wait_for accepting "$ntlm_port"
wait_for accepting "$open_port"

# proxied_tunnel NAME PROXYPORT [VAR=VALUE...]: a tunnel to the target's "http" URI whose only
# proxy is squid's port.
proxied_tunnel() {
    local name=$1 proxy_port=$2
    shift 2
    env -u https_proxy -u HTTPS_PROXY -u all_proxy -u ALL_PROXY -u no_proxy -u NO_PROXY -u HTTP_PROXY \
        -u NTLM_USER_FILE "http_proxy=http://127.0.0.1:$proxy_port" "$@" \
        "$CORVANE" tunnel tcp://127.0.0.1:0 "http://127.0.0.1:$server_port" >"$work/$name" 2>&1 &
    pids+=($!)
    wait_for grep -qs '^listening on ' "$work/$name"
}
proxied_tunnel ntlm "$ntlm_port" "NTLM_USER_FILE=$NTLM_USER_FILE"
proxied_tunnel open "$open_port"
declare -A ports=([ntlm]=$(listening_port "$work/ntlm") [open]=$(listening_port "$work/open") [socat]=$(free_port))
socat "TCP-LISTEN:${ports[socat]},bind=127.0.0.1,fork,reuseaddr" \
    "PROXY:127.0.0.1:127.0.0.1:$server_port,proxyport=$open_port" &
pids+=($!)
wait_for accepting "${ports[socat]}"

# tunnels PORT USER: the tunnels squid logged on PORT for a user that matches USER.
tunnels() {
    awk -v p="$1" -v u="$2" '$1 == p && $2 == "TCP_TUNNEL/200" && $4 ~ u' "$squid_dir/access.log"
}

# A short run each first: squid starts its helpers on the first request.
targets=(ntlm open socat)
for target in "${targets[@]}"; do "$TUNNELBENCH" rate "${ports[$target]}" 0.2 >/dev/null; done

declare -A runs=() connections=([ntlm]=0 [open]=0 [socat]=0)
for _ in $(seq 1 "$REPEAT"); do
    for target in "${targets[@]}"; do
        rate=$("$TUNNELBENCH" rate "${ports[$target]}" "$RATE_SECONDS")
        runs[$target]+=" $rate"
        connections[$target]=$(awk -v c="${connections[$target]}" -v r="$rate" -v s="$RATE_SECONDS" 'BEGIN { print c + r * s }')
    done
done

# corvane goes direct when a proxy fails it: the figures count only if squid carried nearly
# every connection (it logs a tunnel when it ends, so a few may still be on their way).
carried() {
    local logged expected=$3
    logged=$(tunnels "$1" "$2" | wc -l)
    awk -v l="$logged" -v e="$expected" 'BEGIN { exit !(l >= 0.95 * e) }'
}
wait_for carried "$ntlm_port" TESTDOM "${connections[ntlm]}" ||
    { echo "proxytunnel.sh: squid did not carry corvane's NTLM connections; corvane said:" >&2; tail -n5 "$work/ntlm" >&2; exit 1; }
wait_for carried "$open_port" '^-$' "$(awk -v a="${connections[open]}" -v b="${connections[socat]}" 'BEGIN { print a + b }')" ||
    { echo "proxytunnel.sh: squid did not carry the unauthenticated connections" >&2; exit 1; }

line="proxy tunnel connection rate:"
declare -A medians=() labels=([ntlm]="corvane+NTLM" [open]="corvane (no auth)" [socat]="socat (no auth; socat cannot do NTLM)")
for target in "${targets[@]}"; do
    # shellcheck disable=SC2086
    read -r median min max < <(stats ${runs[$target]})
    medians[$target]=$median
    line+=" ${labels[$target]} $median conn/s (min/median/max $min/$median/$max),"
done
line=${line%,}
line+=$(awk -v n="${medians[ntlm]}" -v o="${medians[open]}" -v s="${medians[socat]}" \
    'BEGIN { printf "; corvane+NTLM/socat %.2f, corvane/socat %.2f", n / s, o / s }')
echo "$line"
