-- Wireshark dissector for captures of libkivhal_common's sensor-core channel
-- (persist.vendor.debug.kiv.capture): the packet framing on LINKTYPE_USER0
-- (one interface per connection), the sensorstore records on LINKTYPE_USER1,
-- and why the library dropped a packet. Protobuf payloads go to Wireshark's
-- own protobuf dissector; give it the repository's proto/ folder as an
-- absolute path (Wireshark does not resolve a relative one against the
-- working directory), from the repository's top:
--
--   wireshark -X lua_script:tools/wireshark/kivhal_channel.lua \
--     -o "uat:protobuf_search_paths:\"$PWD/proto\",\"TRUE\"" capture.pcapng
--
-- Without it every payload is marked "protobuf type ... not found".
-- Timestamps are the boot clock; the interfaces' if_tsoffset shows them as
-- dates (to the second; each interface's comment has the exact offset).

local channel = Proto("kivhal", "Sensor-core channel")
local store = Proto("kivhal_store", "Sensorstore record")

local msg_names = {
    [0x20] = "SNS_AON_CLIENT_RESP_V01",
    [0x21] = "SNS_AON_CLIENT_REPORT_IND_V01",
    [0x22] = "SNS_AON_CLIENT_JUMBO_REPORT_IND_V01",
    [0x24] = "SNS_AON_CLIENT_INFO_RESP_V01",
    [0x31] = "SNS_AON_CLIENT_LOW_PWR_STATE_IND_V01",
}
local lps_names = {
    [0] = "SNS_LOW_POWER_STATE_OFF",
    [1] = "SNS_LOW_POWER_STATE_ON",
    [2] = "SNS_LOW_POWER_WRITE_INFO",
}
-- Event and request message ids whose payload has a known message type.
local event_types = { [768] = "sns_suid_event", [128] = "sns_std_attr_event" }
local LOOKUP_REQUEST, DISABLE_REQUEST = 512, 10
local LOOKUP_SUID_HALF = "ABABABABABABABAB"

-- Why the library dropped a packet: bits 16-23 of epb_flags.
local reasons = {
    [1] = "length field past the packet buffer",
    [2] = "shorter than its length field",
    [3] = "report shorter than its head",
    [4] = "report payload runs past the bytes read",
    [5] = "unknown message id",
    [6] = "not sent: the channel write failed",
}

local f = {
    drop_reason = ProtoField.uint8("kivhal.drop_reason", "Dropped by the library", base.DEC, reasons),
    msg_id = ProtoField.uint16("kivhal.msg_id", "Message id", base.HEX, msg_names),
    reserved = ProtoField.uint16("kivhal.reserved", "Reserved"),
    pkt_len = ProtoField.uint16("kivhal.pkt_len", "Packet length"),
    session_id = ProtoField.uint8("kivhal.session_id", "Session id"),
    client_req_id = ProtoField.uint8("kivhal.client_req_id", "Client request id"),
    flag = ProtoField.uint8("kivhal.flag", "Flag"),
    payload_len = ProtoField.uint32("kivhal.payload_len", "Payload length"),
    client_id_valid = ProtoField.uint8("kivhal.client_id_valid", "Client id valid"),
    client_id = ProtoField.uint64("kivhal.client_id", "Client id"),
    result_valid = ProtoField.uint8("kivhal.result_valid", "Result valid"),
    result = ProtoField.uint32("kivhal.result", "Result"),
    lps_msg_id = ProtoField.uint8("kivhal.lps_msg_id", "Low-power message id", base.DEC, lps_names),
    lps_session_id = ProtoField.uint8("kivhal.lps_session_id", "Low-power session id"),
    total_byte_count = ProtoField.uint32("kivhal.total_byte_count", "Total byte count"),
    shmem_byte_count = ProtoField.uint16("kivhal.shmem_byte_count", "Shared-memory byte count"),
    write_info_error = ProtoField.uint16("kivhal.write_info_error", "Write-info error"),
    event_msg_id = ProtoField.uint32("kivhal.event_msg_id", "Event message id"),
}
channel.fields = f
local s = {
    channel_hash = ProtoField.uint32("kivhal_store.channel_hash", "Channel hash"),
    data_len = ProtoField.uint32("kivhal_store.data_len", "Header data_len"),
    reset_data_len = ProtoField.uint32("kivhal_store.reset_data_len", "Header reset_data_len"),
}
store.fields = s

local direction_field = Field.new("frame.packet_flags_direction")
local flags_field = Field.new("frame.packet_flags")
local message_name_field = Field.new("protobuf.message.name")
local OUTBOUND = 2
local WRITE_FAILED = 6

local protobuf = Dissector.get("protobuf")
-- The Info text of the packet being dissected; the protobuf dissector writes
-- to the column too, so it is set once at the end.
local info = {}

-- The protobuf dissector names a message it has no definition of so.
local function type_not_found()
    for _, name in ipairs({ message_name_field() }) do
        if tostring(name.value) == "<UNKNOWN> Message Type" then return true end
    end
    return false
end

local function protobuf_message(tvb, pinfo, tree, message_type)
    if tvb:len() == 0 then return end
    pinfo.private["pb_msg_type"] = "message," .. message_type
    -- A payload that is no such message is marked there; the framing and
    -- the rest of the packet are still shown.
    if not pcall(protobuf.call, protobuf, tvb:tvb(), pinfo, tree) then
        tree:add_expert_info(PI_MALFORMED, PI_WARN, "not a valid " .. message_type)
    elseif type_not_found() then
        -- The type was not found: the proto path does not resolve.
        tree:add_expert_info(PI_UNDECODED, PI_WARN, "protobuf type " .. message_type ..
            " not found: set protobuf_search_paths to the absolute path of the repository's proto/")
    end
end

-- Protobuf fields of one message, to find the nested byte payloads.
local function varint(tvb, pos, stop)
    local value, scale = 0, 1
    while pos < stop do
        local byte = tvb(pos, 1):uint()
        value = value + (byte % 128) * scale
        pos = pos + 1
        if byte < 128 then return value, pos end
        scale = scale * 128
    end
    return nil, pos
end

local function pb_fields(tvb, offset, len)
    local fields, pos, stop = {}, offset, offset + len
    while pos < stop do
        local key
        key, pos = varint(tvb, pos, stop)
        if not key then break end
        local number, wire, field = math.floor(key / 8), key % 8, nil
        if wire == 0 then
            local value
            value, pos = varint(tvb, pos, stop)
            if not value then break end
            field = { value = value }
        elseif wire == 1 or wire == 5 then
            local size = wire == 1 and 8 or 4
            if pos + size > stop then break end
            field = { offset = pos, len = size, value = size == 4 and tvb(pos, 4):le_uint() or nil }
            pos = pos + size
        elseif wire == 2 then
            local size
            size, pos = varint(tvb, pos, stop)
            if not size or pos + size > stop then break end
            field = { offset = pos, len = size }
            pos = pos + size
        else
            break
        end
        field.number = number
        fields[#fields + 1] = field
    end
    return fields
end

local function first(fields, number)
    for _, field in ipairs(fields) do
        if field.number == number then return field end
    end
end

local function is_lookup_suid(tvb, suid)
    if not suid or not suid.offset then return false end
    local halves = pb_fields(tvb, suid.offset, suid.len)
    local low, high = first(halves, 1), first(halves, 2)
    return low and high and low.len == 8 and high.len == 8 and
        tvb(low.offset, 8):bytes():tohex() == LOOKUP_SUID_HALF and
        tvb(high.offset, 8):bytes():tohex() == LOOKUP_SUID_HALF
end

local function request(tvb, pinfo, tree)
    tree:add_le(f.session_id, tvb(6, 1))
    tree:add_le(f.client_req_id, tvb(7, 1))
    tree:add_le(f.flag, tvb(8, 1))
    tree:add_le(f.payload_len, tvb(9, 4))
    local len = math.min(tvb(9, 4):le_uint(), tvb:len() - 13)
    protobuf_message(tvb(13, len), pinfo, tree, "sns_client_request_msg")
    local envelope = pb_fields(tvb, 13, len)
    local msg_id, inner = first(envelope, 2), first(envelope, 4)
    local id = msg_id and msg_id.value or 0
    info[#info + 1] = string.format("msg_id %d", id)
    if not inner then return end
    local payload = first(pb_fields(tvb, inner.offset, inner.len), 1)
    if not payload or not payload.offset then return end
    local lookup = (id == LOOKUP_REQUEST or id == DISABLE_REQUEST) and is_lookup_suid(tvb, first(envelope, 1))
    local message_type = lookup and "sns_suid_req" or "sns_std_attr_req"
    local sub = tree:add(tvb(payload.offset, payload.len), "Request payload (" .. message_type .. ")")
    protobuf_message(tvb(payload.offset, payload.len), pinfo, sub, message_type)
end

local function response(tvb, tree)
    tree:add_le(f.client_id_valid, tvb(10, 1))
    tree:add_le(f.client_id, tvb(11, 8))
    tree:add_le(f.result_valid, tvb(20, 1))
    tree:add_le(f.result, tvb(21, 4))
end

local function report(tvb, pinfo, tree)
    tree:add_le(f.payload_len, tvb(15, 4))
    local len = math.min(tvb(15, 4):le_uint(), tvb:len() - 19)
    protobuf_message(tvb(19, len), pinfo, tree, "sns_client_event_msg")
    for _, event in ipairs(pb_fields(tvb, 19, len)) do
        if event.number == 2 and event.offset then
            local parts = pb_fields(tvb, event.offset, event.len)
            local msg_id, payload = first(parts, 1), first(parts, 3)
            local message_type = msg_id and event_types[msg_id.value]
            if msg_id then
                tree:add_le(f.event_msg_id, tvb(msg_id.offset, 4))
                info[#info + 1] = string.format("event %d", msg_id.value)
            end
            if message_type and payload and payload.offset then
                local sub = tree:add(tvb(payload.offset, payload.len), "Event payload (" .. message_type .. ")")
                protobuf_message(tvb(payload.offset, payload.len), pinfo, sub, message_type)
            end
        end
    end
end

local function low_power(tvb, pinfo, tree)
    tree:add_le(f.lps_msg_id, tvb(6, 1))
    tree:add_le(f.lps_session_id, tvb(7, 1))
    info[#info + 1] = lps_names[tvb(6, 1):uint()] or "unknown"
    if tvb:len() >= 16 then
        tree:add_le(f.total_byte_count, tvb(8, 4))
        tree:add_le(f.shmem_byte_count, tvb(12, 2))
        tree:add_le(f.write_info_error, tvb(14, 2))
    end
end

-- One channel packet; `outbound` packets are the library's requests.
local function dissect_packet(tvb, pinfo, root, outbound)
    if tvb:len() < 6 then return end
    local tree = root:add(channel, tvb())
    local id = tvb(0, 2):le_uint()
    tree:add_le(f.msg_id, tvb(0, 2))
    tree:add_le(f.reserved, tvb(2, 2))
    tree:add_le(f.pkt_len, tvb(4, 2))
    local name = outbound and "SNS_AON_CLIENT_REQ_V01" or (msg_names[id] or "invalid")
    info[#info + 1] = string.format("%s 0x%02x %s", outbound and "->" or "<-", id, name)
    if outbound then
        if id == 0x20 and tvb:len() >= 13 then request(tvb, pinfo, tree) end
    elseif id == 0x20 and tvb:len() >= 25 then
        response(tvb, tree)
    elseif (id == 0x21 or id == 0x22) and tvb:len() >= 19 then
        report(tvb, pinfo, tree)
    elseif id == 0x31 and tvb:len() >= 8 then
        low_power(tvb, pinfo, tree)
    end
end

function channel.dissector(tvb, pinfo, root)
    info = {}
    local direction = direction_field()
    local flags = flags_field()
    local reason = flags and math.floor(flags.value / 65536) % 256 or 0
    dissect_packet(tvb, pinfo, root, direction and direction.value == OUTBOUND)
    if reason ~= 0 then
        local item = root:add(f.drop_reason, reason)
        item:set_generated()
        item:add_expert_info(PI_MALFORMED, PI_WARN, reasons[reason] or "dropped")
        local text = reasons[reason] or "unknown reason"
        info[#info + 1] = reason == WRITE_FAILED and "[" .. text .. "]" or "[dropped: " .. text .. "]"
    end
    pinfo.cols.protocol = "KIVHAL"
    pinfo.cols.info:set(table.concat(info, " "))
end

function store.dissector(tvb, pinfo, root)
    info = { "stored" }
    local tree = root:add(store, tvb())
    if tvb:len() == 8 then
        tree:add_le(s.data_len, tvb(0, 4))
        tree:add_le(s.reset_data_len, tvb(4, 4))
        info = { "sensorstore header" }
    elseif tvb:len() >= 4 then
        tree:add_le(s.channel_hash, tvb(0, 4))
        dissect_packet(tvb(4):tvb(), pinfo, root, false)
    end
    pinfo.cols.protocol = "KIVHAL-STORE"
    pinfo.cols.info:set(table.concat(info, " "))
end

local encaps = wtap_encaps or wtap
local encap_table = DissectorTable.get("wtap_encap")
encap_table:add(encaps.USER0, channel)
encap_table:add(encaps.USER1, store)
