#!/usr/bin/env bash
# The example of a receiver, examples/receiver.py, gets a transport stream and an ASF cast as they were sent.
. "$(dirname "$0")/service.sh"
command -v python3 >/dev/null || { echo "skipped: python3 is not installed"; exit 77; }

start_receiver() { # FILE
    python3 "$here/../../examples/receiver.py" >"$1" 2>"$1.said" &
    receiver=$!
    within 5 sh -c "[ \$(grep -c 090909E0 /proc/net/igmp) -ge 1 ]"
}

start_service
start_receiver received.ts
"$pccast" relay 239.77.0.1:4000 239.77.0.2:5000 --epg 7 --for 60s >relay
within 5 grep -qx 'on air: programme 7 at 239.77.0.2:5000' received.ts.said
within 5 grep -q '02004DEF' /proc/net/igmp
"$bin/pccast-feed" "$samples/sample.ts" 239.77.0.1:4000 40 >feed.log
"$pccast" message $'Fire\e[2J drill'
within 5 grep -qx "message: 'Fire\\\\x1b\[2J drill'" received.ts.said
[ "$(wc -c <received.ts)" -gt 40000 ] || fail "only $(wc -c <received.ts) bytes of the transport stream"
head -c "$(wc -c <received.ts)" "$samples/sample.ts" | cmp - received.ts ||
    fail "the transport stream was received otherwise than sent"
"$pccast" stop "$(cat relay)"
within 15 grep -qx 'the end' received.ts.said
kill $receiver
end_service TERM

cp "$samples/sample.nsc" /fixdata/bypass.nsc
start_service # a service that has announced nothing yet announces at once
start_receiver received.asf
"$pccast" file "$samples/sample.asf" --to 239.192.48.179:8080 --epg 12 --for 20s
within 5 grep -qx 'on air: programme 12 at 239.192.48.179:8080' received.asf.said
within 15 grep -q 'the file has ended' serve.log
sleep 0.5
kill $receiver
# Up to the packets that were sent before it had joined, it is the file.
size=$(wc -c <received.asf)
object='\x36\x26\xb2\x75\x8e\x66\xcf\x11\xa6\xd9\x00\xaa\x00\x62\xce\x6c' # the data object's identifier
header=$(LC_ALL=C grep -abo -P "$object" "$samples/sample.asf" | tr -d '\0' | cut -d : -f 1)
header=$((header + 50))
packets=$((size - header))
[ "$packets" -gt 200000 ] && [ $((packets % 1400)) -eq 0 ] || fail "not the data packets of the file: $size bytes"
head -c $header received.asf | cmp - <(head -c $header "$samples/sample.asf") || fail "not the header of the file"
sent=$((($(wc -c <"$samples/sample.asf") - header) / 1400 * 1400))
cmp <(tail -c "+$((header + 1 + sent - packets))" "$samples/sample.asf" | head -c $packets) \
    <(tail -c "+$((header + 1))" received.asf) || fail "the ASF cast was received otherwise than sent"
end_service TERM
