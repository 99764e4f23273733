# shellcheck shell=bash
# Helpers of the benchmark scripts, sourced by them (bash, set -euo pipefail): a work directory
# and the PIDs of the servers they start, both cleaned up on exit (after the script's own
# before_cleanup, if it defines one), and small helpers for ports and figures.
work=$(mktemp -d)
pids=()
cleanup() {
    if declare -F before_cleanup >/dev/null; then before_cleanup; fi
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
    rm -rf "$work"
}
trap cleanup EXIT

# wait_for COMMAND...: retries for up to 5 s.
wait_for() {
    for _ in $(seq 1 250); do "$@" && return 0; sleep 0.02; done
    echo "$(basename "$0"): timed out waiting for: $*" >&2
    return 1
}

# A free loopback port for programs that do not report the port they picked.
free_port() {
    python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# accepting PORT: whether something accepts connections on loopback PORT.
accepting() {
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
}

# stats VALUES...: "median min max"
stats() {
    printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { m = (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2; print m, v[1], v[NR] }'
}

# corvane_tunnel VARIABLE LISTEN TARGET [OPTIONS...]: starts `$CORVANE tunnel` (in this shell, so
# that cleanup knows its PID) and sets VARIABLE to its port.
corvane_tunnel() {
    local variable=$1; shift
    "$CORVANE" tunnel "$@" >"$work/$variable" 2>"$work/$variable.err" &
    pids+=($!)
    wait_for grep -q '^listening on ' "$work/$variable"
    printf -v "$variable" '%s' "$(sed -n 's/^listening on .*:\([0-9]*\)$/\1/p' "$work/$variable")"
}

# make_certificates: a CA ($work/ca.pem) and a certificate for localhost signed by it
# ($work/cert.pem, $work/key.pem), for this run only.
make_certificates() {
    openssl req -x509 -newkey rsa:2048 -nodes -keyout "$work/ca.key" -out "$work/ca.pem" -days 1 \
        -subj "/CN=bench CA" 2>/dev/null
    openssl req -newkey rsa:2048 -nodes -keyout "$work/key.pem" -out "$work/cert.csr" -subj "/CN=localhost" 2>/dev/null
    printf 'subjectAltName=DNS:localhost\n' >"$work/san"
    openssl x509 -req -in "$work/cert.csr" -CA "$work/ca.pem" -CAkey "$work/ca.key" -CAcreateserial -days 1 \
        -extfile "$work/san" -out "$work/cert.pem" 2>/dev/null
}

# cpu_ms PID...: the CPU time (user and system, all threads) the processes have used, in ms.
cpu_ms() {
    local ticks=0 pid
    for pid in "$@"; do
        ticks=$((ticks + $(awk '{ print $14 + $15 + $16 + $17 }' "/proc/$pid/stat")))
    done
    echo $((ticks * 1000 / $(getconf CLK_TCK)))
}

# The CPU figures of the last collect, by target: ms per 1000 connections (rate) or per GB (bulk),
# taken from the processes in the variable TARGET_pids (a target without one has none).
declare -A cpu_runs=()

# collect RUNS MODE ARGUMENT TARGET...: REPEAT rounds of `$TUNNELBENCH MODE PORT ARGUMENT` over
# the targets in turn (the port of TARGET in the variable TARGET_port); each result is appended
# to the entry of its target in the associative array named RUNS, and the CPU its processes
# used to cpu_runs.
collect() {
    local -n collect_runs=$1
    local mode=$2 argument=$3
    shift 3
    cpu_runs=()
    for _ in $(seq 1 "$REPEAT"); do
        for target in "$@"; do
            local port_variable="${target}_port" pids_variable="${target}_pids"
            local before=0 result
            [[ -n ${!pids_variable:-} ]] && before=$(cpu_ms ${!pids_variable})
            result=$("$TUNNELBENCH" "$mode" "${!port_variable}" "$argument")
            collect_runs[$target]+=" $result"
            if [[ -n ${!pids_variable:-} ]]; then
                local used=$(($(cpu_ms ${!pids_variable}) - before))
                if [[ $mode == rate ]]; then
                    cpu_runs[$target]+=" $(awk -v u="$used" -v r="$result" -v s="$argument" 'BEGIN { printf "%.0f", (r > 0 ? u * 1000 / (r * s) : 0) }')"
                else
                    cpu_runs[$target]+=" $(awk -v u="$used" -v b="$argument" 'BEGIN { printf "%.0f", u * 1e9 / b }')"
                fi
            fi
        done
    done
}

# cpu_figures LABEL UNIT REFERENCE TARGET...: one line of the medians in cpu_runs, with each
# target's ratio to REFERENCE (lower is better).
cpu_figures() {
    local label=$1 unit=$2 reference=$3 line median min max
    shift 3
    local -A cpu_medians=()
    line="$label:"
    for target in "$@"; do
        [[ -n ${cpu_runs[$target]:-} ]] || continue
        # shellcheck disable=SC2086
        read -r median min max < <(stats ${cpu_runs[$target]})
        cpu_medians[$target]=$median
        line+=" $target $median $unit (min/median/max $min/$median/$max),"
    done
    printf '%s' "${line%,}"
    for target in "$@"; do
        [[ $target != "$reference" && -n ${cpu_medians[$target]:-} && -n ${cpu_medians[$reference]:-} ]] || continue
        awk -v t="$target" -v r="$reference" -v a="${cpu_medians[$target]}" -v b="${cpu_medians[$reference]}" \
            'BEGIN { printf "; %s/%s %.2f", t, r, (b > 0 ? a / b : 0) }'
    done
    echo
}

# haproxy_tcp VARIABLE TARGET_PORT [SERVER_SUFFIX]: starts haproxy in tcp mode on a free port in
# front of 127.0.0.1:TARGET_PORT (SERVER_SUFFIX: more words of its server line, e.g. ssl),
# with FRONT_SUFFIX more words of its bind line; sets VARIABLE to the port and VARIABLE_pid.
haproxy_tcp() {
    local variable=$1 target=$2 suffix=${3:-} port
    port=$(free_port)
    printf '%s\n' "global" "    maxconn 4000" "    nbthread 1" "defaults" "    mode tcp" "    timeout connect 5s" \
        "    timeout client 60s" "    timeout server 60s" "listen $variable" "    bind 127.0.0.1:$port ${FRONT_SUFFIX:-}" \
        "    server target 127.0.0.1:$target $suffix" >"$work/$variable.cfg"
    "$HAPROXY" -f "$work/$variable.cfg" -db >"$work/$variable.log" 2>&1 &
    pids+=($!)
    printf -v "${variable}_pid" '%s' "$!"
    wait_for accepting "$port"
    printf -v "$variable" '%s' "$port"
}
HAPROXY=${HAPROXY:-/usr/sbin/haproxy}

# figures LABEL UNIT RUNS MEDIANS TARGET...: prints "LABEL: TARGET median UNIT (min/median/max
# ...), ..." without a line end, from the associative array named RUNS, and stores each
# target's median in the associative array named MEDIANS, for the caller's ratios.
figures() {
    local label=$1 unit=$2
    local -n figures_runs=$3 figures_medians=$4
    shift 4
    local line="$label:" median min max
    for target in "$@"; do
        # shellcheck disable=SC2086
        read -r median min max < <(stats ${figures_runs[$target]})
        figures_medians[$target]=$median
        line+=" $target $median $unit (min/median/max $min/$median/$max),"
    done
    printf '%s' "${line%,}"
}
