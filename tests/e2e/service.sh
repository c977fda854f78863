# Sourced by the end-to-end tests. They run a real host with the real plug-in on real sockets and groups, in namespaces
# of their own (script/in-namespace). Arguments of each test: the folder of the programs, the folder of the samples.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
bin=$1
samples=$2
pccast=$bin/pccast
service=
work=$(mktemp -d)
cd "$work"

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# Runs however a test ends: it ends what was started and, after a failure, shows what service and watcher said.
finish() {
    local status=$? job
    for job in $(jobs -p); do
        kill "$job" 2>/dev/null || true
    done
    wait
    if [ "$status" -ne 0 ]; then
        tail -n 50 "$work"/*.log "$work"/heard* 2>/dev/null || true
    fi
    rm -rf "$work"
    exit "$status"
}
trap finish EXIT

# within SECONDS COMMAND...: repeats the command until it succeeds; fails when the time is over.
within() {
    local tries=$(($1 * 20))
    shift
    until "$@" >/dev/null 2>&1; do
        ((tries-- > 0)) || fail "did not come: $*"
        sleep 0.05
    done
}

# counted NUMBER PATTERN FILE: the file has at least so many lines with the pattern.
counted() {
    [ "$(grep -c -e "$2" "$3")" -ge "$1" ]
}

# prints PATTERN COMMAND...: the command's whole output has the pattern. (In a pipe, grep -q would end before the command
# does, and pipefail would count that as the command's failure.)
prints() {
    local pattern=$1 output
    shift
    output=$("$@") && grep -q -e "$pattern" <<<"$output"
}

# refused CODE PATTERN COMMAND...: the command ends with the exit code and says the pattern.
refused() {
    local code=$1 pattern=$2 status=0
    shift 2
    "$@" >refused.log 2>&1 </dev/null || status=$?
    [ "$status" -eq "$code" ] || { cat refused.log >&2; fail "exit code $status, not $code: $*"; }
    grep -q -e "$pattern" refused.log || { cat refused.log >&2; fail "does not say '$pattern': $*"; }
}

# The processor time that the service has taken so far, in hundredths of a second.
spent() {
    awk '{ print $14 + $15 }' "/proc/$service/stat"
}

# start_service [OPTION...]
start_service() {
    : >serve.log
    "$pccast" serve "$@" >>serve.log 2>&1 &
    service=$!
    within 10 grep -q 'serves casts' serve.log
}

# end_service SIGNAL: the service closes cleanly and leaves no socket file.
end_service() {
    local status=0
    kill "-$1" "$service"
    wait "$service" || status=$?
    [ "$status" -eq 0 ] || fail "the service ended with exit code $status"
    grep -q '^pccast: closed$' serve.log || fail "the service did not say that it closed"
    [ ! -e /tmp/PCSTREAM.uds ] && [ ! -e /tmp/PCMBC.uds ] && [ ! -e /tmp/PCVIEW.uds ] || fail "a socket file is left"
}

# From here on every datagram on air goes to the file heard, as one object a line.
start_watch() {
    "$pccast" watch --json >heard 2>watch.log &
    within 5 grep -q '0909E0' /proc/net/igmp
}

# carries ADDRESS:PORT SOURCE: feeds a piece of the sample to SOURCE; it arrives at ADDRESS:PORT byte for byte.
carries() {
    "$pccast" receive "$1" received --datagrams 40 --wait 5 >receive.log 2>&1 &
    local receiver=$!
    within 5 grep -q "$(group_in_hex "$1")" /proc/net/igmp
    "$bin/pccast-feed" "$samples/sample.ts" "$2" 40 >feed.log 2>&1 || fail "the source could not be fed"
    wait "$receiver" || fail "$1 did not get what was sent to $2"
    head -c "$(stat -c %s received)" "$samples/sample.ts" | cmp - received || fail "$1 got other bytes than were sent"
}

# The group of ADDRESS:PORT as /proc/net/igmp writes it.
group_in_hex() {
    local IFS=. address=${1%:*}
    # shellcheck disable=SC2086
    set -- $address
    printf '%02X%02X%02X%02X' "$4" "$3" "$2" "$1"
}

# begun SECOND, ended SECOND: the announcements that programme 7 is on air at 239.1.2.3:5000, and of its end, sent in that
# second (octal, from 05 to 77).
announce() {
    printf "KTNF\2\0\34\0\322\4\0\0\314\0\0\0\\$1\0\4\0\2$2;\261j$3" >/dev/udp/224.9.9.9/7890
}
begun() {
    announce 60 "$1" 'C\0\0\0L\4\4\0\220KY\321\1\7\4\0\7\0\0\0\35p\4\0\1\0\0\0\34p\4\0\2\0\0\0\21p\4\0\200;\261j\22p\4\0\220I\261j\24p\11\000239.1.2.3\27p\2\0\210\23'
}
ended() {
    announce 63 "$1" ' \0\0\0L\4\4\0\367\31dt\1\7\4\0\7\0\0\0\35p\4\0\1\0\0\0\34p\4\0\2\0\0\0'
}

# joined GROUP-IN-HEX COUNT: so many sockets have joined the group by one interface.
joined() {
    [ "$(grep -E -m 1 "$1 +${2:-[0-9]}" /proc/net/igmp | wc -l)" -eq 1 ]
}
