#!/usr/bin/env bash
# Stored files of both kinds are recognised, played byte for byte, announced and logged. Where ffmpeg is installed, it
# finds every frame and packet in the received bytes, without a complaint.
. "$(dirname "$0")/service.sh"
cp "$samples/sample.nsc" /fixdata/bypass.nsc
start_service
start_watch
mkdir caught
"$pccast" receive --on-air caught/film.bin 2>caught.log &
catcher=$!

# A file of 30 s plays on after the end of its request, and is stopped like any other cast.
cat "$samples"/{sample,sample,sample}.ts >long.ts
cast=$("$pccast" file long.ts --to 239.77.0.5:5005 --epg 13 --for 2s)
within 5 grep -q '"kind":"on-air".*"epg":13,' heard
sleep 2
"$pccast" stop "$cast" || fail "it plays on"
within 15 grep -q '"kind":"end".*"epg":13,' heard

"$pccast" receive 239.77.0.5:5005 received.ts >receive.log 2>&1 &
receiver=$!
"$pccast" file "$samples/sample.ts" --to 239.77.0.5:5005 --epg 11 --for 30s
wait $receiver
cmp "$samples/sample.ts" received.ts || fail "the transport stream arrived otherwise than stored"
within 2 grep -q '"kind":"on-air".*"epg":11,"type":16,"format":2,.*"crcOk":true' heard
within 2 grep -q '\[play\].*TYPE=ASF@FILECAST,IEPGID=0x0000000B,FILE="'"$samples"'/sample.ts"' serve.log

"$pccast" receive 239.192.48.179:8080 whole.asf --station "$samples/sample.nsc" >receive.log 2>&1 &
receiver=$!
"$pccast" file "$samples/sample.asf" --to 239.192.48.179:8080 --epg 12 --for 20s
wait $receiver
# Up to the last packet it is the file; the index behind the packets is not cast.
[ "$(wc -c <whole.asf)" -gt 100000 ] || fail "too little of the ASF file"
head -c "$(wc -c <whole.asf)" "$samples/sample.asf" | cmp - whole.asf || fail "the ASF file arrived otherwise than stored"
within 12 grep -q '"kind":"on-air".*"epg":12,"type":16,"format":3,.*"crcOk":true,"stationCrcOk":true,"station":"\[Address\]' heard
within 2 grep -q '\[play\].*IEPGID=0x0000000C,.*NSC="/fixdata/bypass.nsc"' serve.log
end_service TERM

# Who follows the announcements has a file for each cast that something came of.
kill -TERM $catcher
wait $catcher || fail "receive ended with exit code $?"
grep -v film-2 caught.log | sed -E 's/: [1-9][0-9]* (bytes|datagrams)/: N \1/' | diff - /dev/fd/3 3<<'END' >&2 || fail "caught otherwise"
pccast: on air: programme 13 at 239.77.0.5:5005
pccast: caught/film.bin: N bytes
pccast: on air: programme 11 at 239.77.0.5:5005
pccast: on air: programme 12 at 239.192.48.179:8080
pccast: N datagrams received
END
python3 -c 'import sys
caught, film = (open(name, "rb").read() for name in sys.argv[1:])
sys.exit(len(caught) < 50000 or caught not in film)' caught/film.bin long.ts || fail "no part of the film was caught"

command -v ffmpeg ffprobe >/dev/null || { echo "ffmpeg is not installed: its judgement is left out"; exit 0; }
has_frames() { # FILE CODEC,COUNT: as decoded
    local found
    found=$(ffprobe -loglevel error -count_frames -show_entries stream=codec_name,nb_read_frames -of csv=p=0 "$1" 2>&1)
    grep -qx "$2" <<<"$found" || fail "$1 does not have $2: $found"
}
packets() { # each one's place in its stream, size and content, and any complaint
    ffmpeg -nostdin -loglevel error -i "$1" -map 0 -c copy -f framemd5 - 2>&1 | grep -v '^#'
}
complaints=$(ffmpeg -nostdin -loglevel warning -i received.ts -f null - 2>&1)
[ -z "$complaints" ] || fail "ffmpeg on the received transport stream: $complaints"
has_frames received.ts h264,300
[ "$(packets "$samples/sample.asf" | tee sent.md5 | wc -l)" -ge 270 ] || fail "the sample has too few packets"
packets whole.asf | cmp - sent.md5 || fail "the ASF packets differ"
has_frames whole.asf wmv2,150
