#!/usr/bin/env bash
# pccast stop ends the cast that is meant, and never another one. Each case has its exit code, its words, and all that
# has left the schedule or the air because of it.
. "$(dirname "$0")/service.sh"
source=239.77.0.1:4000

last_event() {
    "$pccast" events --json | tail -n 1 | sed -E 's/^\{"number":([0-9]+).*/\1/'
}

# What has left the schedule or the air above event $1: "ended:7 cancelled:8", a cast by its programme.
gone() {
    "$pccast" events --json --after "$1" | sed -nE '/"kind":"(relay|file)"/p' |
        sed -nE 's/.*"event":"(ended|cancelled|failed|expired|dropped|preempted)".*"epg":([0-9]+),"identity".*/\1:\2/p' |
        sed 's/"other.*//' | tr '\n' ' ' | sed 's/ $//'
}

on_air() { # the programmes on air
    "$pccast" list --json | sed 's/},{/}\n{/g' | sed -nE 's/.*"place":"on-air".*"epg":([0-9]+).*/\1/p' | tr '\n' ' ' | sed 's/ $//'
}

# stops CODE PATTERN GONE ON-AIR-AFTERWARDS ARGUMENT...
stops() {
    local code=$1 pattern=$2 expected=$3 stays=$4 before found
    shift 4
    before=$(last_event)
    refused "$code" "$pattern" "$pccast" stop "$@"
    found=$(gone "${before:-0}")
    [ "$found" = "$expected" ] || fail "stop $*: '$found' is gone, not '$expected'"
    for ((i = 0; i < 100; i++)); do
        [ "$(on_air)" = "$stays" ] && return
        sleep 0.05
    done
    fail "stop $*: '$(on_air)' is on air, not '$stays'"
}

relay() { # EPG OPTION...: the identity; every relay has a port of its own
    local epg=$1
    shift
    sleep 1.1 # a request of the same second is not a newer one
    "$pccast" relay $source "239.77.1.1:$((6000 + epg))" --epg "$epg" "$@" 2>>said
}

start_service

# ---- one relay is on air
seven=$(relay 7 --for 10m)
stops 65 'there is no such cast' '' 7 "8:${seven#*:}"                # a wrong programme
stops 65 'there is no such cast' '' 7 "${seven%:*:*}:5999:0x2021"    # a wrong port
stops 65 'there is no such cast' '' 7 --on-air file

# ---- waiting ones
later=$(relay 9 --start +1h)
stops 0 'taken back: the relay of EPG 9' cancelled:9 7 "$later"
relay 9 --start +1h >later
relay 9 --start +2h >>later
stops 65 'several casts match.*' '' 7 --epg 9
grep -q "$(head -n 1 later)" refused.log || fail "does not list what matches"
stops 0 'taken back' 'cancelled:9 cancelled:9' 7 --epg 9 --all
start=$(($(date +%s) + 3600))
for i in 1 2; do relay 9 --start "@$start" >later; done
stops 65 'several casts match' '' 7 "$(cat later)"
stops 0 'taken back' 'cancelled:9 cancelled:9' 7 "$(cat later)" --all

# ---- preempted
relay 8 --for 10m >eight
[ "$(on_air)" = 8 ] || fail "the newer relay is not on air"
stops 0 'taken back: the relay of EPG 7' cancelled:7 8 "$seven"
stops 0 'stopped: the relay of EPG 8' ended:8 '' --on-air relay

# ---- the one on air has a twin that waits
start=$(date +%s)
for i in 1 2; do relay 10 --start "@$start" --for 10m >twin; done
stops 65 'has the same identity' '' 10 --on-air
stops 65 'several casts match' '' 10 "$(cat twin)"
stops 0 'stopped' 'cancelled:10 ended:10' '' "$(cat twin)" --all

# ---- pending: out of its list, not on air yet
seven=$(relay 7 --for 10m)
pending=$(relay 11 --start +2s)
stops 0 'taken back: the relay of EPG 11' cancelled:11 7 "$pending"
# It had gone back to its list for the pending one, and is taken up anew.
within 6 bash -c '"$1" events | tail -n 3 | grep -q "returned relay 7:"' - "$pccast"
[ "$(on_air)" = 7 ] || fail "the relay on air has not survived the pending one"
file=$("$pccast" file "$samples/sample.ts" --to 239.77.1.2:7000 --epg 12 --for 10m 2>said)
grep -q 'waits for the relay of EPG 7 to end' said || fail "$(cat said)"
stops 0 'taken back: the file of EPG 12' cancelled:12 7 "$file"
stops 0 'stopped' ended:7 '' --epg 7

# ---- a file that has ended
sleep 1.1 # a request of the same second as the stop before would wait for it
head -c 300000 "$samples/sample.ts" >short.ts
file=$("$pccast" file short.ts --to 239.77.1.2:7000 --epg 14 --for 10m)
until [ -z "$(on_air)" ]; do sleep 0.1; done
stops 65 'EPG 14 .* is over already' '' '' "$file"

# ---- everything, and twice at once
seven=$(relay 7 --for 10m)
relay 8 --for 10m >eight
relay 9 --start +1h >nine
stops 0 'stopped: the relay of EPG 8' 'cancelled:7 cancelled:9 ended:8' '' --all
seven=$(relay 7 --for 10m)
before=$(last_event)
"$pccast" stop "$seven" 2>one &
"$pccast" stop "$seven" 2>two || true
wait %+ || true
grep -q 'stopped: the relay of EPG 7' one two || fail "two at once: $(cat one two)"
[ "$(gone "$before")" = ended:7 ] || fail "two at once: $(gone "$before")"

# ---- a host without a view
rm /tmp/PCVIEW.uds
refused 69 'so --follow is not possible; nothing was sent$' "$pccast" relay $source 239.77.1.1:6000 --follow
end_service TERM
