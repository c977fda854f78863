#!/usr/bin/env bash
# Stored files: both kinds are found from their content, played byte for byte, announced and logged.
. "$(dirname "$0")/service.sh"
cp "$samples/sample.nsc" /fixdata/bypass.nsc
head -c $((80 * 1316)) "$samples/sample.ts" >short.ts # two seconds
start_service
start_watch

"$bin/pccast-receive" 239.77.0.5:5005 received.ts >receive.log 2>&1 &
receiver=$!
"$pccast" file short.ts --to 239.77.0.5:5005 --epg 11 --for 20s
wait $receiver
cmp short.ts received.ts || fail "the transport stream arrived otherwise than stored"
within 2 grep -q '"kind":"on-air".*"epg":11,"type":16,"format":2,.*"crcOk":true' heard
within 2 grep -q '\[play\].*TYPE=ASF@FILECAST,IEPGID=0x0000000B,FILE="'"$work"'/short.ts"' serve.log

"$bin/pccast-receive" 239.192.48.179:8080 received.asf --skip 8 >receive.log 2>&1 &
receiver=$!
"$pccast" file "$samples/sample.asf" --to 239.192.48.179:8080 --epg 12 --for 20s
wait $receiver
[ $(($(wc -c <received.asf) % 1400)) -eq 0 ] || fail "not whole data packets"
[ "$(wc -c <received.asf)" -gt 100000 ] || fail "too little of the ASF file"
"$here/../../script/asf-packets" "$samples/sample.asf" "$(wc -c <received.asf)" | cmp - received.asf ||
    fail "the ASF packets arrived otherwise than stored"
within 12 grep -q '"kind":"on-air".*"epg":12,"type":16,"format":3,.*"crcOk":true,"stationCrcOk":true,"station":"\[Address\]' heard
within 2 grep -q '\[play\].*IEPGID=0x0000000C,.*NSC="/fixdata/bypass.nsc"' serve.log
end_service TERM
