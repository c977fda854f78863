#!/usr/bin/env bash
# A message arrives with its bytes unchanged. An urgent one goes first. A cancelled one does not come again.
. "$(dirname "$0")/service.sh"
start_service
start_watch

text=$'Fire "drill"\e[2J \xff'
message=$("$pccast" message "$text" --repeat 0 --epg 3)
within 3 grep -q -F '"kind":"message"' heard
grep -q -F '"showings":1,"attribute1":0,"attribute3":0,"text":"Fire \"drill\"\u001b[2J \ufffd","textHex":"466972652022647269' heard ||
    fail "the text did not arrive as it was"

urgent=$("$pccast" message urgent --priority)
case $urgent in *:priority) ;; *) fail "identity $urgent" ;; esac
sleep 1 # the urgent one has taken its place by now
"$pccast" cancel "$message"
within 13 grep -q '"text":"urgent"' heard
sleep 10
[ "$(grep -c 'Fire' heard)" -eq 1 ] || fail "a cancelled message was shown again"

# Every byte that a text can have, and about as many as fit. It comes last, because the pause after it is hours.
export LC_ALL=C
text=$(awk 'BEGIN { for (i = 0; i < 60000; i++) printf "%c", 1 + i % 255 }')
"$pccast" message "$text" --priority
printf '"textHex":"%s"' "$(printf %s "$text" | od -An -v -tx1 | tr -d ' \n')" >expected
within 3 grep -q -F -f expected heard
end_service INT
