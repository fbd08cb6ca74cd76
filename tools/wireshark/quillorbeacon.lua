-- Wireshark's view of what passes between a camera board and its clients: relay packets on UDP 5252.
-- Its name in filters is quillorbeacon: quillorbeacon.status.temperature > 70.
-- docs/protocol.md describes every field.

local beacon = Proto("quillorbeacon", "Camera board relay")
local port = 5252
local header_size = 12

local streams = {
    [0] = "data", [1] = "video", [2] = "audio", [3] = "the board's own camera", [4] = "file piece",
}
local requests = {
    [0x00] = "info request", [0x02] = "registration", [0x03] = "unregistration",
    [0x05] = "gimbal values", [0x09] = "screenshot request",
    [0x21] = "command for the camera", [0x7b] = "JSON command",
}
local replies = {
    [1] = "info reply", [4] = "status record", [8] = "menu notice", [10] = "screenshot",
    [0x7b] = "answer to a command",
}
local receiver_states = { [0] = "absent", [1] = "present", [2] = "being calibrated" }
local places = { [0] = "not checked yet", [1] = "internal", [2] = "external", [255] = "no space" }
local media = { [0] = "all streams", [1] = "no video and sound" }

local fields = {}

-- A field of the protocol: `kind` is a constructor such as ProtoField.uint8.
local function field(kind, name, ...)
    local made = kind("quillorbeacon." .. name, ...)
    fields[#fields + 1] = made
    return made
end

local u8, u16, u32 = ProtoField.uint8, ProtoField.uint16, ProtoField.uint32

local magic = field(ProtoField.string, "magic", "Magic")
local stream = field(u8, "type", "Stream", base.DEC, streams)
local length = field(u16, "length", "Payload length")
local sequence = field(u32, "sequence", "Sequence")
local constant = field(u32, "constant", "Constant")
local payload = field(ProtoField.bytes, "payload", "Payload")
local request = field(u8, "request", "Request", base.HEX, requests)
local reply = field(u8, "reply", "Kind", base.DEC, replies)
local json = field(ProtoField.string, "json", "JSON")
local streams_wanted = field(u8, "registration.streams", "Streams", base.DEC, media)
local gimbal_target = field(u8, "gimbal.target", "Target")
local wrong_length = ProtoExpert.new("quillorbeacon.length.wrong", "the length is not that of the payload",
    expert.group.MALFORMED, expert.severity.WARN)
local no_constant = ProtoExpert.new("quillorbeacon.constant.wrong", "the constant is not 1",
    expert.group.PROTOCOL, expert.severity.NOTE)
beacon.experts = { wrong_length, no_constant }

-- Rows of a table: the field, its size and, for signed numbers, how it is added.
local function table_of(prefix, rows)
    for _, row in ipairs(rows) do
        row.field = field(row[1], prefix .. "." .. row[2], row[3], table.unpack(row, 5))
        row.size = row[4]
    end
    return rows
end

local i8, i16, text = ProtoField.int8, ProtoField.int16, ProtoField.string

local gimbal = table_of("gimbal", {
    { i16, "pan", "Pan", 2 }, { i16, "tilt", "Tilt", 2 }, { i16, "roll", "Roll", 2 },
})

local info = table_of("info", {
    { u8, "app_type", "Application type", 1 }, { u8, "reserved", "Reserved", 1 },
    { u8, "client_count", "Clients", 1 }, { text, "name", "Name", 40 },
})

local status = table_of("status", {
    { u8, "app_type", "Application type", 1 }, { u8, "reserved", "Reserved", 1 },
    { u8, "client_count", "Clients", 1 }, { u8, "network_flags", "Network", 1, base.HEX },
    { u8, "source_present", "Source present", 1 },
    { u8, "service_flags", "Services", 1, base.HEX },
    { u32, "rtmp_number", "RTMP number", 4 }, { u32, "recorder_number", "Recorder number", 4 },
    { u8, "rc1_state_byte", "Receiver 1", 1, base.DEC, receiver_states },
    { u8, "rc2_state_byte", "Receiver 2", 1, base.DEC, receiver_states },
    { u8, "osd", "On-screen display", 1 }, { i8, "temperature", "Temperature (Celsius)", 1 },
    { ProtoField.bytes, "version", "Version", 3 },
    { u8, "storage_place", "Storage", 1, base.DEC, places },
    { u32, "storage_free", "Free space (MB)", 4 }, { u32, "srt_seconds", "SRT seconds", 4 },
    { u32, "rtsp_number", "RTSP number", 4 },
    { u8, "movement_running", "Movement running", 1 }, { u8, "movement_index", "Movement", 1 },
    { u8, "movement_count", "Movements", 1 }, { u8, "movement_nearest", "Nearest movement", 1 },
    { u8, "data_present", "Data present", 1 }, { u8, "video_present", "Video present", 1 },
})

local function flags_of(name, labels)
    local made = {}
    for i, label in ipairs(labels) do
        made[i] = field(ProtoField.bool, name .. "." .. label:gsub("[^a-z0-9]+", "_"), label, 8, nil,
            2 ^ (i - 1))
    end
    return made
end

local flags = {
    network_flags = flags_of("status.network",
        { "access point", "wifi", "camera" }),
    service_flags = flags_of("status.service", { "recording", "udp", "rtmp", "srt", "rtsp" }),
}

local piece = table_of("file", {
    { u16, "length", "Bytes of data", 2 }, { u32, "offset", "Offset", 4 },
    { u32, "full_size", "Size of the file", 4 },
})
local piece_data = field(ProtoField.bytes, "file.data", "Data")

local screenshot = table_of("screenshot", { { u16, "size", "Bytes of the picture", 2 } })
local menu_code = field(u8, "menu.code", "Code")

beacon.fields = fields

-- Adds the rows that are there to the tree; where they end in the buffer.
local function add_rows(tree, rows, buffer, at)
    for _, row in ipairs(rows) do
        if at + row.size > buffer:len() then
            tree:add_proto_expert_info(wrong_length, "shorter than its table")
            return buffer:len()
        end
        local item = tree:add_le(row.field, buffer(at, row.size))
        for _, flag in ipairs(flags[row[2]] or {}) do
            item:add(flag, buffer(at, row.size))
        end
        at = at + row.size
    end
    return at
end

local function show_request(buffer, tree)
    local kind = buffer(0, 1):uint()
    tree:add(request, buffer(0, 1))
    if kind == 0x02 and buffer:len() > 1 then
        tree:add(streams_wanted, buffer(1, 1))
    elseif kind == 0x05 and buffer:len() > 1 then
        tree:add(gimbal_target, buffer(1, 1))
        if buffer(1, 1):uint() == 0 then
            add_rows(tree, gimbal, buffer, 2)
        end
    elseif kind == 0x7b or kind == 0x21 then
        tree:add(json, buffer())
        return requests[kind] .. " " .. buffer():string()
    end
    return requests[kind] or "unknown request"
end

local function show_data(buffer, tree)
    local kind = buffer(0, 1):uint()
    if not replies[kind] then
        tree:add(payload, buffer())
        return "telemetry"
    end
    tree:add(reply, buffer(0, 1))
    if kind == 1 then
        add_rows(tree, info, buffer, 1)
    elseif kind == 4 then
        add_rows(tree, status, buffer, 1)
    elseif kind == 8 and buffer:len() > 1 then
        tree:add(menu_code, buffer(1, 1))
    elseif kind == 10 then
        local at = add_rows(tree, screenshot, buffer, 1)
        if at < buffer:len() then
            tree:add(payload, buffer(at))
        end
    elseif kind == 0x7b then
        tree:add(json, buffer())
    end
    return replies[kind]
end

local function show_piece(buffer, tree)
    local at = add_rows(tree, piece, buffer, 0)
    if at < buffer:len() then
        tree:add(piece_data, buffer(at))
    end
    if buffer:len() < 10 then
        return streams[4]
    end
    return string.format("file piece, %d bytes at %d of %d", buffer(0, 2):le_uint(),
        buffer(2, 4):le_uint(), buffer(6, 4):le_uint())
end

local function show_payload(buffer, tree, kind, to_daemon)
    if to_daemon then
        return show_request(buffer, tree)
    elseif kind == 0 then
        return show_data(buffer, tree)
    elseif kind == 4 then
        return show_piece(buffer, tree)
    end
    tree:add(payload, buffer())
    return string.format("%s, %d bytes", streams[kind] or "unknown stream", buffer:len())
end

function beacon.dissector(buffer, packet, root)
    if buffer:len() < header_size or buffer(0, 1):string() ~= "R" then
        return 0
    end
    packet.cols.protocol = "quillorbeacon"
    local tree = root:add(beacon, buffer())
    tree:add(magic, buffer(0, 1))
    tree:add(stream, buffer(1, 1))
    local size = tree:add_le(length, buffer(2, 2))
    tree:add_le(sequence, buffer(4, 4))
    local one = tree:add_le(constant, buffer(8, 4))
    local rest = buffer:len() - header_size
    if buffer(2, 2):le_uint() ~= rest then
        size:add_proto_expert_info(wrong_length)
    end
    if buffer(8, 4):le_uint() ~= 1 then
        one:add_proto_expert_info(no_constant)
    end
    local what = "no payload"
    if rest > 0 then
        what = show_payload(buffer(header_size):tvb(), tree, buffer(1, 1):uint(),
            packet.dst_port == port)
    end
    packet.cols.info = what
    return buffer:len()
end

DissectorTable.get("udp.port"):add(port, beacon)
