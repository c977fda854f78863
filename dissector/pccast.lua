-- pccast.lua - shows what PCCAST sends in Wireshark and tshark.
--
--   pccast      frames on UDP 7890 (announcements) and 9367 (messages): header, items, whether the CRCs are right
--   pccast_msb  packets of ASF casts: found by their shape on any UDP port, or all on the port that the
--               preference pccast_msb.port names
--
--   tshark -X lua_script:pccast.lua -r capture.pcapng -Y pccast
--
-- To load it always, copy it to ~/.local/lib/wireshark/plugins.

local ANNOUNCEMENT_PORT = 7890
local MESSAGE_PORT = 9367
local HEADER_SIZE = 28
local SERVICE_AIR = 204

-- ---- what a frame says

local pccast = Proto("pccast", "PCCAST announcement or message")

local KINDS = {
    -- ident and command say which kind it is; items names the table below that describes the payload
    {ident = 1234, command = 0x40030, name = "On air", items = "announcement"},
    {ident = 1234, command = 0x40033, name = "End", items = "announcement"},
    {ident = 14, command = 0x40020, name = "Message", items = "message"},
}
local TYPES = {[1] = "stream", [16] = "file"}
local FORMATS = {[2] = "H.264", [3] = "ASF"}
local COMMANDS = {[0x40020] = "message", [0x40030] = "on air", [0x40033] = "end"}

local f = {
    version = ProtoField.uint16("pccast.version", "Frame version"),
    header_length = ProtoField.uint16("pccast.header_length", "Header length"),
    ident = ProtoField.uint32("pccast.ident", "Ident"),
    service = ProtoField.uint32("pccast.service", "Service"),
    command = ProtoField.uint32("pccast.command", "Command", base.HEX, COMMANDS),
    param = ProtoField.uint32("pccast.param", "Parameter"),
    sent = ProtoField.absolute_time("pccast.sent", "Sent"),
    payload_length = ProtoField.uint32("pccast.payload_length", "Payload length"),
    tag = ProtoField.uint16("pccast.item.tag", "Tag", base.HEX),
    length = ProtoField.uint32("pccast.item.length", "Length"),
    value = ProtoField.bytes("pccast.item.value", "Value"),
    crc = ProtoField.uint32("pccast.crc", "CRC", base.HEX),
    crc_good = ProtoField.bool("pccast.crc.good", "CRC good"),
    epg = ProtoField.uint32("pccast.epg", "Programme (EPG id)"),
    type = ProtoField.uint32("pccast.type", "Cast type", base.DEC, TYPES),
    format = ProtoField.uint32("pccast.format", "Format", base.DEC, FORMATS),
    start = ProtoField.absolute_time("pccast.start", "Start"),
    stop = ProtoField.absolute_time("pccast.end", "End"),
    address = ProtoField.string("pccast.address", "Destination address"),
    port = ProtoField.uint16("pccast.port", "Destination port"),
    station_crc = ProtoField.uint32("pccast.station_crc", "Station file CRC", base.HEX),
    station_crc_good = ProtoField.bool("pccast.station_crc.good", "Station file CRC good"),
    station = ProtoField.string("pccast.station", "Station file"),
    showings = ProtoField.uint16("pccast.showings", "Showings asked for"),
    attribute1 = ProtoField.uint32("pccast.attribute1", "Attribute 1"),
    attribute3 = ProtoField.uint32("pccast.attribute3", "Attribute 3"),
    text = ProtoField.string("pccast.text", "Text", base.UNICODE),
}
pccast.fields = f

local e = {
    frame = ProtoExpert.new("pccast.not_a_frame", "Not a frame of this service", expert.group.MALFORMED,
        expert.severity.ERROR),
    item = ProtoExpert.new("pccast.bad_item", "Item does not hold", expert.group.MALFORMED,
        expert.severity.ERROR),
    crc = ProtoExpert.new("pccast.bad_crc", "CRC does not match", expert.group.CHECKSUM,
        expert.severity.ERROR),
    kind = ProtoExpert.new("pccast.unknown_kind", "A frame that is neither announcement nor message",
        expert.group.UNDECODED, expert.severity.WARN),
}
pccast.experts = e

-- By tag. length: what the value must have, nil for any. time: the value is seconds since the epoch.
local ITEMS = {
    announcement = {
        [1100] = {name = "CRC", field = f.crc, length = 4},
        [0x0701] = {name = "Programme", field = f.epg, length = 4},
        [0x701D] = {name = "Cast type", field = f.type, length = 4},
        [0x701C] = {name = "Format", field = f.format, length = 4},
        [0x7011] = {name = "Start", field = f.start, length = 4, time = true},
        [0x7012] = {name = "End", field = f.stop, length = 4, time = true},
        [0x7014] = {name = "Destination address", field = f.address, text = true},
        [0x7017] = {name = "Destination port", field = f.port, length = 2},
        [1101] = {name = "Station file CRC", field = f.station_crc, length = 4},
        [1103] = {name = "Station file", field = f.station, text = true},
    },
    message = {
        [0x004B] = {name = "Send time", field = f.sent, length = 4, time = true},
        [0x000B] = {name = "Start", field = f.start, length = 4, time = true},
        [0x000C] = {name = "End", field = f.stop, length = 4, time = true},
        [0x500A] = {name = "Showings", field = f.showings, length = 2},
        [0x5003] = {name = "Attribute 3", field = f.attribute3, length = 4},
        [0x5001] = {name = "Attribute 1", field = f.attribute1, length = 4},
        [0x500B] = {name = "Text", field = f.text, text = true},
    },
}

-- ---- CRC-32 (polynomial EDB88320, initial and final inversion)

local crc_table = {}
for n = 0, 255 do
    local c = n
    for _ = 1, 8 do
        c = c % 2 == 1 and bit.bxor(bit.rshift(c, 1), 0xEDB88320) or bit.rshift(c, 1)
    end
    crc_table[n] = c
end

local function crc32(range)
    local c = -1
    local bytes = range:bytes()
    for i = 0, bytes:len() - 1 do
        c = bit.bxor(bit.rshift(c, 8), crc_table[bit.band(bit.bxor(c, bytes:get_index(i)), 0xFF)])
    end
    return bit.bnot(c) % 0x100000000
end

-- ---- texts

local NAMED = {[0x09] = "\\t", [0x0A] = "\\n", [0x0D] = "\\r"}
-- Characters that move the cursor, switch modes or turn the writing direction: from, to.
local STEERING = {
    {0x00, 0x1F}, {0x7F, 0x9F}, {0x061C, 0x061C}, {0x200B, 0x200F}, {0x2028, 0x202E}, {0x2060, 0x206F},
    {0xFEFF, 0xFEFF},
}
local SMALLEST = {0, 0x80, 0x800, 0x10000} -- what needs so many bytes in UTF-8

-- The code point at this byte of a text and its length, nil when the byte is not UTF-8.
local function character_at(raw, at)
    local first = raw:byte(at)
    local length = first < 0x80 and 1 or (first < 0xC0 or first >= 0xF8) and 0 or
        first < 0xE0 and 2 or first < 0xF0 and 3 or 4
    local code = length == 1 and first or first % 2 ^ (7 - length)
    for i = at + 1, at + length - 1 do
        local byte = raw:byte(i) or 0
        if byte < 0x80 or byte > 0xBF then return nil end
        code = code * 64 + byte % 64
    end
    if length == 0 or code < SMALLEST[length] or code > 0x10FFFF or (code >= 0xD800 and code <= 0xDFFF) then
        return nil
    end
    return code, length
end

-- The text of these bytes as it may go to a terminal: whatever could steer it is spelled out.
local function readable(range)
    local raw, out, at = range:raw(), {}, 1
    while at <= #raw do
        local code, length = character_at(raw, at)
        local shown = code and raw:sub(at, at + length - 1) or string.format("\\x%02x", raw:byte(at))
        for _, steering in ipairs(code and STEERING or {}) do
            if code >= steering[1] and code <= steering[2] then
                shown = NAMED[code] or string.format(code < 0x80 and "\\x%02x" or "\\u{%x}", code)
            end
        end
        out[#out + 1] = shown
        at = at + (length or 1)
    end
    return table.concat(out)
end

-- ---- items

-- Cuts the payload into items. An empty item has no value. Returns the items, whether their lengths add up, and
-- the byte where the reading ended.
local function read_items(payload)
    local items, at, size = {}, 0, payload:len()
    while size - at >= 4 do
        local header, length = 4, payload(at + 2, 2):le_uint()
        if length == 0xFFFF then
            if size - at < 8 then return items, false, at end
            header, length = 8, payload(at + 4, 4):le_uint()
        end
        if length > size - at - header then return items, false, at end
        items[#items + 1] = {
            tag = payload(at, 2):le_uint(),
            at = at,
            length = length,
            all = payload(at, header + length),
            head = payload(at, header),
            value = length > 0 and payload(at + header, length) or nil,
        }
        at = at + header + length
    end
    return items, at == size, at
end

local function add_value(tree, item, known)
    if item.value == nil then return end
    if known == nil then
        tree:add(f.value, item.value)
    elseif known.time then
        tree:add(known.field, item.value, NSTime.new(item.value:le_uint(), 0))
    elseif known.text then
        tree:add(known.field, item.value, readable(item.value))
    else
        tree:add_le(known.field, item.value)
    end
end

local function add_items(tree, items, known_items)
    local values = {}
    for _, item in ipairs(items) do
        local known = known_items[item.tag]
        local name = known and known.name or "Item"
        local node = tree:add(item.all, string.format("%s (tag 0x%04x), %d bytes", name, item.tag, item.length))
        node:add_le(f.tag, item.head(0, 2))
        node:add(f.length, item.head(2), item.length)
        if known and known.length and item.length ~= known.length then
            node:add_proto_expert_info(e.item,
                string.format("%s has %d bytes, not %d", name, item.length, known.length))
            known = nil
        end
        add_value(node, item, known)
        if known and item.value then values[item.tag] = item end
        item.node = node
    end
    return values
end

-- Checks the CRC in an item against the bytes that it covers. Returns the words for the summary.
local function check_crc(item, covered, field, what)
    local stated, computed = item.value:le_uint(), crc32(covered)
    item.node:add(field, item.value, stated == computed):set_generated()
    if stated == computed then return what .. " good" end
    item.node:add_proto_expert_info(e.crc,
        string.format("%s is 0x%08x, the bytes give 0x%08x", what, stated, computed))
    return what .. " WRONG"
end

-- The CRC in the first item covers what follows, up to the station file's CRC or the end. The station file's CRC
-- covers the station file.
local function check_announcement(tree, payload, items, values, words)
    if items[1] == nil or items[1].tag ~= 1100 or items[1].value == nil or items[1].length ~= 4 then
        tree:add_proto_expert_info(e.crc, "the announcement does not begin with its CRC")
        return
    end
    local from, to = items[1].all:len(), payload:len()
    for _, item in ipairs(items) do
        if item.tag == 1101 then
            to = item.at
            break
        end
    end
    if to > from then
        words[#words + 1] = check_crc(items[1], payload(from, to - from), f.crc_good, "CRC")
    end
    if values[1101] and values[1103] then
        words[#words + 1] = check_crc(values[1101], values[1103].value, f.station_crc_good, "station CRC")
    end
end

-- ---- frames

local function number(values, tag)
    return values[tag] and values[tag].value:le_uint()
end

local function describe(kind, values)
    local words = {kind.name}
    if kind.items == "message" then
        if values[0x500B] then
            words[#words + 1] = '"' .. readable(values[0x500B].value) .. '"'
        end
        return words
    end
    local epg, cast_type, format = number(values, 0x0701), number(values, 0x701D), number(values, 0x701C)
    if epg then words[#words + 1] = "EPG " .. epg end
    if cast_type then words[#words + 1] = TYPES[cast_type] or "type " .. cast_type end
    if format then words[#words + 1] = FORMATS[format] or string.format("format 0x%x", format) end
    if values[0x7014] then
        words[#words + 1] = "to " .. readable(values[0x7014].value) .. ":" .. (number(values, 0x7017) or "?")
    end
    return words
end

local function find_kind(ident, service, command)
    for _, kind in ipairs(KINDS) do
        if service == SERVICE_AIR and kind.ident == ident and kind.command == command then return kind end
    end
end

-- Returns what is wrong with the header, or nil. Checks in the order of a receiver.
local function header_fault(buffer)
    if buffer:len() < HEADER_SIZE then return "shorter than a frame header" end
    if buffer(0, 4):string() ~= "KTNF" then return "does not begin with KTNF" end
    if buffer(4, 2):le_uint() ~= 2 then return "another frame version" end
    if buffer(6, 2):le_uint() ~= HEADER_SIZE then return "another header length" end
    if buffer(24, 4):le_uint() ~= buffer:reported_len() - HEADER_SIZE then
        return "payload length and bytes present do not agree"
    end
end

function pccast.dissector(buffer, pinfo, root)
    pinfo.cols.protocol = "PCCAST"
    local tree = root:add(pccast, buffer())
    local fault = header_fault(buffer)
    if fault then
        pinfo.cols.info = "Not a frame: " .. fault
        tree:add_proto_expert_info(e.frame, fault)
        return buffer:len()
    end
    local kind = find_kind(buffer(8, 4):le_uint(), buffer(12, 4):le_uint(), buffer(16, 4):le_uint())
    local header = tree:add(buffer(0, HEADER_SIZE), "Frame header")
    header:add_le(f.version, buffer(4, 2))
    header:add_le(f.header_length, buffer(6, 2))
    header:add_le(f.ident, buffer(8, 4))
    header:add_le(f.service, buffer(12, 4))
    header:add_le(f.command, buffer(16, 4))
    header:add_le(f.param, buffer(20, 4))
    if kind then header:add(f.sent, buffer(20, 4), NSTime.new(buffer(20, 4):le_uint(), 0)) end
    header:add_le(f.payload_length, buffer(24, 4))
    local words = {kind and kind.name or "Unknown kind of frame"}
    if kind == nil then tree:add_proto_expert_info(e.kind) end
    local items, whole, at, values, payload = {}, true, 0, {}, nil
    if buffer:len() > HEADER_SIZE then
        payload = buffer(HEADER_SIZE):tvb()
        items, whole, at = read_items(payload)
        values = add_items(tree, items, kind and ITEMS[kind.items] or {})
        if kind then words = describe(kind, values) end
    end
    if buffer:len() < buffer:reported_len() then
        words[#words + 1] = "cut by the capture" -- the sum and the CRC cannot be checked
    else
        if not whole then
            tree:add_proto_expert_info(e.item,
                string.format("the items do not add up: at byte %d of the payload", at))
            words[#words + 1] = "items do not add up"
        end
        if kind and kind.items == "announcement" then
            check_announcement(tree, payload, items, values, words)
        end
    end
    pinfo.cols.info = table.concat(words, ", ")
    tree:append_text(": " .. table.concat(words, ", "))
    return buffer:len()
end

local udp_ports = DissectorTable.get("udp.port")
udp_ports:add(ANNOUNCEMENT_PORT, pccast)
udp_ports:add(MESSAGE_PORT, pccast)

-- ---- MSB packets

local msb = Proto("pccast_msb", "Media Stream Broadcast packet")
local m = {
    packet_id = ProtoField.uint32("pccast_msb.packet_id", "Packet id"),
    stream_id = ProtoField.uint16("pccast_msb.stream_id", "Stream id", base.HEX),
    format_id = ProtoField.uint16("pccast_msb.format_id", "Format ID", base.DEC, nil, 0x07FF),
    playout = ProtoField.bool("pccast_msb.playout", "Playout bit", 16, nil, 0x8000),
    size = ProtoField.uint16("pccast_msb.size", "Packet size"),
    send_time = ProtoField.uint32("pccast_msb.send_time", "ASF send time (ms)"),
    duration = ProtoField.uint16("pccast_msb.duration", "ASF duration (ms)"),
    data = ProtoField.bytes("pccast_msb.data", "ASF data packet"),
}
msb.fields = m
local msb_size = ProtoExpert.new("pccast_msb.bad_size", "Packet size and datagram do not agree",
    expert.group.MALFORMED, expert.severity.ERROR)
msb.experts = {msb_size}
msb.prefs.port = Pref.uint("UDP port", 0, "Port whose datagrams are MSB packets; 0: found by their shape")

local MSB_HEADER = 8
local TYPED_LENGTH = {[0] = 0, 1, 2, 4} -- bytes of a field, by its two-bit length type

-- Returns where the send time lies in the ASF data packet, or nil when the packet is cut before it.
local function send_time_at(data)
    local at = 0
    if bit.band(data(0, 1):uint(), 0x80) ~= 0 then at = 1 + bit.band(data(0, 1):uint(), 0x0F) end
    if data:len() < at + 2 then return nil end
    local types = data(at, 1):uint()
    at = at + 2
    for _, shift in ipairs({5, 1, 3}) do -- packet length, sequence, padding length
        at = at + TYPED_LENGTH[bit.band(bit.rshift(types, shift), 3)]
    end
    return data:len() >= at + 6 and at or nil
end

function msb.dissector(buffer, pinfo, root)
    if buffer:len() < MSB_HEADER then return 0 end
    pinfo.cols.protocol = "MSB"
    local tree = root:add(msb, buffer())
    local packet_id, stream_id = buffer(0, 4):le_uint(), buffer(4, 2):le_uint()
    tree:add_le(m.packet_id, buffer(0, 4))
    local stream = tree:add_le(m.stream_id, buffer(4, 2))
    stream:add_le(m.format_id, buffer(4, 2))
    stream:add_le(m.playout, buffer(4, 2))
    tree:add_le(m.size, buffer(6, 2))
    if buffer(6, 2):le_uint() ~= buffer:reported_len() then
        tree:add_proto_expert_info(msb_size,
            string.format("size %d, datagram of %d bytes", buffer(6, 2):le_uint(), buffer:reported_len()))
    end
    local info = string.format("MSB packet %d, format %d", packet_id, bit.band(stream_id, 0x7FF))
    if buffer:len() > MSB_HEADER then
        local data = buffer(MSB_HEADER)
        local asf = tree:add(m.data, data)
        local at = send_time_at(data)
        if at then
            asf:add_le(m.send_time, data(at, 4))
            asf:add_le(m.duration, data(at + 4, 2))
            info = info .. string.format(", due at %d ms", data(at, 4):le_uint())
        end
    end
    pinfo.cols.info = info
    tree:append_text(": " .. info)
    return buffer:len()
end

-- The shape: the size is that of the datagram, the unused bits of the stream id are clear, and the ASF packet begins
-- with the error correction flags that every encoder writes.
msb:register_heuristic("udp", function(buffer, pinfo, root)
    if buffer:len() < MSB_HEADER + 8 or buffer(6, 2):le_uint() ~= buffer:reported_len() or
        bit.band(buffer(4, 2):le_uint(), 0x7800) ~= 0 or buffer(8, 3):uint() ~= 0x820000 then
        return false
    end
    return msb.dissector(buffer, pinfo, root) > 0
end)

local msb_port = 0
function msb.prefs_changed()
    if msb_port ~= 0 then udp_ports:remove(msb_port, msb) end
    msb_port = msb.prefs.port
    if msb_port ~= 0 then udp_ports:add(msb_port, msb) end
end
