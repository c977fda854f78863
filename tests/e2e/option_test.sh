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
