-- Shows the datagrams of the UDP interface (include/dm_udp.h), and in them the messages of the
-- sample daemon (examples/dmond/dmond_protocol.h), in Wireshark and tshark 4.0 or later.
--
-- Try it with "tshark -X lua_script:velmar_sastox.lua", or copy it to the folder that Wireshark
-- calls "Personal Lua Plugins" (Help, About, Folders).
--
-- Well-formed datagrams are found on any port, and with the first one all that its two endpoints
-- exchange. Give ports in the preferences, or use "Decode As", to see malformed ones elsewhere.

local DATAGRAM_LEN = 4138
local MAX_DATA_LEN = 4096
local DATA_OFFSET = 42
local REQUEST, RESPONSE = 0, 1

local COMMANDS = { [1] = "ping", [2] = "info", [3] = "health", [4] = "stats", [5] = "tasks" }
local PING = 1
local STATUSES = {
    [0] = "ok",
    [1] = "unknown_command",
    [2] = "short_message",
    [3] = "length_mismatch",
    [4] = "too_large",
    [5] = "internal_error",
}
local OK = 0
local MESSAGE_HEADER_LEN = 12

local dm_udp = Proto("dm_udp", "Device-Monitoring Datagram")
local dmond = Proto("dmond", "Device-Monitor Daemon Message")

local types = { [REQUEST] = "request", [RESPONSE] = "response" }
local f = {
    src_port = ProtoField.uint16("dm_udp.src_port", "Source port"),
    dst_port = ProtoField.uint16("dm_udp.dst_port", "Destination port"),
    reserved1 = ProtoField.uint16("dm_udp.reserved1", "Reserved"),
    marker = ProtoField.uint16("dm_udp.marker", "Marker"),
    data_len = ProtoField.uint16("dm_udp.data_len", "Data length"),
    type = ProtoField.uint32("dm_udp.type", "Type", base.DEC, types),
    peer_id = ProtoField.uint32("dm_udp.peer_id", "Peer id"),
    req_id = ProtoField.uint64("dm_udp.req_id", "Request identity", base.HEX),
    reserved2 = ProtoField.bytes("dm_udp.reserved2", "Reserved"),
    data = ProtoField.bytes("dm_udp.data", "Data"),
    response_in = ProtoField.framenum("dm_udp.response_in", "Response in", base.NONE,
        frametype.RESPONSE),
    request_in = ProtoField.framenum("dm_udp.request_in", "Request in", base.NONE,
        frametype.REQUEST),
    retransmission_of = ProtoField.framenum("dm_udp.retransmission_of", "Retransmission of",
        base.NONE, frametype.RETRANS_PREV),
    response_time = ProtoField.relative_time("dm_udp.response_time", "Response time",
        "Since the request was sent for the first time"),
}
dm_udp.fields = f

-- The words in front of the data, in the order of their offsets.
local words = {
    { f.src_port, 0, 2 },
    { f.dst_port, 2, 2 },
    { f.reserved1, 4, 2 },
    { f.marker, 6, 2 },
    { f.data_len, 8, 2 },
    { f.type, 10, 4 },
    { f.peer_id, 14, 4 },
    { f.req_id, 18, 8 },
    { f.reserved2, 26, 16 },
}

local function malformed(name, text)
    return ProtoExpert.new(name, text, expert.group.MALFORMED, expert.severity.ERROR)
end
local function note(name, text)
    return ProtoExpert.new(name, text, expert.group.SEQUENCE, expert.severity.NOTE)
end
local e = {
    length = malformed("dm_udp.bad_length", "A datagram has 4138 bytes"),
    marker = malformed("dm_udp.bad_marker", "The marker is not 1"),
    reserved = malformed("dm_udp.bad_reserved", "A reserved word is not 0"),
    data_len = malformed("dm_udp.bad_data_len", "More than 4096 bytes of data are announced"),
    type = malformed("dm_udp.bad_type", "The type is neither request nor response"),
    retransmission = note("dm_udp.retransmission", "The request is sent again"),
    answered_before = note("dm_udp.answered_before", "The request has been answered before"),
    unasked = note("dm_udp.unasked", "The request of this response is not in the capture"),
}
dm_udp.experts = e

local m = {
    command = ProtoField.uint32("dmond.command", "Command", base.DEC, COMMANDS),
    status = ProtoField.uint32("dmond.status", "Status", base.DEC, STATUSES),
    sequence = ProtoField.uint32("dmond.sequence", "Sequence"),
    body_len = ProtoField.uint32("dmond.body_len", "Body length"),
    body = ProtoField.bytes("dmond.body", "Body"),
}
dmond.fields = m
local body_len_differs = malformed("dmond.bad_body_len", "The body has another length")
dmond.experts = { body_len_differs }

dm_udp.prefs.little_endian = Pref.bool("Senders are little-endian", true,
    "Numbers are in the sender's byte order")
dm_udp.prefs.ports = Pref.range("UDP ports", "", "Ports whose datagrams are always shown", 65535)

local function number(range)
    return dm_udp.prefs.little_endian and range:le_uint() or range:uint()
end

local function add_number(tree, field, range)
    return dm_udp.prefs.little_endian and tree:add_le(field, range) or tree:add(field, range)
end

-- An exchange is a request, with the time when it was first sent, and the response to it. Here are
-- the newest one of each identity, and the one that a frame is part of.
local newest = {}
local exchange_of = {}

function dm_udp.init()
    newest = {}
    exchange_of = {}
end

local function exchange_key(from, from_port, to, to_port, req_id)
    return string.format("%s:%d %s:%d %s", from, from_port, to, to_port, req_id)
end

-- An identity is used anew once its request is answered, so only an open exchange makes a request
-- with the same identity a retransmission.
local function note_request(pinfo, req_id, command)
    local key = exchange_key(pinfo.src, pinfo.src_port, pinfo.dst, pinfo.dst_port, req_id)
    local exchange = newest[key]
    if not exchange or exchange.response then
        exchange = { request = pinfo.number, sent = pinfo.rel_ts, command = command }
        newest[key] = exchange
    end
    exchange_of[pinfo.number] = exchange
end

local function note_response(pinfo, req_id)
    local key = exchange_key(pinfo.dst, pinfo.dst_port, pinfo.src, pinfo.src_port, req_id)
    local exchange = newest[key]
    if exchange and not exchange.response then
        exchange.response = pinfo.number
        exchange.taken = pinfo.rel_ts - exchange.sent
    end
    exchange_of[pinfo.number] = exchange
end

local function show_request_links(tree, pinfo, exchange)
    if exchange.request ~= pinfo.number then
        tree:add(f.retransmission_of, exchange.request):set_generated()
        tree:add_proto_expert_info(e.retransmission)
    end
    if exchange.response then
        tree:add(f.response_in, exchange.response):set_generated()
    end
end

local function show_response_links(tree, pinfo, exchange)
    if not exchange then
        tree:add_proto_expert_info(e.unasked)
        return
    end
    tree:add(f.request_in, exchange.request):set_generated()
    if exchange.response ~= pinfo.number then
        tree:add_proto_expert_info(e.answered_before)
        return
    end
    -- A response may be stamped before its request: both parts of a time have its sign.
    local nanoseconds = math.floor(exchange.taken * 1e9 + 0.5)
    local seconds = math.modf(nanoseconds / 1e9)
    tree:add(f.response_time, NSTime.new(seconds, nanoseconds - seconds * 1e9)):set_generated()
end

-- A daemon's own messages need not be those of dmond: the announced length must fit, or the command
-- be known.
local function is_message(data, type)
    if data:len() < MESSAGE_HEADER_LEN then
        return false
    end
    return number(data:range(8, 4)) == data:len() - MESSAGE_HEADER_LEN
        or (type == REQUEST and COMMANDS[number(data:range(0, 4))] ~= nil)
end

-- The body of a ping is whatever its sender likes, that of any other response is JSON text.
local function has_json(type, code, exchange, body)
    if type == REQUEST then
        return false
    end
    if code ~= OK then
        return true
    end
    if exchange and exchange.command then
        return exchange.command ~= PING
    end
    return body:range(0, 1):string() == "{"
end

local function show_message(data, pinfo, root, type, exchange)
    local tree = root:add(dmond, data:range())
    local code = number(data:range(0, 4))
    local sequence = number(data:range(4, 4))
    local names = type == REQUEST and COMMANDS or STATUSES
    add_number(tree, type == REQUEST and m.command or m.status, data:range(0, 4))
    add_number(tree, m.sequence, data:range(4, 4))
    local announced = add_number(tree, m.body_len, data:range(8, 4))
    local body_len = data:len() - MESSAGE_HEADER_LEN
    if number(data:range(8, 4)) ~= body_len then
        announced:add_proto_expert_info(body_len_differs)
    end
    if body_len > 0 then
        local body = data:range(MESSAGE_HEADER_LEN):tvb()
        tree:add(m.body, body:range())
        if has_json(type, code, exchange, body) then
            Dissector.get("json"):call(body, pinfo, root)
        end
    end
    pinfo.cols.protocol = "dmond"
    return string.format("%s seq=%d", names[code] or "unknown (" .. code .. ")", sequence)
end

local function add_words(tree, datagram)
    local items = {}
    for _, word in ipairs(words) do
        local field, offset, len = table.unpack(word)
        if offset + len > datagram:len() then
            break
        end
        items[field] = add_number(tree, field, datagram:range(offset, len))
    end
    return items
end

-- Receivers drop other datagrams.
local function is_taken(datagram)
    return number(datagram:range(4, 2)) == 0 and number(datagram:range(6, 2)) == 1
end

local function mark_words(datagram, items, type)
    if number(datagram:range(4, 2)) ~= 0 then
        items[f.reserved1]:add_proto_expert_info(e.reserved)
    end
    if number(datagram:range(6, 2)) ~= 1 then
        items[f.marker]:add_proto_expert_info(e.marker)
    end
    if number(datagram:range(8, 2)) > MAX_DATA_LEN then
        items[f.data_len]:add_proto_expert_info(e.data_len)
    end
    if not types[type] then
        items[f.type]:add_proto_expert_info(e.type)
    end
    if datagram:range(26, 16):bytes() ~= ByteArray.new(string.rep("00", 16)) then
        items[f.reserved2]:add_proto_expert_info(e.reserved)
    end
end

-- The data, nothing when there is none, and whether all that is announced is there.
local function data_of(datagram)
    local announced = number(datagram:range(8, 2))
    local len = math.min(announced, MAX_DATA_LEN, datagram:len() - DATA_OFFSET)
    if len <= 0 then
        return nil, false
    end
    return datagram:range(DATA_OFFSET, len):tvb(), len == announced
end

local function note_exchange(datagram, pinfo, type, command)
    local req_id = datagram:range(18, 8):bytes():tohex()
    if type == REQUEST then
        note_request(pinfo, req_id, command)
    elseif type == RESPONSE then
        note_response(pinfo, req_id)
    end
end

local function show_links(tree, pinfo, type, exchange)
    if type == REQUEST then
        show_request_links(tree, pinfo, exchange)
    elseif type == RESPONSE then
        show_response_links(tree, pinfo, exchange)
    end
end

function dm_udp.dissector(datagram, pinfo, root)
    local has_length = datagram:reported_len() == DATAGRAM_LEN
    local quoted = pinfo.in_error_pkt -- the first bytes of a datagram that ICMP tells of
    pinfo.cols.protocol = "dm_udp"
    pinfo.cols.info = has_length and "not captured" or "malformed"
    local tree = root:add(dm_udp, datagram:range())
    local items = add_words(tree, datagram)
    if not has_length and not quoted then
        tree:add_proto_expert_info(e.length)
    end
    if datagram:len() < DATA_OFFSET then
        return datagram:len()
    end

    local type = number(datagram:range(10, 4))
    mark_words(datagram, items, type)
    local data, whole = data_of(datagram)
    if data then
        tree:add(f.data, data:range())
    end
    local has_message = whole and is_message(data, type)
    if is_taken(datagram) and not quoted then
        if not pinfo.visited then
            note_exchange(datagram, pinfo, type, has_message and number(data:range(0, 4)) or nil)
        end
        show_links(tree, pinfo, type, exchange_of[pinfo.number])
    end

    local info = is_taken(datagram) and types[type] or "malformed"
    if has_message then
        local exchange = exchange_of[pinfo.number]
        info = info .. " " .. show_message(data, pinfo, root, type, exchange)
    end
    pinfo.cols.info = info
    return datagram:len()
end

local function looks_like_datagram(datagram, pinfo, root)
    if datagram:reported_len() ~= DATAGRAM_LEN or datagram:len() < DATA_OFFSET
        or not is_taken(datagram) then
        return false
    end
    pinfo.conversation = dm_udp
    dm_udp.dissector(datagram, pinfo, root)
    return true
end

local udp_port = DissectorTable.get("udp.port")
local registered_ports = ""

function dm_udp.prefs_changed()
    if registered_ports == dm_udp.prefs.ports then
        return
    end
    if registered_ports ~= "" then
        udp_port:remove(registered_ports, dm_udp)
    end
    registered_ports = dm_udp.prefs.ports
    if registered_ports ~= "" then
        udp_port:add(registered_ports, dm_udp)
    end
end

udp_port:add_for_decode_as(dm_udp)
dm_udp:register_heuristic("udp", looks_like_datagram)
