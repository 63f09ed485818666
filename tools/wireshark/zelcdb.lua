-- Wireshark dissector for the Common Data Bus (zelcdb) and the Service Binary Protocol
-- carried in its service payloads (zelsbp), for Wireshark 4.0 and later.
--
--   tshark -X lua_script:tools/wireshark/zelcdb.lua -r session.pcap -Y zelsbp
--   or copy this file into the personal Lua plugins folder (Help > About > Folders).
--
-- Rules of this file: every read is checked against the bytes at hand first, and whatever the
-- library would refuse or log becomes expert info, never a Lua error. State that needs the
-- whole conversation (service names, which services speak SBP, request/response links) is
-- worked out on the first pass over the capture and stored per frame, so that later passes
-- (and the GUI clicking back and forth) show the same thing.

local cdb = Proto("zelcdb", "ZEL Common Data Bus")
local sbp = Proto("zelsbp", "ZEL Service Binary Protocol")

local kHeader = 4
local kMaxPayloadData = 8100 -- receivers discard a ServicePayload with more data than this
local kEndMarker = 0xB0

---------------------------------------------------------------------------------------------
-- Tables: message types, response codes, SBP commands, SBP results, SBP element types.

-- [type] = {name, bytes of fixed fields the receiver reads}
local kTypes = {
    [0xB101] = {"ServicesRequest", 2},
    [0xB102] = {"ServicesSupported", 4},
    [0xB103] = {"StartService", 4},
    [0xB104] = {"StopService", 2},
    [0xB105] = {"ServicePayload", 3},
    [0xB106] = {"PingResponse", 2},
    [0xB107] = {"ServiceResponse", 4},
    [0xB108] = {"Ping", 2},
    [0xB109] = {"ByeBye", 0},
}

-- Codes that a receiver accepts; anything else ends its session.
local kResponses = {
    [0x0001] = "0x0001", [0x0002] = "0x0002", [0x0010] = "ResponsePending", [0x0101] = "0x0101",
    [0x0102] = "NoSinkForService", [0x0201] = "StartTimeout", [0x0202] = "ServiceTerminationFailed",
    [0x0203] = "0x0203", [0x0204] = "0x0204", [0x0205] = "UnknownService",
    [0x0206] = "WrongAccessControl", [0x0207] = "0x0207", [0x0208] = "WrongSequenceNumber",
    [0x0209] = "WrongCDBVersionNumber", [0x020A] = "ServiceVersionMismatch",
    [0x020B] = "UnsupportedPayloadFormat",
}

-- [command] = {name, role}: a request goes from sink to source, an answer comes back.
local kCommands = {
    [0xB1] = {"Get", "request"},
    [0xB2] = {"Set", "request"},
    [0xB3] = {"Subscribe", "request"},
    [0xB4] = {"Cancel", "request"},
    [0xB5] = {"AliveRequest", "request"},
    [0xB6] = {"AliveResponse", "answer"},
    [0xB7] = {"ServiceAuthChallenge", "answer"},
    [0xB8] = {"ServiceAuthResponse", "auth"},
    [0xB9] = {"Response", "answer"},
}

local kResults = {
    [0x00000000] = "success",
    [0x10000000] = "in progress",
    [0x10000002] = "failed or not supported",
    [0x10000003] = "invalid subscription interval",
    [0x10000004] = "invalid subscription type",
    [0x10000006] = "update failed",
    [0x10000007] = "challenge not answered",
    [0x10000008] = "already pending",
    [0x10000009] = "nothing to cancel",
    [0x1000000A] = "no free packetId",
    [0x1000000B] = "cancelled",
    [0x1000000D] = "command not supported",
}
local kInProgress, kCancelled = 0x10000000, 0x1000000B

local kSubscriptionTypes = {[0] = "periodic", [1] = "on change", [2] = "either"}

-- [type byte] = {name, payload size or kind}. Scalar arrays may hold only the sized types
-- marked element = true (8-bit integers, byte arrays and strings are not allowed there).
local kElements = {
    [0x82] = {"boolean", 1, element = true},
    [0x83] = {"byte", 1},
    [0x84] = {"short", 2, element = true},
    [0x85] = {"int", 4, element = true},
    [0x86] = {"long", 8, element = true},
    [0x87] = {"float", 4, element = true},
    [0x88] = {"double", 8, element = true},
    [0x90] = {"bytes", "bytes"},
    [0x91] = {"string", "string"},
    [0xA0] = {"array", "array"},
    [0xA1] = {"structure", "structure"},
    [0xA2] = {"array of structures", "structures"},
}
local kStructEnd = 0x81
local kMaxDepth = 64

local function names_of(t)
    local out = {}
    for k, v in pairs(t) do out[k] = type(v) == "table" and v[1] or v end
    return out
end

---------------------------------------------------------------------------------------------
-- Fields

local f = {
    type = ProtoField.uint16("zelcdb.type", "Message type", base.HEX, names_of(kTypes)),
    length = ProtoField.uint16("zelcdb.length", "Payload length", base.DEC),
    version = ProtoField.string("zelcdb.version", "CDB version"),
    service_count = ProtoField.uint16("zelcdb.service_count", "Service count", base.DEC),
    service = ProtoField.none("zelcdb.service", "Service"),
    service_id = ProtoField.uint16("zelcdb.service_id", "Service ID", base.HEX),
    service_name = ProtoField.string("zelcdb.service_name", "Service name"),
    service_version = ProtoField.string("zelcdb.service_version", "Service version"),
    attribute = ProtoField.uint8("zelcdb.attribute", "Service attribute", base.HEX),
    access_control = ProtoField.uint8("zelcdb.access_control", "Access control", base.HEX),
    name_length = ProtoField.uint8("zelcdb.name_length", "Name length", base.DEC),
    sbp = ProtoField.bool("zelcdb.sbp", "Carries SBP"),
    response = ProtoField.uint16("zelcdb.response", "Response code", base.HEX, kResponses),
    sequence = ProtoField.uint16("zelcdb.sequence", "Sequence number", base.DEC),
    data = ProtoField.bytes("zelcdb.data", "Service data"),
    data_length = ProtoField.uint16("zelcdb.data_length", "Service data length", base.DEC),
    surplus = ProtoField.bytes("zelcdb.surplus", "Surplus bytes"),
}

local s = {
    command = ProtoField.uint8("zelsbp.command", "Command", base.HEX, names_of(kCommands)),
    length = ProtoField.uint32("zelsbp.length", "Length", base.DEC),
    uid = ProtoField.uint32("zelsbp.uid", "UID", base.HEX),
    element = ProtoField.string("zelsbp.element", "Element"),
    packet_id = ProtoField.uint16("zelsbp.packet_id", "Packet ID", base.DEC),
    command_value = ProtoField.uint32("zelsbp.command_value", "Command value", base.HEX),
    result = ProtoField.uint32("zelsbp.result", "Result", base.HEX, kResults),
    sub_type = ProtoField.uint8("zelsbp.subscription_type", "Subscription type", base.DEC,
                                kSubscriptionTypes),
    interval = ProtoField.uint32("zelsbp.interval", "Interval (ms)", base.DEC),
    cancelled_command = ProtoField.uint8("zelsbp.cancelled_command", "Command cancelled",
                                         base.HEX, names_of(kCommands)),
    payload = ProtoField.bytes("zelsbp.payload", "Payload"),
    end_marker = ProtoField.uint8("zelsbp.end_marker", "End marker", base.HEX),
    request_in = ProtoField.framenum("zelsbp.request_in", "Request in frame", base.NONE,
                                     frametype.REQUEST),
    response_in = ProtoField.framenum("zelsbp.response_in", "Response in frame", base.NONE,
                                      frametype.RESPONSE),
    time = ProtoField.relative_time("zelsbp.time", "Time since request"),
    update = ProtoField.uint32("zelsbp.update", "Update number", base.DEC),
    updates = ProtoField.uint32("zelsbp.updates", "Updates in the capture", base.DEC),
    cancels = ProtoField.framenum("zelsbp.cancels", "Cancels the request in frame"),
    cancelled_in = ProtoField.framenum("zelsbp.cancelled_in", "Cancelled in frame"),
    text = ProtoField.string("zelsbp.text", "Value"),
    value = ProtoField.none("zelsbp.value", "Value"),
    value_uid = ProtoField.uint32("zelsbp.value_uid", "UID", base.HEX),
    value_name = ProtoField.string("zelsbp.value_name", "Name"),
    value_type = ProtoField.uint8("zelsbp.value_type", "Type", base.HEX, names_of(kElements)),
    element_type = ProtoField.uint8("zelsbp.element_type", "Element type", base.HEX,
                                    names_of(kElements)),
    count = ProtoField.uint32("zelsbp.count", "Count", base.DEC),
    boolean = ProtoField.bool("zelsbp.boolean", "Boolean"),
    int = ProtoField.int32("zelsbp.int", "Integer", base.DEC),
    long = ProtoField.int64("zelsbp.long", "Long", base.DEC),
    float = ProtoField.double("zelsbp.float", "Floating point"),
    bytes = ProtoField.bytes("zelsbp.bytes", "Bytes"),
    string = ProtoField.string("zelsbp.string", "String"),
}

local function field_list(t)
    local out = {}
    for _, v in pairs(t) do out[#out + 1] = v end
    return out
end
cdb.fields = field_list(f)
sbp.fields = field_list(s)

local function expert_info(abbr, text, group, severity)
    return ProtoExpert.new(abbr, text, expert.group[group], expert.severity[severity])
end
local kEnds = ": the receiver ends the session"
local e = {
    unknown_type = expert_info("zelcdb.unknown_type", "Unknown message type" .. kEnds,
                               "MALFORMED", "ERROR"),
    truncated = expert_info("zelcdb.truncated", "Length too short for the message's fields" .. kEnds,
                            "MALFORMED", "ERROR"),
    surplus = expert_info("zelcdb.surplus",
                          "Length longer than the message's fields: the receiver skips the rest",
                          "PROTOCOL", "WARN"),
    oversize = expert_info("zelcdb.oversize", "Service data over 8100 bytes: the receiver discards it",
                           "PROTOCOL", "WARN"),
    version = expert_info("zelcdb.bad_version", "CDB version other than 1.1: the receiver refuses it",
                          "PROTOCOL", "WARN"),
    undefined = expert_info("zelcdb.undefined_response", "Undefined response code" .. kEnds,
                            "PROTOCOL", "ERROR"),
    unknown_service = expert_info("zelcdb.unknown_service", "Service not announced in this capture",
                                  "SEQUENCE", "NOTE"),
    internal = expert_info("zelcdb.internal", "Dissector fault", "UNDECODED", "ERROR"),
}
local x = {
    malformed = expert_info("zelsbp.malformed", "Malformed SBP packet", "MALFORMED", "ERROR"),
    excess = expert_info("zelsbp.excess", "Data after the SBP packet: the receiver ignores it",
                         "PROTOCOL", "WARN"),
    unknown_command = expert_info("zelsbp.unknown_command", "Unknown SBP command", "PROTOCOL", "ERROR"),
    no_request = expert_info("zelsbp.no_request", "Answer to no request in the capture", "SEQUENCE",
                             "WARN"),
    unanswered = expert_info("zelsbp.unanswered", "Request never answered in the capture",
                             "SEQUENCE", "WARN"),
    refused = expert_info("zelsbp.refused", "Request refused", "RESPONSE_CODE", "NOTE"),
    bad_value = expert_info("zelsbp.bad_value", "Malformed SBP value", "MALFORMED", "ERROR"),
    -- The library's reader does not count an empty structure or array as a child of the
    -- container around it, so it waits for one child more and fails on what follows.
    quirk = expert_info("zelsbp.empty_container",
                        "Empty container inside a container: the library's reader fails on it",
                        "PROTOCOL", "WARN"),
}
cdb.experts = field_list(e)
sbp.experts = field_list(x)

---------------------------------------------------------------------------------------------
-- Preferences

cdb.prefs.port = Pref.uint("TCP port", 9000, "TCP port decoded as CDB (0: none; the heuristic "
                           .. "still finds connections by their first ServicesRequest)")
cdb.prefs.heuristic = Pref.bool("Find CDB connections by their first ServicesRequest", true, "")
cdb.prefs.sbp_services = Pref.string("Services that carry SBP", "",
                                     "Service names, separated by commas or spaces, whose payloads are "
                                     .. "always decoded as SBP")
cdb.prefs.plain_services = Pref.string("Services that do not carry SBP", "",
                                       "Service names whose payloads are never decoded as SBP")
cdb.prefs.elements = Pref.string("Element file", "",
                                 "A zelcdb element file (JSON) whose names label UIDs")

local function name_set(text)
    local set = {}
    for word in string.gmatch(text or "", "[^,%s]+") do set[word] = true end
    return set
end

-- The UID of a name: bytes taken as signed, h = h * 65599 + c, modulo 2^32.
local function hash_name(name)
    local h = 5381
    for i = 1, #name do
        local c = name:byte(i)
        if c > 127 then c = c - 256 end
        h = (h * 65599 + c) % 4294967296
    end
    return h
end

local element_names = {}
local forced_sbp, forced_plain = {}, {}

-- Every string of the element file names a UID: element and member names are strings there,
-- and the other strings cost nothing but a table entry.
local function load_elements(path)
    element_names = {}
    if path == nil or path == "" then return end
    local file = io.open(path, "r")
    if not file then return end
    local text = file:read("*a") or ""
    file:close()
    for word in string.gmatch(text, '"([^"\\]*)"') do element_names[hash_name(word)] = word end
end

---------------------------------------------------------------------------------------------
-- Conversation state, filled on the first pass.

local conversations = {} -- [both ends] = {services = {}, sbp = {}, requests = {}}
local pdus = {}          -- [frame:offset:length:type] = what the first pass found for that PDU
local all_requests = {}  -- every SBP request record, to flag those never answered

function cdb.init()
    conversations, pdus, all_requests = {}, {}, {}
    forced_sbp = name_set(cdb.prefs.sbp_services)
    forced_plain = name_set(cdb.prefs.plain_services)
    load_elements(cdb.prefs.elements)
end

-- Keyed by both ends rather than by tcp.stream, whose value the first pass does not always
-- have (no tree). A connection that reuses both ports after a ByeBye starts afresh.
local function conversation(pinfo, message_type)
    local a = tostring(pinfo.src) .. ":" .. pinfo.src_port
    local b = tostring(pinfo.dst) .. ":" .. pinfo.dst_port
    local key = a < b and (a .. " " .. b) or (b .. " " .. a)
    local c = conversations[key]
    if not c or (c.closed and message_type == 0xB101) then
        c = {services = {}, sbp = {}, requests = {}}
        conversations[key] = c
    end
    if message_type == 0xB109 then c.closed = true end
    return c
end

local function hex(n, digits) return string.format("0x%0" .. digits .. "x", n) end
local function uid_text(uid) return element_names[uid] or hex(uid, 8) end

---------------------------------------------------------------------------------------------
-- SBP data: one value, decoded into the tree and into JSON text as zelcdb prints it.

local function json_string(text)
    return '"' .. text:gsub('[%c"\\]', function(c)
        local named = {['"'] = '\\"', ['\\'] = '\\\\', ['\n'] = '\\n', ['\r'] = '\\r',
                       ['\t'] = '\\t'}
        return named[c] or string.format("\\u%04x", c:byte())
    end) .. '"'
end

local function number_text(v, digits_from, digits_to, same)
    if v ~= v then return "null" end
    if v == math.huge or v == -math.huge then return "null" end
    for p = digits_from, digits_to do
        local text = string.format("%." .. p .. "g", v)
        if same(tonumber(text), v) then return text end
    end
    return string.format("%.17g", v)
end

local function round_to_float(v)
    if v == 0 or v ~= v or not math.frexp then return v end
    local m, ex = math.frexp(v)
    return math.ldexp(math.floor(m * 16777216 + 0.5) / 16777216, ex)
end

local function double_text(v) return number_text(v, 15, 17, function(a, b) return a == b end) end
local function float_text(v)
    return number_text(v, 6, 9, function(a, b) return round_to_float(a) == b end)
end

-- UTF-16 code units (big-endian) to UTF-8.
local function utf16_text(range, units)
    local out = {}
    for i = 0, units - 1 do
        local u = range(i * 2, 2):uint()
        if u >= 0xD800 and u < 0xE000 then u = 0xFFFD end -- a lone half of a pair
        if u < 0x80 then
            out[#out + 1] = string.char(u)
        elseif u < 0x800 then
            out[#out + 1] = string.char(0xC0 + math.floor(u / 64), 0x80 + u % 64)
        else
            out[#out + 1] = string.char(0xE0 + math.floor(u / 4096), 0x80 + math.floor(u / 64) % 64,
                                        0x80 + u % 64)
        end
    end
    return table.concat(out)
end

-- A decoding fault: stops the walk, and the packet gets expert info naming it.
local Fault = {}

local function need(buf, off, n, what)
    if off + n > buf:len() then error({Fault, "truncated " .. what}) end
end

local decode_value

-- Reads the members of a structure (after its count) and its end byte; returns next offset.
local function decode_members(buf, off, count, tree, depth, out)
    for _ = 1, count do
        local text, name
        off, text, name = decode_value(buf, off, tree, depth + 1, "full")
        out[#out + 1] = json_string(name) .. ":" .. text
    end
    need(buf, off, 1, "structure end")
    if buf(off, 1):uint() ~= kStructEnd then error({Fault, "structure end byte is not 0x81"}) end
    return off + 1
end

-- mode "full": UID and type byte; "element": a scalar array's bare payload of elem_type;
-- "structure": an element of an array of structures (the byte 0xA1, no UID).
-- Returns next offset, JSON text, and the name the value is keyed by.
decode_value = function(buf, off, tree, depth, mode, elem_type)
    if depth > kMaxDepth then error({Fault, "nested too deep"}) end
    need(buf, off, 1, "value")
    local start = off
    local uid, vtype = 0, elem_type
    if mode == "full" then
        need(buf, off, 5, "value header")
        uid, vtype = buf(off, 4):uint(), buf(off + 4, 1):uint()
        off = off + 5
    elseif mode == "structure" then
        need(buf, off, 1, "structure marker")
        vtype = buf(off, 1):uint()
        if vtype ~= 0xA1 then error({Fault, "array of structures element without 0xA1"}) end
        off = off + 1
    end
    local info = kElements[vtype]
    if not info then error({Fault, "unknown type byte " .. hex(vtype, 2)}) end
    local name = uid_text(uid)
    local item = tree:add(s.value, buf(start, math.max(off - start, 0)))
    if mode == "full" then
        item:add(s.value_uid, buf(start, 4))
        item:add(s.value_name, buf(start, 4), name):set_generated()
        item:add(s.value_type, buf(start + 4, 1))
    end
    local size, text = info[2], nil
    if size == 1 or size == 2 or size == 4 or size == 8 then
        need(buf, off, size, info[1])
        local r = buf(off, size)
        if vtype == 0x82 then
            local on = r:uint() ~= 0
            item:add(s.boolean, r, on)
            text = on and "true" or "false"
        elseif vtype == 0x86 then
            local v = r:int64()
            item:add(s.long, r, v)
            text = tostring(v)
        elseif vtype == 0x87 or vtype == 0x88 then
            local v = r:float()
            item:add(s.float, r, v)
            text = vtype == 0x87 and float_text(v) or double_text(v)
        else
            local v = r:int()
            item:add(s.int, r, v)
            text = tostring(v)
        end
        off = off + size
    elseif size == "bytes" or size == "string" then
        need(buf, off, 4, "length")
        local n = buf(off, 4):uint()
        local bytes = size == "bytes" and n or n * 2
        off = off + 4
        need(buf, off, bytes, info[1])
        if size == "bytes" then
            text = bytes > 0 and tostring(buf(off, bytes):bytes()):lower() or ""
            if bytes > 0 then item:add(s.bytes, buf(off, bytes)) end
            text = json_string(text)
        else
            local str = bytes > 0 and utf16_text(buf(off, bytes), n) or ""
            item:add(s.string, buf(off - 4, bytes + 4), str)
            text = json_string(str)
        end
        off = off + bytes
    elseif size == "array" then
        need(buf, off, 5, "array header")
        local et, n = buf(off, 1):uint(), buf(off + 1, 4):uint()
        item:add(s.element_type, buf(off, 1))
        item:add(s.count, buf(off + 1, 4))
        off = off + 5
        if not (kElements[et] and kElements[et].element) then
            error({Fault, "scalar array of element type " .. hex(et, 2)})
        end
        need(buf, off, n * kElements[et][2], "array elements")
        local parts = {}
        for i = 1, n do
            local part
            off, part = decode_value(buf, off, item, depth + 1, "element", et)
            parts[i] = part
        end
        text = "[" .. table.concat(parts, ",") .. "]"
    else -- structure or array of structures
        need(buf, off, 4, "count")
        local n = buf(off, 4):uint()
        item:add(s.count, buf(off, 4))
        off = off + 4
        if n == 0 and depth > 0 then item:add_proto_expert_info(x.quirk) end
        if size == "structure" then
            local members = {}
            off = decode_members(buf, off, n, item, depth, members)
            text = "{" .. table.concat(members, ",") .. "}"
        else
            -- Each element takes at least six bytes: bounds the loop on a forged count.
            need(buf, off, n * 6, "array of structures")
            local parts = {}
            for i = 1, n do
                local part
                off, part = decode_value(buf, off, item, depth + 1, "structure")
                parts[i] = part
            end
            need(buf, off, 1, "array end")
            if buf(off, 1):uint() ~= kStructEnd then
                error({Fault, "array of structures end byte is not 0x81"})
            end
            off = off + 1
            text = "[" .. table.concat(parts, ",") .. "]"
        end
    end
    item:set_len(off - start)
    item:append_text(": " .. (mode == "full" and (name .. " = ") or "") ..
                     (#text > 80 and text:sub(1, 77) .. "..." or text))
    return off, text, name
end

-- Decodes one top-level value; returns its JSON text ({"name":value}) or nil.
local function decode_data(buf, tree)
    local ok, off, text, name = pcall(decode_value, buf, 0, tree, 0, "full")
    if not ok then
        if type(off) == "table" and off[1] == Fault then
            tree:add_proto_expert_info(x.bad_value, "Malformed SBP value: " .. off[2])
            return nil
        end
        error(off, 0)
    end
    if off < buf:len() then
        tree:add_proto_expert_info(x.bad_value, "Malformed SBP value: " .. (buf:len() - off)
                                   .. " bytes after the value")
    end
    local json = "{" .. json_string(name) .. ":" .. text .. "}"
    tree:add(s.text, buf(0, off), json):set_generated()
    return json
end

---------------------------------------------------------------------------------------------
-- SBP packets

-- The fixed part of a packet, or nil and the reason it is not one.
local function sbp_header(buf)
    local n = buf:len()
    if n < 15 then return nil, "shorter than an SBP header" end
    local p = {
        command = buf(0, 1):uint(), length = buf(1, 4):uint(), uid = buf(5, 4):uint(),
        packet_id = buf(9, 2):uint(), value = buf(11, 4):uint(),
    }
    if n - 5 < p.length then return nil, "length field beyond the data" end
    if buf(4 + p.length, 1):uint() ~= kEndMarker then return nil, "no end marker" end
    return p
end

-- Whether a service's payload looks like an SBP packet: known command, exact length, marker.
local function looks_like_sbp(buf)
    local p = sbp_header(buf)
    return p ~= nil and kCommands[p.command] ~= nil and p.length == buf:len() - 5
end

local function nstime(seconds)
    local whole = math.floor(seconds)
    return NSTime.new(whole, math.floor((seconds - whole) * 1e9 + 0.5))
end

-- First pass: links the packet to its request, subscription or cancelled request.
local function track(conv, service, p, pinfo)
    conv.requests[service] = conv.requests[service] or {}
    local open = conv.requests[service]
    local role = kCommands[p.command] and kCommands[p.command][2]
    local found = {}
    if role == "request" then
        local rec = {frame = pinfo.number, time = pinfo.abs_ts, command = p.command,
                     uid = p.uid, updates = 0}
        open[p.packet_id] = rec
        all_requests[#all_requests + 1] = rec
        found.request = rec
        if p.command == 0xB4 then
            for _, other in pairs(open) do
                if other.command == p.value and other.uid == p.uid and other ~= rec then
                    found.cancels = other.frame
                    other.cancelled_in = pinfo.number
                end
            end
        end
    elseif role == "answer" then
        local rec = open[p.packet_id]
        if not rec then return {orphan = true} end
        found.answers = rec
        found.delta = pinfo.abs_ts - rec.time
        rec.response_in = rec.response_in or pinfo.number
        if p.command == 0xB7 then return found end -- the request waits on
        local final = p.value ~= kInProgress
        if rec.command == 0xB3 and p.value == 0 then
            -- The first answer without data acknowledges the subscription; the others are
            -- updates.
            if p.length > 15 then
                rec.updates = rec.updates + 1
                found.update = rec.updates
            else
                found.acknowledges = true
            end
            final = false
        end
        if final then open[p.packet_id] = nil end
    elseif role == "auth" then
        found.answers = open[p.packet_id]
    end
    return found
end

local function dissect_sbp(buf, pinfo, tree, conv, service, key)
    local item = tree:add(sbp, buf())
    local p, reason = sbp_header(buf)
    if not p then
        item:add_proto_expert_info(x.malformed, "Malformed SBP packet: " .. reason)
        return "malformed SBP packet"
    end
    local command = kCommands[p.command]
    local cname = command and command[1] or hex(p.command, 2)
    item:add(s.command, buf(0, 1))
    if not command then item:add_proto_expert_info(x.unknown_command) end
    item:add(s.length, buf(1, 4))
    local uid_item = item:add(s.uid, buf(5, 4))
    if element_names[p.uid] then
        uid_item:append_text(" (" .. element_names[p.uid] .. ")")
        item:add(s.element, buf(5, 4), element_names[p.uid]):set_generated()
    end
    item:add(s.packet_id, buf(9, 2))
    local summary = cname .. (p.uid ~= 0 and (" " .. uid_text(p.uid)) or "") .. " #" .. p.packet_id
    if p.command == 0xB9 or p.command == 0xB8 then
        item:add(s.result, buf(11, 4))
        if p.value ~= 0 then
            summary = summary .. " " .. (kResults[p.value] or hex(p.value, 8))
            if p.value ~= kInProgress and p.value ~= kCancelled then
                item:add_proto_expert_info(x.refused, "Refused: " .. (kResults[p.value] or hex(p.value, 8)))
            end
        end
    elseif p.command == 0xB3 then
        local subtype = math.floor(p.value / 16777216)
        item:add(s.sub_type, buf(11, 1))
        item:add(s.interval, buf(12, 3))
        summary = summary .. " " .. (kSubscriptionTypes[subtype] or ("type " .. subtype))
        if subtype == 0 then summary = summary .. " " .. (p.value % 16777216) .. " ms" end
    elseif p.command == 0xB4 then
        item:add(s.cancelled_command, buf(14, 1))
    else
        item:add(s.command_value, buf(11, 4))
    end
    local payload_size, value_text = p.length > 15 and p.length - 11 or 0, nil
    if payload_size > 0 then
        local data = buf(15, payload_size)
        local pitem = item:add(s.payload, data)
        if p.command == 0xB2 or p.command == 0xB9 then
            value_text = decode_data(data:tvb(), pitem)
        end
    end
    item:add(s.end_marker, buf(4 + p.length, 1))
    if buf:len() - 5 > p.length then
        item:add_proto_expert_info(x.excess, (buf:len() - 5 - p.length) .. " bytes after the packet")
    end

    -- Links between requests and answers, found on the first pass.
    if not pinfo.visited then pdus[key].link = track(conv, service, p, pinfo) end
    local link = pdus[key] and pdus[key].link or {}
    if link.request then
        local rec = link.request
        if rec.response_in then
            item:add(s.response_in, rec.response_in):set_generated()
        elseif pinfo.visited then
            item:add_proto_expert_info(x.unanswered)
        end
        if rec.command == 0xB3 then item:add(s.updates, rec.updates):set_generated() end
        if rec.cancelled_in then item:add(s.cancelled_in, rec.cancelled_in):set_generated() end
        if link.cancels then item:add(s.cancels, link.cancels):set_generated() end
    elseif link.answers then
        item:add(s.request_in, link.answers.frame):set_generated()
        if link.delta then item:add(s.time, nstime(link.delta)):set_generated() end
        if link.update then
            item:add(s.update, link.update):set_generated()
            summary = summary .. " update " .. link.update
        elseif link.acknowledges then
            summary = summary .. " subscribed"
        end
    elseif link.orphan then
        item:add_proto_expert_info(x.no_request)
    end
    if value_text then summary = summary .. " " .. value_text end
    item:append_text(", " .. summary)
    return summary
end

---------------------------------------------------------------------------------------------
-- CDB messages

-- Adds the service's name as announced, and returns "0x4001 name".
local function add_service(tree, buf, pdu_state, id)
    local svc = pdu_state.service
    tree:add(f.service_id, buf)
    if svc then
        tree:add(f.service_name, buf, svc.name):set_generated()
        return hex(id, 4) .. " " .. svc.name
    end
    return hex(id, 4)
end

local handlers = {}

handlers[0xB101] = function(buf, tree)
    local version = buf(0, 1):uint() .. "." .. buf(1, 1):uint()
    local item = tree:add(f.version, buf(0, 2), version)
    if version ~= "1.1" then item:add_proto_expert_info(e.version) end
    return version
end

handlers[0xB102] = function(buf, tree, pinfo, conv, state)
    local version = handlers[0xB101](buf, tree)
    local count = buf(2, 2):uint()
    tree:add(f.service_count, buf(2, 2))
    local off, listed = 4, {}
    for i = 1, count do
        if off + 7 > buf:len() or off + 7 + buf(off + 6, 1):uint() > buf:len() then
            tree:add_proto_expert_info(e.truncated, "Service " .. i .. " of " .. count
                                       .. " does not fit in the length: the receiver ends the session")
            return version .. ": " .. table.concat(listed, ", "), buf:len()
        end
        local len = buf(off + 6, 1):uint()
        local id = buf(off, 2):uint()
        local name = len > 0 and buf(off + 7, len):string(ENC_ASCII) or ""
        local sv = buf(off + 2, 1):uint() .. "." .. buf(off + 3, 1):uint()
        local item = tree:add(f.service, buf(off, 7 + len))
        item:append_text(": " .. hex(id, 4) .. " " .. name .. " " .. sv)
        item:add(f.service_id, buf(off, 2))
        item:add(f.service_version, buf(off + 2, 2), sv)
        item:add(f.attribute, buf(off + 4, 1))
        item:add(f.access_control, buf(off + 5, 1))
        item:add(f.name_length, buf(off + 6, 1))
        -- An empty range at the end of the data is out of bounds: an empty name points
        -- at its length byte.
        item:add(f.service_name, len > 0 and buf(off + 7, len) or buf(off + 6, 1), name)
        if not pinfo.visited then
            local old = conv.services[id]
            if not (old and old.name == name) then conv.sbp[id] = nil end
            conv.services[id] = {name = name, version = sv}
        end
        listed[#listed + 1] = hex(id, 4) .. " " .. name .. " " .. sv
        off = off + 7 + len
    end
    return version .. ", " .. count .. " service" .. (count == 1 and "" or "s") ..
           (count > 0 and (": " .. table.concat(listed, ", ")) or ""), off
end

handlers[0xB103] = function(buf, tree, pinfo, conv, state)
    local text = add_service(tree, buf(0, 2), state, buf(0, 2):uint())
    local version = buf(2, 1):uint() .. "." .. buf(3, 1):uint()
    tree:add(f.service_version, buf(2, 2), version)
    return text .. " " .. version
end

handlers[0xB104] = function(buf, tree, pinfo, conv, state)
    return add_service(tree, buf(0, 2), state, buf(0, 2):uint())
end

handlers[0xB107] = function(buf, tree, pinfo, conv, state)
    local id, code = buf(0, 2):uint(), buf(2, 2):uint()
    local text = id == 0 and "CDB" or add_service(tree, buf(0, 2), state, id)
    if id == 0 then tree:add(f.service_id, buf(0, 2)) end
    local item = tree:add(f.response, buf(2, 2))
    if not kResponses[code] then item:add_proto_expert_info(e.undefined) end
    local name = kResponses[code] or "undefined"
    return text .. " " .. (name:sub(1, 2) == "0x" and name or (name .. " (" .. hex(code, 4) .. ")"))
end

local function sequence(buf, tree)
    tree:add(f.sequence, buf(0, 2))
    return tostring(buf(0, 2):uint())
end
handlers[0xB106] = sequence
handlers[0xB108] = sequence
handlers[0xB109] = function() return nil end

handlers[0xB105] = function(buf, tree, pinfo, conv, state, key, root)
    local id = buf(0, 2):uint()
    local text = add_service(tree, buf(0, 2), state, id)
    tree:add(f.access_control, buf(2, 1))
    local size = buf:len() - 3
    tree:add(f.data_length, buf(0, 0), size):set_generated()
    if not state.service then tree:add_proto_expert_info(e.unknown_service) end
    if size > kMaxPayloadData then
        tree:add_proto_expert_info(e.oversize)
        return text .. ", " .. size .. " bytes (over the limit)", buf:len()
    end
    if size == 0 then return text .. ", no data", buf:len() end
    local data = buf(3, size)
    tree:add(f.data, data)
    if not pinfo.visited then
        -- A service announced by name may be forced either way; otherwise its first payload
        -- decides whether it speaks SBP.
        local name = state.service and state.service.name
        local decided = conv.sbp[id]
        if name and forced_sbp[name] then
            decided = true
        elseif name and forced_plain[name] then
            decided = false
        elseif decided == nil then
            decided = looks_like_sbp(data:tvb())
            conv.sbp[id] = decided
        end
        state.sbp = decided
    end
    tree:add(f.sbp, buf(0, 0), state.sbp == true):set_generated()
    if state.sbp then
        return text .. ": " .. dissect_sbp(data:tvb(), pinfo, root, conv, id, key), buf:len()
    end
    return text .. ", " .. size .. " bytes", buf:len()
end

-- One CDB message, as cut by the TCP framing below.
local function dissect_message(tvb, pinfo, tree)
    local len = tvb:len()
    if len < kHeader then return 0 end
    local mtype, plen = tvb(0, 2):uint(), tvb(2, 2):uint()
    local known = kTypes[mtype]
    local name = known and known[1] or ("Unknown " .. hex(mtype, 4))
    local item = tree:add(cdb, tvb(0, math.min(len, kHeader + plen)))
    item:add(f.type, tvb(0, 2))
    item:add(f.length, tvb(2, 2))
    local key = pinfo.number .. ":" .. tvb:offset() .. ":" .. len .. ":" .. mtype
    local conv = conversation(pinfo, not pinfo.visited and mtype)
    if not pinfo.visited then pdus[key] = {} end
    local state = pdus[key] or {}
    local text
    local body = len > kHeader and tvb(kHeader, math.min(plen, len - kHeader)) or nil
    if not known then
        item:add_proto_expert_info(e.unknown_type, "Unknown message type " .. hex(mtype, 4)
                                   .. ": the receiver ends the session")
    elseif plen < known[2] or len < kHeader + known[2] then
        item:add_proto_expert_info(e.truncated, name .. " needs " .. known[2] .. " bytes, length is "
                                   .. plen .. ": the receiver ends the session")
    else
        if not pinfo.visited and (mtype == 0xB103 or mtype == 0xB104 or mtype == 0xB105
                                  or mtype == 0xB107) then
            state.service = conv.services[tvb(kHeader, 2):uint()]
        end
        local used
        text, used = handlers[mtype](body, item, pinfo, conv, state, key, tree)
        used = used or known[2]
        if plen > used and mtype ~= 0xB105 then
            item:add(f.surplus, tvb(kHeader + used, math.min(plen, len - kHeader) - used))
            item:add_proto_expert_info(e.surplus)
        end
    end
    local summary = name .. (text and (" " .. text) or "")
    item:append_text(", " .. summary)
    -- Several messages in one segment share the Info column.
    local protocol = state.sbp and "ZELSBP" or "ZELCDB"
    local current = tostring(pinfo.cols.protocol)
    if current == "ZELCDB" or current == "ZELSBP" then
        pinfo.cols.info:append(" | " .. summary)
        if protocol == "ZELSBP" then pinfo.cols.protocol:set(protocol) end
    else
        pinfo.cols.protocol:set(protocol)
        pinfo.cols.info:set(summary)
    end
    return len
end

local function message_length(tvb, pinfo, offset)
    return kHeader + tvb(offset + 2, 2):uint()
end

local function guarded(tvb, pinfo, tree)
    local ok, result = pcall(dissect_message, tvb, pinfo, tree)
    if ok then return result end
    tree:add_proto_expert_info(e.internal, "Dissector fault: " .. tostring(result))
    return tvb:len()
end

function cdb.dissector(tvb, pinfo, tree)
    if tvb:len() == 0 then return 0 end
    dissect_tcp_pdus(tvb, tree, kHeader, message_length, guarded, true)
    return tvb:len()
end

function sbp.dissector(tvb, pinfo, tree)
    return 0 -- reached only through zelcdb, which knows the service and the conversation
end

---------------------------------------------------------------------------------------------
-- Registration: the port preference, "Decode As", and a heuristic on the first
-- ServicesRequest (type 0xB101, length 2) of a connection.

local registered_port = 0
local function register_port()
    local ports = DissectorTable.get("tcp.port")
    if registered_port ~= 0 then ports:remove(registered_port, cdb) end
    registered_port = cdb.prefs.port
    if registered_port ~= 0 then ports:add(registered_port, cdb) end
end

function cdb.prefs_changed()
    forced_sbp = name_set(cdb.prefs.sbp_services)
    forced_plain = name_set(cdb.prefs.plain_services)
    load_elements(cdb.prefs.elements)
    if registered_port ~= cdb.prefs.port then register_port() end
end
register_port()
DissectorTable.get("tcp.port"):add_for_decode_as(cdb)

local function heuristic(tvb, pinfo, tree)
    if not cdb.prefs.heuristic or tvb:len() < 6 then return false end
    if tvb(0, 2):uint() ~= 0xB101 or tvb(2, 2):uint() ~= 2 or tvb(4, 1):uint() > 15 then
        return false
    end
    pcall(function() pinfo.conversation = cdb end)
    cdb.dissector(tvb, pinfo, tree)
    return true
end
cdb:register_heuristic("tcp", heuristic)
