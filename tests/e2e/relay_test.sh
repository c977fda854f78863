#!/usr/bin/env bash
# A live stream is announced and relayed byte for byte. A newer request interrupts it; it comes back when that
# request is stopped, and ends when it is stopped itself.
. "$(dirname "$0")/service.sh"
source=239.77.0.1:4000
start_service
start_watch

older=$("$pccast" relay $source 239.77.0.2:5000 --epg 7 --for 60s)
within 2 grep -q 'BYPASS OnAir' serve.log
within 2 grep -q '"kind":"on-air".*"epg":7,.*"address":"239.77.0.2","port":5000,"crcOk":true' heard
carries 239.77.0.2:5000 $source

sleep 1.1 # a request of the same second is not a newer one
newer=$("$pccast" relay $source 239.77.0.3:5001 --epg 8 --for 60s)
within 3 counted 2 'BYPASS OnAir' serve.log
carries 239.77.0.3:5001 $source

"$pccast" stop "$newer"
within 3 counted 3 'BYPASS OnAir' serve.log
carries 239.77.0.2:5000 $source

"$pccast" stop "$older"
sleep 1.5 # the relay notices within its second of patience
"$pccast" receive 239.77.0.2:5000 late --datagrams 1 --wait 2 >late.log 2>&1 &
receiver=$!
"$bin/pccast-feed" "$samples/sample.ts" $source 20 >feed.log
! wait $receiver || fail "a stopped cast is still relayed"

end_service TERM
within 2 grep -q '"kind":"end".*"epg":7,.*"crcOk":true' heard
! grep -q '"problems"' heard || fail "something was announced that does not hold"
