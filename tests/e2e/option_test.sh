#!/usr/bin/env bash
# A relay's options reach the service: the key, filled up to 16 bytes, and the cutting into chunks.
. "$(dirname "$0")/service.sh"
source=239.77.0.1
start_service

# expect DATAGRAMS BYTES-SENT BYTES-EXPECTED: one datagram sent to the source gives these on the destination.
expect() {
    "$pccast" receive 239.77.0.2:5000 received --datagrams "$1" --wait 5 >receive.log 2>&1 &
    local receiver=$!
    within 5 grep -q "$(group_in_hex 239.77.0.2)" /proc/net/igmp
    printf '%b' "$2" >/dev/udp/$source/4000
    wait $receiver || fail "not $1 datagrams for one"
    printf '%b' "$3" | cmp - received || fail "other bytes than expected"
}

plain='\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f'
sealed='\x5e\xba\xc6\xe0\x05\x4e\x16\x68\x19\xaf\xf1\xcc\x6d\x34\x6c\xdb'
"$pccast" relay $source:4000 239.77.0.2:5000 --for 60s --key 0000 --fast-seed
within 2 counted 1 'BYPASS OnAir' serve.log
expect 1 "${sealed}rest" "${plain}rest"

sleep 1.1
"$pccast" relay $source:4000 239.77.0.2:5000 --for 60s --chunks
within 3 counted 2 'BYPASS OnAir' serve.log
expect 2 '\x03\x00ABC\x00\x00\x02\x00DE' 'ABCDE'
end_service TERM

# The tools need no route when an interface is named. A file that is shorter than what is asked for begins again.
ip route del 224.0.0.0/4
head -c $((40 * 1316)) "$samples/sample.ts" >short.ts
"$pccast" receive 239.77.0.6:5006 received --datagrams 100 --interface lo >receive.log 2>&1 &
receiver=$!
within 5 grep -q "$(group_in_hex 239.77.0.6)" /proc/net/igmp
"$bin/pccast-feed" short.ts 239.77.0.6:5006 100 --loop --interface 127.0.0.1 >feed.log 2>&1 || fail "$(cat feed.log)"
wait $receiver || fail "the loop is too short: $(cat receive.log)"
[ "$(wc -c <received)" -gt "$(wc -c <short.ts)" ] || fail "the file did not begin again"
cat short.ts short.ts short.ts >looped.ts
head -c "$(wc -c <received)" looped.ts | cmp - received || fail "the loop sends other bytes"
