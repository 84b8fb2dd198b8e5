-- CSTP, the protocol between the tunnel client and its gateway: frames inside TLS application data. See cstp(7).
--
-- Install as a plugin (Help, About, Folders: "Personal Lua Plugins"), or: tshark -X lua_script:cstp.lua -r FILE
-- Wireshark needs the session's key: preference tls.psk (the key's bytes as hexadecimal digits), or for DHE and ECDHE
-- suites tls.keylog_file, which the gateway writes (--keylog). Frames are recognised by their first bytes; with the
-- preference cstp.tls_port everything on that port is taken for CSTP, malformed or not.
--
-- Contents: 1 fields  2 expert items  3 header lines  4 one frame  5 one record  6 registration

local cstp = Proto("cstp", "CSTP tunnel")

local header_size = 8
local longest_read = 1500    -- the client's one read for a frame, header included
local longest_packet = 1436  -- what the client takes for the TUN interface

local DATA, REQUEST, RESPONSE, DPD_REQUEST, DPD_RESPONSE = 0, 1, 2, 3, 4
local type_names = {
    [DATA] = "Data",
    [REQUEST] = "Configuration request",
    [RESPONSE] = "Configuration response",
    [DPD_REQUEST] = "DPD request",
    [DPD_RESPONSE] = "DPD response",
}
local to_gateway, to_client = "to the gateway", "to the client"
local direction_of = { [REQUEST] = to_gateway, [RESPONSE] = to_client, [DPD_REQUEST] = to_gateway, [DPD_RESPONSE] = to_client }

-- 1 Fields ------------------------------------------------------------------------------------------------------------

local field = {
    magic = ProtoField.string("cstp.magic", "Magic"),
    version = ProtoField.uint8("cstp.version", "Version"),
    length = ProtoField.uint16("cstp.length", "Payload length"),
    type = ProtoField.uint8("cstp.type", "Type", base.DEC, type_names),
    reserved = ProtoField.uint8("cstp.reserved", "Reserved", base.HEX),
    payload = ProtoField.bytes("cstp.payload", "Payload"),
    stray = ProtoField.bytes("cstp.stray", "Bytes that begin no frame"),
    line = ProtoField.string("cstp.header", "Header"),
    name = ProtoField.string("cstp.header.name", "Name"),
    value = ProtoField.string("cstp.header.value", "Value"),
    direction = ProtoField.string("cstp.direction", "Direction"),
    ["X-CSTP-Address"] = ProtoField.ipv4("cstp.address", "Address"),
    ["X-CSTP-Address-Client"] = ProtoField.ipv4("cstp.address_client", "Inner address"),
    ["X-CSTP-DNS"] = ProtoField.ipv4("cstp.dns", "Name server"),
    ["X-CSTP-Prefix-Length"] = ProtoField.int32("cstp.prefix_length", "Prefix length"),
    ["X-CSTP-DPD"] = ProtoField.int32("cstp.dpd", "DPD interval (s)"),
    ["X-CSTP-Retry-Time"] = ProtoField.int32("cstp.retry_time", "Retry time (s)"),
    ["X-CSTP-Rekey-Time"] = ProtoField.int32("cstp.rekey_time", "Rekey time (s)"),
    ["X-CSTP-Cookie"] = ProtoField.string("cstp.cookie", "Cookie"),
    ["X-CSTP-Device-ID"] = ProtoField.string("cstp.device_id", "Device id"),
    ["X-CSTP-Device-Name"] = ProtoField.string("cstp.device_name", "Device name"),
    ["X-CSTP-Device-SerialNo"] = ProtoField.string("cstp.device_serial", "Serial number"),
}
cstp.fields = field

-- 2 Expert items ------------------------------------------------------------------------------------------------------

local experts = {}
local function finding(name, text, severity)
    experts[name] = ProtoExpert.new("cstp.expert." .. name, text, expert.group.MALFORMED, severity)
end
finding("magic", "No CSTP frame: the magic is not STF", expert.severity.ERROR)
finding("version", "Version is not 1", expert.severity.WARN)
finding("reserved", "Reserved byte is not 0", expert.severity.WARN)
finding("type", "Unknown type: the client drops it", expert.severity.ERROR)
finding("direction", "A type of the other direction", expert.severity.ERROR)
finding("dpd_payload", "DPD frames have no payload", expert.severity.WARN)
finding("too_long", "Longer than the client's one read of 1500 bytes", expert.severity.ERROR)
finding("packet_too_long", "Packet above 1436 bytes: the client drops it", expert.severity.ERROR)
finding("packet_empty", "Data frame without a packet", expert.severity.ERROR)
finding("packet", "Not an IP packet of the announced length", expert.severity.ERROR)
finding("split", "A frame in more than one TLS record: the client takes each part for a frame", expert.severity.ERROR)
finding("coalesced", "Another frame in the same TLS record: the client ignores all but the first", expert.severity.ERROR)
finding("line", "Header line without a colon", expert.severity.WARN)
finding("line_end", "Carriage return: an address with it is not accepted", expert.severity.WARN)
finding("address", "Not a dotted IPv4 address", expert.severity.ERROR)
finding("number", "Not a number", expert.severity.ERROR)
finding("no_inner", "No valid X-CSTP-Address-Client: the client rejects the response", expert.severity.ERROR)
finding("fatal_dpd", "A DPD interval of 0 to 4 ends the client", expert.severity.ERROR)
cstp.experts = experts

-- 3 Header lines ------------------------------------------------------------------------------------------------------

local addresses = { ["X-CSTP-Address"] = true, ["X-CSTP-Address-Client"] = true, ["X-CSTP-DNS"] = true }
local numbers = { ["X-CSTP-Prefix-Length"] = true, ["X-CSTP-DPD"] = true, ["X-CSTP-Retry-Time"] = true, ["X-CSTP-Rekey-Time"] = true }

local function is_address(text)
    local parts = { text:match("^(%d+)%.(%d+)%.(%d+)%.(%d+)$") }
    if #parts ~= 4 then return false end
    for _, part in ipairs(parts) do
        if tonumber(part) > 255 then return false end
    end
    return true
end

-- Adds one line; returns its name and whether its value is one that the client accepts.
local function add_line(range, text, tree)
    local item = tree:add(field.line, range, text)
    if text:find("\r", 1, true) then item:add_proto_expert_info(experts.line_end) end
    local name, value = text:match("^([^:]*):(.*)$")
    if not name then
        item:add_proto_expert_info(experts.line)
        return nil, false
    end
    item:add(field.name, range(0, #name), name)
    if #value > 0 then item:add(field.value, range(#name + 1, #value), value) end
    if addresses[name] then
        if not is_address(value) then
            item:add_proto_expert_info(experts.address)
            return name, false
        end
        item:add(field[name], range(#name + 1, #value), Address.ip(value))
    elseif numbers[name] then
        local number = tonumber(value:match("^%s*([+-]?%d+)"))
        if not number then
            item:add_proto_expert_info(experts.number)
            return name, false
        end
        item:add(field[name], range(#name + 1, #value), number)
        if name == "X-CSTP-DPD" and number >= 0 and number < 5 then item:add_proto_expert_info(experts.fatal_dpd) end
    elseif field[name] and name:find("^X%-CSTP%-") and #value > 0 then
        item:add(field[name], range(#name + 1, #value), value)
    end
    return name, true
end

-- The lines of a request or response; returns the inner address that is assigned, if there is one.
local function add_lines(payload, tree)
    local text, at, inner = payload:raw(), 1, nil
    while at <= #text do
        local stop = text:find("\n", at, true) or #text + 1
        if stop > at then
            local line = text:sub(at, stop - 1)
            local name, good = add_line(payload(at - 1, #line), line, tree)
            if name == "X-CSTP-Address-Client" and good then inner = inner or line:match(":(.*)$") end
        end
        at = stop + 1
    end
    return inner
end

-- 4 One frame ---------------------------------------------------------------------------------------------------------

-- Inner packets wait until the whole outer packet is through: what their dissectors leave behind (addresses, the kind
-- of the ports) would turn the direction of the next TLS record in it.
local inner_packets, inner_of = {}, nil
local function show_later(name, payload, pinfo)
    if inner_of ~= pinfo.number then inner_packets, inner_of = {}, pinfo.number end
    table.insert(inner_packets, { name = name, bytes = payload:bytes() })
end

local inner = Proto("cstp_inner", "CSTP inner packets")
function inner.dissector(_, pinfo, root)
    if inner_of ~= pinfo.number then return end
    for _, packet in ipairs(inner_packets) do
        Dissector.get(packet.name):call(packet.bytes:tvb("Inner packet"), pinfo, root)
    end
    inner_packets, inner_of = {}, nil
end
register_postdissector(inner)

local function add_packet(frame, pinfo, tree)
    if frame:len() == header_size then return tree:add_proto_expert_info(experts.packet_empty) end
    local payload = frame(header_size)
    if payload:len() > longest_packet then tree:add_proto_expert_info(experts.packet_too_long) end
    local version = payload(0, 1):bitfield(0, 4)
    if version == 4 and payload:len() >= 20 and payload(2, 2):uint() == payload:len() then
        show_later("ip", payload, pinfo)
    elseif version == 6 and payload:len() >= 40 and payload(4, 2):uint() + 40 == payload:len() then
        show_later("ipv6", payload, pinfo)
    else
        tree:add_proto_expert_info(experts.packet)
        tree:add(field.payload, payload)
    end
end

-- What direction the ports tell: with a port preference for certain, else by the lower port.
local function direction(pinfo)
    local port = cstp.prefs.tls_port
    if port ~= 0 and pinfo.dst_port == port then return to_gateway end
    if port ~= 0 and pinfo.src_port == port then return to_client end
    return pinfo.dst_port < pinfo.src_port and to_gateway or to_client
end

local function add_frame(range, pinfo, root, towards)
    local kind, length = range(6, 1):uint(), range(4, 2):uint()
    local name = type_names[kind] or string.format("Unknown type %d", kind)
    local tree = root:add(cstp, range, string.format("CSTP, %s, %d bytes", name, length))
    tree:add(field.magic, range(0, 3))
    local version = tree:add(field.version, range(3, 1))
    local size = tree:add(field.length, range(4, 2))
    local type_item = tree:add(field.type, range(6, 1))
    local reserved = tree:add(field.reserved, range(7, 1))
    tree:add(field.direction, towards):set_generated()

    if range(3, 1):uint() ~= 1 then version:add_proto_expert_info(experts.version) end
    if range(7, 1):uint() ~= 0 then reserved:add_proto_expert_info(experts.reserved) end
    if not type_names[kind] then type_item:add_proto_expert_info(experts.type) end
    if direction_of[kind] and direction_of[kind] ~= towards then type_item:add_proto_expert_info(experts.direction) end
    if header_size + length > longest_read then size:add_proto_expert_info(experts.too_long) end

    local note = name
    pinfo.cols.protocol:set("CSTP")
    if kind == DATA then
        add_packet(range, pinfo, tree)
        return tree
    end
    if length > 0 then
        local payload = range(header_size, length)
        if kind == REQUEST or kind == RESPONSE then
            local inner = add_lines(payload, tree)
            if inner then note = note .. ", inner address " .. inner end
            if kind == RESPONSE and not inner then tree:add_proto_expert_info(experts.no_inner) end
        else
            tree:add(field.payload, payload)
            if kind == DPD_REQUEST or kind == DPD_RESPONSE then tree:add_proto_expert_info(experts.dpd_payload) end
        end
    elseif kind == RESPONSE then
        tree:add_proto_expert_info(experts.no_inner)
    end
    pinfo.cols.info:append((tostring(pinfo.cols.info) ~= "" and ", " or "") .. note)
    return tree
end

-- 5 One record --------------------------------------------------------------------------------------------------------

-- Which packets hold the end of a frame that began in an earlier record, learnt in the first pass.
local waiting, spanning = {}, {}
function cstp.init() waiting, spanning = {}, {} end

local function stream_of(pinfo)
    return string.format("%s %d %s %d", tostring(pinfo.src), pinfo.src_port, tostring(pinfo.dst), pinfo.dst_port)
end

local function is_frame(tvb, at)
    return tvb:len() - at >= 3 and tvb(at, 3):string() == "STF"
end

function cstp.dissector(tvb, pinfo, root)
    local stream, towards, at, number = stream_of(pinfo), direction(pinfo), 0, 0
    pinfo.cols.info:clear()
    while at < tvb:len() do
        local left = tvb:len() - at
        if left >= 3 and not is_frame(tvb, at) then
            local tree = root:add(cstp, tvb(at), "CSTP, no frame")
            tree:add(field.stray, tvb(at)):add_proto_expert_info(experts.magic)
            pinfo.cols.protocol:set("CSTP")
            pinfo.cols.info:append("No CSTP frame")
            return tvb:len()
        end
        local size = left >= header_size and header_size + tvb(at + 4, 2):uint() or nil
        if not size or left < size then
            if not pinfo.visited then waiting[stream] = true end
            pinfo.desegment_offset = at
            pinfo.desegment_len = size and size - left or DESEGMENT_ONE_MORE_SEGMENT
            return tvb:len()
        end
        local tree = add_frame(tvb(at, size), pinfo, root, towards)
        if at == 0 and waiting[stream] and not pinfo.visited then spanning[pinfo.number], waiting[stream] = true, nil end
        if at == 0 and spanning[pinfo.number] then tree:add_proto_expert_info(experts.split) end
        number = number + 1
        if number > 1 then tree:add_proto_expert_info(experts.coalesced) end
        at = at + size
    end
    return tvb:len()
end

-- 6 Registration ------------------------------------------------------------------------------------------------------

cstp.prefs.tls_port = Pref.uint("TLS port", 0, "The gateway's port: all TLS data on it is CSTP (0: recognise frames by their first bytes)")

local taken = 0
function cstp.prefs_changed()
    local ports = DissectorTable.get("tls.port")
    if taken ~= 0 then ports:remove(taken, cstp) end
    taken = cstp.prefs.tls_port
    if taken ~= 0 then ports:add(taken, cstp) end
end

cstp:register_heuristic("tls", function(tvb, pinfo, root)
    if tvb:len() < header_size or not is_frame(tvb, 0) or tvb(3, 1):uint() ~= 1 then return false end
    cstp.dissector(tvb, pinfo, root)
    return true
end)
