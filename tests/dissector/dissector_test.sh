#!/usr/bin/env bash
# Compares what tshark shows of literal frames and packets with what it should show: every field, whether the CRCs
# are right, and a clear word about bad bytes. Argument: the dissector.
set -euo pipefail
dissector=$(readlink -f "$1")
for tool in tshark text2pcap; do
    command -v $tool >/dev/null || { echo "skipped: $tool is not installed (apt-get install tshark)"; exit 77; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export HOME=$work XDG_CONFIG_HOME=$work TZ=UTC LC_ALL=C.UTF-8 # without the user's settings
cd "$work"
failed=0

# capture PORT: makes PORT.pcapng of the datagrams on standard input, one per line, in hexadecimal.
capture() {
    sed -e 's/^/000000 /' | text2pcap -q -4 192.0.2.1,224.9.9.9 -u 40000,"$1" - "$1.pcapng" 2>text2pcap.log ||
        { cat text2pcap.log; exit 1; }
}

# expect WHAT FILE OPTION...: tshark with the options must print of FILE what stands on standard input.
expect() {
    local what=$1 file=$2
    shift 2
    tshark -X "lua_script:$dissector" -r "$file" "$@" >got 2>tshark.log || { cat tshark.log; failed=1; }
    if ! diff -u --label "expected: $what" --label "tshark: $what" - got; then
        failed=1
    fi
}

# fields NAME...: prints the options for these fields, with | between them.
fields() {
    printf -- '-T\nfields\n-E\nseparator=|\n'
    printf -- '-e\n%s\n' "$@"
}
info=(-o 'gui.column.format:"Info","%i"')

# ---- announcements: an H.264 relay, an ASF file with its station, an end. Then the bad ones: a wrong programme, a
# wrong station file, an item that reaches past the end, another version, an unknown kind, no items
capture 7890 <<'END'
4b 54 4e 46 02 00 1c 00 d2 04 00 00 cc 00 00 00 30 00 04 00 d2 04 06 6b 43 00 00 00 4c 04 04 00 a1 c0 2f 55 01 07 04 00 07 00 00 00 1d 70 04 00 01 00 00 00 1c 70 04 00 02 00 00 00 11 70 04 00 d2 04 06 6b 12 70 04 00 0e 05 06 6b 14 70 09 00 32 33 39 2e 31 2e 32 2e 33 17 70 02 00 88 13
4b 54 4e 46 02 00 1c 00 d2 04 00 00 cc 00 00 00 30 00 04 00 dd 04 04 6b 47 00 00 00 4c 04 04 00 68 3b cb 3c 01 07 04 00 09 00 00 00 1d 70 04 00 10 00 00 00 1c 70 04 00 03 00 00 00 11 70 04 00 d6 04 04 6b 12 70 04 00 de 04 04 6b 4d 04 04 00 cd 19 67 c1 4f 04 0b 00 5b 41 64 64 72 65 73 73 5d 0d 0a
4b 54 4e 46 02 00 1c 00 d2 04 00 00 cc 00 00 00 33 00 04 00 e5 04 06 6b 20 00 00 00 4c 04 04 00 c9 be 88 55 01 07 04 00 0a 00 00 00 1d 70 04 00 10 00 00 00 1c 70 04 00 02 00 00 00
4b 54 4e 46 02 00 1c 00 d2 04 00 00 cc 00 00 00 33 00 04 00 e5 04 06 6b 20 00 00 00 4c 04 04 00 c9 be 88 55 01 07 04 00 0b 00 00 00 1d 70 04 00 10 00 00 00 1c 70 04 00 02 00 00 00
4b 54 4e 46 02 00 1c 00 d2 04 00 00 cc 00 00 00 30 00 04 00 dd 04 04 6b 47 00 00 00 4c 04 04 00 68 3b cb 3c 01 07 04 00 09 00 00 00 1d 70 04 00 10 00 00 00 1c 70 04 00 03 00 00 00 11 70 04 00 d6 04 04 6b 12 70 04 00 de 04 04 6b 4d 04 04 00 cd 19 67 c1 4f 04 0b 00 5b 41 64 64 72 65 73 73 5d 0d 0d
4b 54 4e 46 02 00 1c 00 d2 04 00 00 cc 00 00 00 33 00 04 00 e5 04 06 6b 0c 00 00 00 01 07 02 00 0a 00 4c 04 f0 00 c9 be
4b 54 4e 46 03 00 1c 00 d2 04 00 00 cc 00 00 00 33 00 04 00 e5 04 06 6b 00 00 00 00
4b 54 4e 46 02 00 1c 00 d2 04 00 00 cc 00 00 00 20 00 04 00 e5 04 06 6b 05 00 00 00 07 00 01 00 2a
4b 54 4e 46 02 00 1c 00 d2 04 00 00 cc 00 00 00 30 00 04 00 e5 04 06 6b 00 00 00 00
END
mapfile -t options < <(fields pccast.command pccast.sent pccast.epg pccast.type pccast.format pccast.start pccast.end \
    pccast.address pccast.port pccast.crc pccast.crc.good pccast.station pccast.station_crc.good)
expect "announcements" 7890.pcapng "${options[@]}" <<'END'
0x00040030|Nov 24, 2026 21:42:42.000000000 UTC|7|1|2|Nov 24, 2026 21:42:42.000000000 UTC|Nov 24, 2026 21:43:42.000000000 UTC|239.1.2.3|5000|0x552fc0a1|1||
0x00040030|Nov 23, 2026 09:18:21.000000000 UTC|9|16|3|Nov 23, 2026 09:18:14.000000000 UTC|Nov 23, 2026 09:18:22.000000000 UTC|||0x3ccb3b68|1|[Address]\r\n|1
0x00040033|Nov 24, 2026 21:43:01.000000000 UTC|10|16|2|||||0x5588bec9|1||
0x00040033|Nov 24, 2026 21:43:01.000000000 UTC|11|16|2|||||0x5588bec9|0||
0x00040030|Nov 23, 2026 09:18:21.000000000 UTC|9|16|3|Nov 23, 2026 09:18:14.000000000 UTC|Nov 23, 2026 09:18:22.000000000 UTC|||0x3ccb3b68|1|[Address]\r\r|0
0x00040033|Nov 24, 2026 21:43:01.000000000 UTC|||||||||||
||||||||||||
0x00040020||||||||||||
0x00040030|Nov 24, 2026 21:43:01.000000000 UTC|||||||||||
END
expect "summaries of announcements" 7890.pcapng "${info[@]}" <<'END'
On air, EPG 7, stream, H.264, to 239.1.2.3:5000, CRC good
On air, EPG 9, file, ASF, CRC good, station CRC good
End, EPG 10, file, H.264, CRC good
End, EPG 11, file, H.264, CRC WRONG
On air, EPG 9, file, ASF, CRC good, station CRC WRONG
End, items do not add up
Not a frame: another frame version
Unknown kind of frame
On air
END
mapfile -t options < <(fields frame.number _ws.expert.message)
expect "what does not hold" 7890.pcapng -Y _ws.expert "${options[@]}" <<'END'
4|CRC is 0x5588bec9, the bytes give 0x30ef858f
5|station CRC is 0xc16719cd, the bytes give 0x5f038c6e
6|Programme has 2 bytes, not 4,the items do not add up: at byte 6 of the payload,the announcement does not begin with its CRC
7|another frame version
8|A frame that is neither announcement nor message
9|the announcement does not begin with its CRC
END

# ---- messages: one in UTF-8, one with its length in the long form, one that is shorter than it says
capture 9367 <<'END'
4b 54 4e 46 02 00 1c 00 0e 00 00 00 cc 00 00 00 20 00 04 00 d4 04 06 6b 37 00 00 00 4b 00 04 00 d4 04 06 6b 0b 00 04 00 d4 04 06 6b 0c 00 04 00 2c 07 06 6b 0a 50 02 00 01 00 03 50 04 00 03 00 00 00 01 50 04 00 20 00 00 00 0b 50 05 00 4e 6f 6f c3 bc
4b 54 4e 46 02 00 1c 00 0e 00 00 00 cc 00 00 00 20 00 04 00 d4 04 06 6b 0a 00 00 00 0b 50 ff ff 02 00 00 00 48 69
4b 54 4e 46 02 00 1c 00 0e 00 00 00 cc 00 00 00 20 00 04 00 d4 04 06 6b 0b 00 00 00 0b 50 02 00 48 69
END
mapfile -t options < <(fields pccast.sent pccast.start pccast.end pccast.showings pccast.attribute3 pccast.attribute1 \
    pccast.item.length pccast.text _ws.expert.message)
expect "messages" 9367.pcapng "${options[@]}" <<'END'
Nov 24, 2026 21:42:44.000000000 UTC,Nov 24, 2026 21:42:44.000000000 UTC|Nov 24, 2026 21:42:44.000000000 UTC|Nov 24, 2026 21:52:44.000000000 UTC|1|3|32|4,4,4,2,4,4,5|Nooü|
Nov 24, 2026 21:42:44.000000000 UTC||||||2|Hi|
||||||||payload length and bytes present do not agree
END

# ---- texts that would steer the terminal: escapes, C1 controls, DEL, a turned direction, bytes that are no UTF-8
capture 9367 <<'END'
4b 54 4e 46 02 00 1c 00 0e 00 00 00 cc 00 00 00 20 00 04 00 d4 04 06 6b 18 00 00 00 0b 50 14 00 61 1b 5b 32 4a c2 9b 7f 07 0a 5c e2 80 ae c3 bc ff 9b f9 7a
END
capture 7890 <<'END'
4b 54 4e 46 02 00 1c 00 d2 04 00 00 cc 00 00 00 30 00 04 00 d4 04 06 6b 30 00 00 00 01 07 04 00 07 00 00 00 14 70 0f 00 32 33 39 2e 31 1b 5b 33 31 6d c2 9b 7f 9b 5c 17 70 02 00 88 13 4f 04 0b 00 5b 41 5d 0d 0a 1b 5b 31 6d 9b ff
END
mapfile -t options < <(fields pccast.text pccast.address pccast.station)
expect "a hostile text" 9367.pcapng "${options[@]}" <<'END'
a\x1b[2J\u{9b}\x7f\x07\n\\u{202e}ü\xff\x9b\xf9z||
END
expect "the summary of a hostile text" 9367.pcapng "${info[@]}" <<'END'
Message, "a\x1b[2J\u{9b}\x7f\x07\n\\u{202e}ü\xff\x9b\xf9z"
END
expect "a hostile address and station file" 7890.pcapng "${options[@]}" <<'END'
|239.1\x1b[31m\u{9b}\x7f\x9b\|[A]\r\n\x1b[1m\x9b\xff
END
expect "the summary of a hostile address" 7890.pcapng "${info[@]}" <<'END'
On air, EPG 7, to 239.1\x1b[31m\u{9b}\x7f\x9b\:5000
END

# ---- MSB packets, found by their shape: the first one of a playout, then one of the next playout, with a packet
# length and padding before its time. The last two are no such packets: a wrong size, unused bits set
capture 8080 <<'END'
00 00 00 00 01 00 18 00 82 00 00 01 5d 2e 00 00 00 2e 00 82 02 01 00 00
07 00 00 00 01 80 18 00 82 00 00 51 5d 10 00 05 00 2e 01 00 00 10 00 81
08 00 00 00 01 80 19 00 82 00 00 01 5d 2e 00 00 00 2e 00 82 02 01 00 00
08 00 00 00 01 88 18 00 82 00 00 01 5d 2e 00 00 00 2e 00 82 02 01 00 00
END
mapfile -t options < <(fields pccast_msb.packet_id pccast_msb.format_id pccast_msb.playout pccast_msb.size \
    pccast_msb.send_time pccast_msb.duration _ws.expert.message)
expect "MSB packets by shape" 8080.pcapng "${options[@]}" <<'END'
0|1|0|24|46|46|
7|1|1|24|302|16|
||||||
||||||
END
expect "MSB packets by port" 8080.pcapng -o pccast_msb.port:8080 -Y 'frame.number >= 3' "${options[@]}" <<'END'
8|1|1|25|46|46|size 25, datagram of 24 bytes
8|1|1|24|46|46|
END

[ "$failed" -eq 0 ] || { echo "FAILED: tshark shows something else"; exit 1; }
