#!/usr/bin/env bash
# The clock is stepped back by an hour while a relay is on air: stop ends it all the same, and no other cast.
. "$(dirname "$0")/service.sh"
source=239.77.0.1:4000
command -v faketime >/dev/null || exit 77
[[ $(ldd "$pccast") != *lib[at]san* ]] || exit 77 # a sanitizer must be loaded before anything else
LD_PRELOAD=$(faketime -f '+0' printenv LD_PRELOAD)
export LD_PRELOAD FAKETIME_TIMESTAMP_FILE=$work/clock FAKETIME_NO_CACHE=1 FAKETIME_DONT_FAKE_MONOTONIC=1
echo '+0' >clock
start_service

"$pccast" relay $source 239.77.1.1:6007 --epg 7 --for 2h >seven
sleep 1.1
"$pccast" relay $source 239.77.1.1:6008 --epg 8 --for 2h >eight
echo '-1h' >clock
"$pccast" stop "$(cat eight)" 2>said || fail "stop: $(cat said)"
grep -q 'stopped: the relay of EPG 8' said || fail "stop: $(cat said)"
"$pccast" stop --epg 7 2>said || fail "stop: $(cat said)" # it waits for its start now
grep -q 'on air and nothing waits' <<<"$("$pccast" list)" || fail "$("$pccast" list)"
end_service TERM
