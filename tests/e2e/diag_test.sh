#!/usr/bin/env bash
# Runs the diagnostic program from start to end and checks what it says and what it puts on air. Its 330 seconds
# pass fifteen times as fast.
. "$(dirname "$0")/service.sh"
command -v faketime >/dev/null || exit 77
[[ $(ldd "$bin/diagpccast") != *lib[at]san* ]] || exit 77 # a sanitizer must be loaded before anything else
start_watch

PCCAST_SAMPLES=$samples faketime -f '+0 x15' "$bin/diagpccast" >said.log 2>&1
within 5 grep -q '"kind":"end"' heard

sed -E 's/\x1b\[[0-9;]*m//g; s/\(\):[0-9]+/()/' said.log | sort >said
sort >expected <<'END'
 * Starting PCCast service...
 * Waiting PCCast service...
 * Activated PCCast service.
PCCASTtoBCIInfo(), ALARM, unknown content format[0(0)] to re-cast: let it go
PCCASTRECASTEngine(), ALARM, unknown content format[0(0)] to re-cast: let it go
 * Stopping PCCast service...
 * Close PCCast plugin
END
diff expected said >&2 || fail "the program said something else"

# The cast is announced for its 200 seconds. Each text comes with its attributes, as often as its pause and the other
# texts allow. The second text has one second only, and may miss it on a busy machine.
counted 18 '"kind":"on-air".*"epg":0,"type":16,"format":0,.*"crcOk":true' heard || fail "the cast was not announced"
sed -nE 's/.*"kind":"message".*"showings":1,"attribute1":32,"attribute3":33333,"text":"(.*)"}/\1/p' heard >texts
[[ $(tr '\n' ' ' <texts) =~ ^(H-+I-+G-+H-+A\ )(H-+I-+G-+H-+B\ )?((1234567890){4}\ ){2}(a{40}\ )?(H-+I-+G-+H-+A\ ){1,2}(a{40}\ ){4}$ ]] || {
    cat texts >&2
    fail "the messages went out otherwise"
}
