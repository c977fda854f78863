#!/usr/bin/env bash
# What becomes of a request is said at once; --follow stays to its end and ends with an exit code of its own for each.
. "$(dirname "$0")/service.sh"
source=239.77.0.1:4000
start_service

# said PATTERN: the last request has said so.
said() {
    grep -q -e "$1" said || fail "'$1' was not said: $(cat said)"
}

relay() { # EPG OPTION...
    local epg=$1
    shift
    sleep 1.1 # a request of the same second is not a newer one
    "$pccast" relay $source "239.77.1.1:$((6000 + epg))" --epg "$epg" "$@" 2>said
}

play() { # OPTION...
    "$pccast" file "$samples/sample.ts" "$@" 2>said
}

# follows CODE PATTERN COMMAND...: it is followed to an end with the code, and tells the pattern.
follows() {
    local code=$1 pattern=$2 status=0
    shift 2
    "$@" --follow >identity || status=$?
    [ "$status" -eq "$code" ] || fail "exit code $status, not $code: $*: $(cat said)"
    said "$pattern"
    [ "$(wc -l <identity)" -eq 1 ] || fail "standard output is not the identity: $(cat identity)"
}

# ---- the first word
relay 7 --for 10m
said '^pccast: on air now$'
relay 8 --for 10m >eight
said '^pccast: on air now; it ended the relay of EPG 7$'
"$pccast" stop --all 2>said

# ---- to the end
follows 0 'ended relay .* its end time has come' relay 20 --for 3s
"$pccast" message text --follow >identity 2>said
said 'finished: sent as often as asked'
(sleep 2; "$pccast" stop --epg 22 2>stopped) &
follows 82 'ended relay .* by stop 22:' relay 22 --for 10m
(sleep 2; "$pccast" relay $source 239.77.1.1:6024 --epg 24 --for 10s 2>newer >newer) &
follows 83 'it will not return' play --to 239.77.1.2:7000 --epg 23 --for 10m
"$pccast" stop --all 2>stopped

# ---- Ctrl-C leaves it on air; the end of the service is told
sleep 1.1
bash -c 'trap - INT; exec "$@"' - "$pccast" relay $source 239.77.1.1:6027 --epg 27 --for 10m --follow >identity 2>said &
follower=$!
within 5 grep -q 'on air now' said
sleep 0.5
python3 -c 'import os, signal, sys; os.kill(int(sys.argv[1]), signal.SIGINT)' $follower
status=0
wait $follower || status=$?
[ "$status" -eq 130 ] || fail "Ctrl-C: exit code $status"
said 'no longer following; what was requested goes on'
grep -q 'on air *27' <<<"$("$pccast" list)" || fail "Ctrl-C has stopped the relay"
(sleep 2; kill -TERM $service) &
follows 85 'the service closes\|has been closed' relay 28 --for 10m
wait $service
