#!/usr/bin/env python3
"""A receiver: it writes what is on air to standard output, and messages to standard error.

    receiver.py [ADDRESS-OF-AN-INTERFACE] | ffplay -

Needs Python 3.8 and nothing else. docs/receiving.md tells what each check is for, docs/wire-formats.md has the bytes.
It leaves out one thing that is told there: it does not wait for packets of an ASF cast that come out of order.
"""
import collections, functools, ipaddress, operator, select, socket, struct, sys, time, zlib

GROUP, ANNOUNCEMENTS, MESSAGES = "224.9.9.9", 7890, 9367
ON_AIR, END, MESSAGE = (1234, 204, 0x40030), (1234, 204, 0x40033), (14, 204, 0x40020)
PATIENCE, REJOIN = 25, 12  # seconds without an announcement: a cast is over, the group is joined again
FILE_PROPERTIES = bytes.fromhex("A1DCAB8C47A9CF118EE400C00C205365")  # in an ASF header, 92 bytes before the packet size
ALPHABET = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz{}"


def join(group, port, interface):
    receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    try:
        receiver.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        receiver.bind((group, port))
        membership = socket.inet_aton(group) + socket.inet_aton(interface)
        receiver.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, membership)
        return receiver
    except OSError as problem:  # a port of the system's, an interface that is away: the next announcement tries again
        print(f"no way to {group}:{port}: {problem}", file=sys.stderr)


def read_frame(datagram):
    """Returns its kind, its send time, its items as (tag, value, offset), and their bytes. None: it does not hold."""
    if len(datagram) < 28 or datagram[:8] != b"KTNF" + struct.pack("<HH", 2, 28):
        return None
    ident, service, command, sent, length = struct.unpack("<IIIII", datagram[8:28])
    items, at, payload = [], 0, datagram[28:] if length == len(datagram) - 28 else b""
    while at < length:
        if len(payload) - at < 4:
            return None
        tag, size = struct.unpack_from("<HH", payload, at)
        begin, at = at, at + 4
        if size == 0xFFFF:
            size, at = int.from_bytes(payload[at:at + 4], "little"), at + 4
        if size > length - at:
            return None
        items.append((tag, payload[at:at + size], begin))
        at += size
    return (ident, service, command), sent, items, payload


def number(items, tag, size):
    value = items.get(tag, b"")
    return int.from_bytes(value, "little") if len(value) == size else None


def station(text):
    """Returns group, port, and by their Format ID headers with the size of their packets, of a station file."""
    lines = dict(line.split("=", 1) for line in text.decode("ascii").split("\r\n") if "=" in line)

    def decode(value):  # six bits a character; a check byte, a key and a length stand before the data
        bits = "".join(format(ALPHABET.index(c), "06b") for c in value[2:])
        data = bytes(int(bits[i:i + 8], 2) for i in range(0, len(bits) - 7, 8))
        key, size = struct.unpack(">II", data[1:9])
        if functools.reduce(operator.xor, data[:9 + size]) != 0 or len(data) < 9 + size:
            raise ValueError("the station file's check byte")
        return key, data[9:9 + size]

    def plain(value):
        return decode(value)[1].decode("utf-16-le").rstrip("\0") if value[:2] == "02" and len(value) > 13 else value
    headers = dict(decode(value) for name, value in lines.items() if name.startswith("Format") and name[6:].isdigit())
    for ident, header in headers.items():
        size = header.index(FILE_PROPERTIES) + 92
        headers[ident] = header, int.from_bytes(header[size:size + 4], "little")
    return plain(lines["IP Address"]), int(plain(lines["IP Port"]), 16), headers


def read_cast(rows, items, payload):
    """Returns (programme, type) and (start, group, port, ASF headers); None in place of what does not hold."""
    covered = next((begin for tag, value, begin in rows if tag == 1101), len(payload))
    if rows[0][0] != 1100 or number(items, 1100, 4) != zlib.crc32(payload[8:covered]):
        return None, None
    epg, kind, start = number(items, 0x0701, 4), number(items, 0x701D, 4), number(items, 0x7011, 4)
    form, group, port, headers = number(items, 0x701C, 4), "", 0, None
    try:
        if form == 2:
            group, port = items[0x7014].decode("ascii"), number(items, 0x7017, 2)
        elif form == 3 and number(items, 1101, 4) == zlib.crc32(items[1103]):
            group, port, headers = station(items[1103])
        if ipaddress.IPv4Address(group).is_multicast and 0 < port < 65536:
            return (epg, kind), (start, group, port, headers)
    except (KeyError, ValueError, TypeError, struct.error):
        pass
    return (epg, kind), None


def main():
    interface = sys.argv[1] if len(sys.argv) > 1 else "0.0.0.0"
    air, media, cast, who, last_sent, stream, expected = [], None, None, None, None, None, 0
    announced, heard, shown = 0, -REJOIN, collections.deque(maxlen=16)
    while True:
        if time.monotonic() - heard > REJOIN:  # both leave before one joins, or the switch hears nothing of it
            heard, air = time.monotonic(), [receiver.close() for receiver in air] and []
            air = [receiver for port in (ANNOUNCEMENTS, MESSAGES) if (receiver := join(GROUP, port, interface))]
        if cast and time.monotonic() - announced > PATIENCE:
            print("announced no more", file=sys.stderr)
            media, cast, last_sent = media.close(), None, None
        for receiver in select.select(air + ([media] if media else []), [], [], 1)[0][:1]:
            datagram = receiver.recv(65536)
            if receiver is media and cast[3] is None:
                sys.stdout.buffer.write(datagram)
            elif receiver is media and len(datagram) > 8:
                packet_id, stream_id, size = struct.unpack("<IHH", datagram[:8])
                if size == len(datagram) and stream_id & 0x7FF in cast[3]:
                    header, packet_size = cast[3][stream_id & 0x7FF]
                    if stream_id != stream:  # a file begins
                        sys.stdout.buffer.write(header)
                        stream, expected = stream_id, packet_id
                    if packet_id - expected & 0xFFFFFFFF < 1 << 31:  # neither repeated nor overtaken
                        sys.stdout.buffer.write(datagram[8:].ljust(packet_size, b"\0"))
                        expected = packet_id + 1 & 0xFFFFFFFF
            sys.stdout.buffer.flush()
            kind, sent, rows, payload = receiver is not media and read_frame(datagram) or (None, 0, [], b"")
            heard, items = time.monotonic() if kind else heard, {tag: value for tag, value, begin in rows}
            if kind == MESSAGE and 0x500B in items and datagram not in shown:
                shown.append(datagram)
                print("message:", ascii(items[0x500B].decode("utf-8", "replace")), file=sys.stderr)
            elif kind in (ON_AIR, END) and rows and not (last_sent and 0 < last_sent - sent <= 60):
                found, new = read_cast(rows, items, payload)
                if found is None or (kind == ON_AIR and new is None):
                    continue
                last_sent = sent
                if kind == END and cast and found == who:
                    print("the end", file=sys.stderr)
                    media, cast = media.close(), None
                elif kind == ON_AIR:
                    announced = time.monotonic()
                    if cast != new or who != found:
                        print(f"on air: programme {found[0]} at {new[1]}:{new[2]}", file=sys.stderr)
                        media, who, stream = media and media.close(), found, None
                        media = join(new[1], new[2], interface)
                        cast = new if media else None


try:
    main()
except (KeyboardInterrupt, BrokenPipeError):
    pass
