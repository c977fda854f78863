#!/usr/bin/env bash
# A standard player finds the transport stream on air by itself, with its streams. At the end it is taken back.
. "$(dirname "$0")/service.sh"
for tool in ffprobe python3; do
    command -v $tool >/dev/null || { echo "skipped: $tool is not installed"; exit 77; }
done

# Without a way to the group nothing is announced, and the service goes on. It tries again by itself.
ip route add unreachable 224.2.127.254
start_service --sap
"$pccast" relay 239.77.0.1:4000 239.77.0.9:5000 --epg 6 --for 100s >unheard
within 5 grep -q 'no announcement to players' serve.log
"$pccast" stop "$(cat unheard)"
open=$(descriptors)

# Each announcement as a line: announced or deleted, hash, origin, and the description with \r\n for its line ends.
python3 - >heard-sap <<'END' &
import socket, struct
group = socket.inet_aton("224.2.127.254")
listener = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
listener.bind(("224.2.127.254", 9875))
listener.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, group + socket.inet_aton("127.0.0.1"))
while True:
    packet = listener.recv(65536)
    flags, authentication, message = struct.unpack(">BBH", packet[:4])
    kind, text = packet[8:].split(b"\0", 1)
    print({0x20: "announced", 0x24: "deleted"}[flags], authentication, message, socket.inet_ntoa(packet[4:8]),
          kind.decode(), repr(text.decode()), flush=True)
END
within 5 grep -q FE7F02E0 /proc/net/igmp

cp "$samples/sample.nsc" /fixdata/bypass.nsc
"$pccast" file "$samples/sample.asf" --to 239.192.48.179:8080 --epg 5 --for 3s # no transport stream
"$pccast" relay 239.77.0.1:4000 239.77.0.2:5000 --epg 7 --for 100s >relay
sleep 0.5
ip route del unreachable 224.2.127.254
within 10 grep -q '^announced 0 [0-9]* 127.0.0.1 application/sdp ' heard-sap
"$bin/pccast-feed" "$samples/sample.ts" 239.77.0.1:4000 --interface lo --loop >feed.log 2>&1 &
# The player hears the announcement that is repeated.
timeout 60 ffprobe -loglevel error -show_entries stream=codec_name -of csv=p=0 sap://224.2.127.254 >found 2>probe.log ||
    fail "ffprobe: $(cat probe.log)"
grep -q h264 found && grep -q aac found || fail "not the streams of the cast: $(cat found)"

"$pccast" stop "$(cat relay)"
within 5 grep -q '^deleted' heard-sap
hash=$(sed -n '1s/^announced 0 \([0-9]*\) .*/\1/p' heard-sap)
grep -q "^deleted 0 $hash 127.0.0.1 application/sdp 'o=- [0-9]* 1 IN IP4 127.0.0.1.r.n'$" heard-sap ||
    fail "not the deletion of what was announced: $(cat heard-sap)"
expected="'v=0\\\\r\\\\no=- [0-9]* 1 IN IP4 127.0.0.1\\\\r\\\\ns=PCCAST programme 7\\\\r\\\\nc=IN IP4 239.77.0.2/5\\\\r\\\\nt=[0-9]* [0-9]*\\\\r"
grep -q "$expected.*m=video 5000 udp 33" heard-sap || fail "the description: $(cat heard-sap)"
[ "$(tail -n 1 heard-sap | cut -c 1-7)" = deleted ] || fail "announced after the end: $(tail -n 1 heard-sap)"
! timeout 3 ffprobe -loglevel error sap://224.2.127.254 2>probe.log || fail "found a cast after its end"
[ "$(descriptors)" -le "$open" ] || fail "descriptors stay open: $open, then $(descriptors)"
! grep -q 239.192 heard-sap || fail "an ASF cast is announced to players that cannot play it"
end_service TERM
