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

# Each packet as a line, which begins with "b' " for an announcement and with "b'$" for a deletion.
python3 -u - >heard-sap <<'END' &
import socket
listener = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
listener.bind(("224.2.127.254", 9875))
listener.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, socket.inet_aton("224.2.127.254") + socket.inet_aton("127.0.0.1"))
while True:
    print(listener.recv(65536))
END
within 5 grep -q FE7F02E0 /proc/net/igmp

"$pccast" relay 239.77.0.1:4000 239.77.0.2:5000 --epg 7 --for 100s >relay
sleep 0.5
ip route del unreachable 224.2.127.254
within 10 grep -q '^b. .*application/sdp.*PCCAST programme 7.*IN IP4 239.77.0.2/5' heard-sap
"$bin/pccast-feed" "$samples/sample.ts" 239.77.0.1:4000 --interface lo --loop >feed.log 2>&1 &
# The player hears the announcement that is repeated.
timeout 60 ffprobe -loglevel error -show_entries stream=codec_name -of csv=p=0 sap://224.2.127.254 >found 2>probe.log ||
    fail "ffprobe: $(cat probe.log)"
grep -q h264 found && grep -q aac found || fail "not the streams of the cast: $(cat found)"

"$pccast" stop "$(cat relay)"
within 5 grep -q '^b.\$.*o=- [0-9]* 1 IN IP4 127.0.0.1' heard-sap
! timeout 3 ffprobe -loglevel error sap://224.2.127.254 2>probe.log || fail "found a cast after its end"
end_service TERM
