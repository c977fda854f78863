#!/usr/bin/env bash
# Plays both media samples onto their groups and has ffmpeg judge what was received: every frame and every packet,
# and no word of complaint. Run in a namespace of its own.
#
#   media_receivers.sh PLAY_FILE
set -euo pipefail
play_file=$1
samples=$(cd "$(dirname "$0")/../samples" && pwd)
for tool in ffmpeg ffprobe; do
    command -v "$tool" >/dev/null || { echo "SKIPPED: $tool is not installed"; exit 77; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "FAILED: $*" >&2
    exit 1
}
need_frames() { # FILE CODEC,COUNT: as decoded
    local found
    found=$(ffprobe -loglevel error -count_frames -show_entries stream=codec_name,nb_read_frames -of csv=p=0 "$1" 2>&1)
    grep -qx "$2" <<<"$found" || fail "$1 does not have $2: $found"
}
packets() { # each one's place in its stream, size and content
    ffmpeg -nostdin -loglevel error -i "$1" -map 0 -c copy -f framemd5 - 2>&1 | grep -v '^#'
}

"$play_file" "$samples/sample.ts" 239.192.48.180:5000 "$work/received.ts"
cmp "$samples/sample.ts" "$work/received.ts" || fail "the transport stream arrived changed"
complaints=$(ffmpeg -nostdin -loglevel warning -i "$work/received.ts" -f null - 2>&1)
[ -z "$complaints" ] || fail "ffmpeg on the received transport stream: $complaints"
need_frames "$work/received.ts" h264,300

"$play_file" "$samples/sample.asf" 239.192.48.179:8080 "$work/received.asf" "$samples/sample.nsc"
packets "$samples/sample.asf" >"$work/sent.md5"
packets "$work/received.asf" >"$work/received.md5"
[ "$(wc -l <"$work/sent.md5")" -ge 270 ] || fail "the sample has too few packets"
cmp "$work/sent.md5" "$work/received.md5" || fail "the ASF packets differ"
need_frames "$work/received.asf" wmv2,150
echo "PASSED"
