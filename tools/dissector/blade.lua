-- Wireshark: the blade's local messages and the archiver link. docs/formats.md shows the same bytes.
--
-- Copy it into the personal Lua plugin folder (tshark -G folders), or: tshark -X lua_script:blade.lua
--   evlink  the archiver link
--   mmsg    local messages; also as link type USER0, one message a packet
--   empev   the event that both carry
-- Both protocols are recognised on any TCP port by their headers. blade_record.py, beside this file, captures
-- either without special rights.

local MMCH_SIZE, MMSG_MAX = 64, 4064
local LINK_HEADER, LINK_BODY_MAX = 16, 4064
local EVENT_HEADER = 152
local INQUIRY_SIZE, STATUS_SIZE = 144, 176
-- A status request is followed by four zeros that its header does not count.
local STATUS_REQUEST_TAIL = 4

-- Names ---------------------------------------------------------------------------------------------

local ENDPOINTS = {
    [0] = "iscsi18p", "iscsi28p", "scsi8p", "cache18p", "cache28p", "iomgr8p", "sata8p", "mip8p", "pieman8p",
    "awr8p", "vpi8p", "mip_local_8p", "ichar", "ob0", "ob1", "hacc", "msm", "rcp", "startup", "ddlm", "volmgr",
    "drivead", "iscsi", "system_config", "network_config", "aim", "environ", "eventlog", "snmp", "smis", "smi_ind",
    "isnsc", "battery_manager", "es_adapter",
}
local PROTOCOLS = {
    [0] = "default", "rcp", "hacc", "cmp", "volmgr", "ddlm", "netcfg", "cmap", "eventmgr", "iomgr", "iscsi", "isnsc",
    "startup", "shutdown", "bugcheck", "smis", "battery_management", "firmware_upgrade", "ses", "devmgr",
}
local MESSAGE_TYPES = {
    "log", "inquiry", "set_event_archiver", "get_event_archiver", "get_event_manager_status",
    "get_event_archiver_status", "alternate_log",
}
local STARTUP_MESSAGE_TYPES = { "notify_init_complete" }
local EVENT_TYPES = { "information", "warning", "error" }
local CATEGORIES = {
    "system", "management", "environmental", "disk", "volume", "sata", "scsi", "iscsi", "network", "hardware", "io",
    "cache", "isnsc",
}
local INQUIRY_TYPES = { "first", "next", "exact", "previous", "last" }
local RESPONSES = { [0] = "none", "success", "failure", "resource_not_available" }
local FLAGS = { "request", "response" }

local EVENTMGR, STARTUP = 8, 12 -- protocols
local EVENT_MANAGER = 27 -- endpoint
local LOG, INQUIRY, SET_ARCHIVER, MANAGER_STATUS, ARCHIVER_STATUS, ALTERNATE_LOG = 1, 2, 3, 5, 6, 7

local function name(names, value)
    return names[value] or tostring(value)
end

-- Protocols and their fields ------------------------------------------------------------------------

local mmsg = Proto("mmsg", "Local message of the blade")
local evlink = Proto("evlink", "Event Archiver link")
local empev = Proto("empev", "Event of the blade")

local f = {} -- by filter name

local function field(proto, kind, fieldName, ...)
    local made = ProtoField[kind](proto.name:lower() .. "." .. fieldName, fieldName, ...)
    f[proto.name:lower() .. "." .. fieldName] = made
    return made
end

local DEC, HEX = base.DEC, base.HEX

mmsg.fields = {
    field(mmsg, "uint32", "flink", HEX), field(mmsg, "uint32", "blink", HEX),
    field(mmsg, "uint8", "message_type", DEC), field(mmsg, "uint8", "mmch_version", DEC),
    field(mmsg, "uint16", "mmsg_length", DEC), field(mmsg, "uint8", "protocol", DEC, PROTOCOLS),
    field(mmsg, "uint24", "type", DEC), field(mmsg, "string", "type_name"),
    field(mmsg, "uint8", "requestor", DEC, ENDPOINTS), field(mmsg, "uint8", "mmsg_cont", HEX),
    field(mmsg, "bool", "response", 8, { "yes", "no" }, 0x40),
    field(mmsg, "bool", "other_blade", 8, { "yes", "no" }, 0x80),
    field(mmsg, "uint8", "dest_ep", DEC), field(mmsg, "uint8", "pad", HEX),
    field(mmsg, "bytes", "recipient_loc_bm"), field(mmsg, "bytes", "recipient_ob_bm"),
    field(mmsg, "uint8", "recipient_loc", DEC, ENDPOINTS), field(mmsg, "uint8", "recipient_ob", DEC, ENDPOINTS),
    field(mmsg, "uint32", "return_code", DEC, RESPONSES), field(mmsg, "uint32", "handle", DEC),
    field(mmsg, "uint32", "general_use1", HEX), field(mmsg, "uint32", "general_use2", HEX),
    field(mmsg, "uint32", "general_use3", HEX), field(mmsg, "uint32", "timestamp_high", DEC),
    field(mmsg, "uint32", "timestamp_low", DEC), field(mmsg, "bytes", "body"),
    field(mmsg, "ipv4", "evArchiverIpAddress"), field(mmsg, "uint16", "evArchiverTcpPort", DEC),
    field(mmsg, "uint16", "evManagerStatusFlag", HEX), field(mmsg, "uint32", "evManagerInquiryMsgTimeout", DEC),
    field(mmsg, "uint32", "evArchiverConnectionFailed", DEC),
    field(mmsg, "uint32", "evArchiverConnectionAttempt", DEC),
}
evlink.fields = {
    field(evlink, "uint16", "evArchiverMsgHdrVersion", DEC), field(evlink, "uint16", "evArchiverMsgBodyLength", DEC),
    field(evlink, "uint16", "evArchiverMsgType", DEC, MESSAGE_TYPES),
    field(evlink, "uint16", "evArchiverMsgFlag", DEC, FLAGS),
    field(evlink, "uint32", "evArchiverMsgReturnCode", DEC, RESPONSES),
    field(evlink, "uint32", "evArchiverMsgHandle", DEC), field(evlink, "bytes", "body"),
    field(evlink, "uint32", "evSequenceIdFirst", DEC), field(evlink, "uint16", "reserved1", HEX),
    field(evlink, "bytes", "evRandom"), field(evlink, "uint32", "evSequenceIdLast", DEC),
    field(evlink, "uint32", "evArchiverControlFlag", HEX),
    field(evlink, "bool", "no_data", 32, { "yes", "no" }, 1), field(evlink, "bool", "clear", 32, { "yes", "no" }, 2),
    field(evlink, "bytes", "tail"),
}
empev.fields = {
    field(empev, "string", "evEnclosureId"), field(empev, "string", "evBladeId"),
    field(empev, "uint32", "evSlotId", DEC), field(empev, "uint32", "evInstanceNumber", DEC),
    field(empev, "uint32", "evSequenceId", DEC), field(empev, "absolute_time", "evTime", base.UTC),
    field(empev, "uint16", "evStructLength", DEC), field(empev, "uint8", "evSource", DEC, ENDPOINTS),
    field(empev, "uint8", "evType", DEC, EVENT_TYPES), field(empev, "uint8", "evCategory", DEC, CATEGORIES),
    field(empev, "uint8", "evIdVersion", DEC), field(empev, "uint16", "evId", DEC),
    field(empev, "bytes", "evStruct"), field(empev, "string", "text"),
    field(empev, "uint32", "evInquiryType", DEC, INQUIRY_TYPES), field(empev, "uint32", "evSeqIdInquiry", DEC),
}

local function finding(proto, id, text, severity)
    local made = ProtoExpert.new(proto.name:lower() .. "." .. id, text, expert.group.PROTOCOL, severity)
    f[proto.name:lower() .. "." .. id] = made
    return made
end

mmsg.experts = {
    finding(mmsg, "bad_length", "mmsg_length outside 64 to 4064: the stream cannot be followed", expert.severity.ERROR),
    finding(mmsg, "cut", "the capture does not hold the whole message", expert.severity.WARN),
    finding(mmsg, "short_body", "the body is shorter than its type needs", expert.severity.ERROR),
}
evlink.experts = {
    finding(evlink, "bad_header", "no header of the archiver link: the stream cannot be followed",
        expert.severity.ERROR),
    finding(evlink, "cut", "the capture does not hold the whole message", expert.severity.WARN),
    finding(evlink, "short_body", "the body is shorter than its type needs", expert.severity.ERROR),
    finding(evlink, "bad_tail", "the bytes behind a status request are not four zeros", expert.severity.WARN),
}
empev.experts = {
    finding(empev, "length", "evStructLength is not the number of data bytes", expert.severity.WARN),
}

-- Adds consecutive fields, { name, width } each, from an offset on; returns the offset behind them.
local function addFields(tree, tvb, offset, prefix, list)
    for _, entry in ipairs(list) do
        tree:add(f[prefix .. entry[1]], tvb(offset, entry[2]))
        offset = offset + entry[2]
    end
    return offset
end

-- The body both protocols carry ---------------------------------------------------------------------

local LOG_NAME = { { "evEnclosureId", 64 }, { "evBladeId", 64 }, { "evSlotId", 4 }, { "evInstanceNumber", 4 } }

-- The data as text where all of it is printable.
local function printable(range)
    local bytes = range:bytes()
    for at = 0, bytes:len() - 1 do
        local byte = bytes:get_index(at)
        if byte < 0x20 or byte > 0x7E then return nil end
    end
    return range:string()
end

local function addEventData(tree, tvb)
    if tvb:len() == EVENT_HEADER then return end
    local range = tvb(EVENT_HEADER)
    tree:add(f["empev.evStruct"], range)
    local text = printable(range)
    if text then tree:add(f["empev.text"], range, text):set_generated() end
end

-- Returns what the info column says. Before the event manager has stamped an event, the fields that it fills
-- mean nothing.
local function addEvent(tree, tvb, unstamped)
    local sub = tree:add(empev, tvb())
    local at = addFields(sub, tvb, 0, "empev.", LOG_NAME)
    at = addFields(sub, tvb, at, "empev.", { { "evSequenceId", 4 } })
    sub:add(f["empev.evTime"], tvb(at, 4), NSTime.new(tvb(at, 4):uint(), 0))
    local length = sub:add(f["empev.evStructLength"], tvb(at + 4, 2))
    if not unstamped and tvb(at + 4, 2):uint() ~= tvb:len() - EVENT_HEADER then
        length:add_proto_expert_info(f["empev.length"])
    end
    addFields(sub, tvb, at + 6, "empev.",
        { { "evSource", 1 }, { "evType", 1 }, { "evCategory", 1 }, { "evIdVersion", 1 }, { "evId", 2 } })
    addEventData(sub, tvb)
    local what = string.format("%s, id %d", name(EVENT_TYPES, tvb(147, 1):uint()), tvb(150, 2):uint())
    if unstamped then return what end
    what = string.format("event %d of %s, %s", tvb(136, 4):uint(), name(ENDPOINTS, tvb(146, 1):uint()), what)
    sub:append_text(", " .. what)
    return what
end

local function addInquiry(tree, tvb)
    local sub = tree:add(empev, tvb(), "Inquiry")
    local at = addFields(sub, tvb, 0, "empev.", { { "evInquiryType", 4 } })
    at = addFields(sub, tvb, at, "empev.", LOG_NAME)
    addFields(sub, tvb, at, "empev.", { { "evSeqIdInquiry", 4 } })
    return string.format("%s %d", name(INQUIRY_TYPES, tvb(0, 4):uint()), tvb(140, 4):uint())
end

-- Local messages ------------------------------------------------------------------------------------

local function addRecipients(tree, tvb, offset, side)
    local words = tree:add(f["mmsg.recipient_" .. side .. "_bm"], tvb(offset, 8))
    local names = {}
    for endpoint = 0, 63 do
        local word = tvb(offset + (endpoint < 32 and 0 or 4), 4)
        if word:bitfield(31 - endpoint % 32, 1) == 1 then
            words:add(f["mmsg.recipient_" .. side], word, endpoint):set_generated()
            names[#names + 1] = name(ENDPOINTS, endpoint)
        end
    end
    return names
end

local function typeName(protocol, kind)
    local names = protocol == EVENTMGR and MESSAGE_TYPES or protocol == STARTUP and STARTUP_MESSAGE_TYPES or {}
    return name(names, kind)
end

-- Returns the names of the recipients.
local function addMmch(tree, tvb)
    addFields(tree, tvb, 0, "mmsg.", {
        { "flink", 4 }, { "blink", 4 }, { "message_type", 1 }, { "mmch_version", 1 }, { "mmsg_length", 2 },
        { "protocol", 1 }, { "type", 3 },
    })
    tree:add(f["mmsg.type_name"], tvb(13, 3), typeName(tvb(12, 1):uint(), tvb(13, 3):uint())):set_generated()
    tree:add(f["mmsg.requestor"], tvb(16, 1))
    local cont = tree:add(f["mmsg.mmsg_cont"], tvb(17, 1))
    addFields(cont, tvb, 17, "mmsg.", { { "response", 1 } })
    addFields(cont, tvb, 17, "mmsg.", { { "other_blade", 1 } })
    addFields(tree, tvb, 18, "mmsg.", { { "dest_ep", 1 }, { "pad", 1 } })
    local recipients = addRecipients(tree, tvb, 20, "loc")
    for _, other in ipairs(addRecipients(tree, tvb, 28, "ob")) do
        recipients[#recipients + 1] = other .. " (other blade)"
    end
    addFields(tree, tvb, 36, "mmsg.", {
        { "return_code", 4 }, { "handle", 4 }, { "general_use1", 4 }, { "general_use2", 4 }, { "general_use3", 4 },
        { "timestamp_high", 4 }, { "timestamp_low", 4 },
    })
    return recipients
end

local SETTINGS = { { "evArchiverIpAddress", 4 }, { "evArchiverTcpPort", 2 } }
local STATUS = {
    { "evManagerStatusFlag", 2 }, { "evManagerInquiryMsgTimeout", 4 }, { "evArchiverConnectionFailed", 4 },
    { "evArchiverConnectionAttempt", 4 },
}

local function addSettings(tree, tvb)
    addFields(tree, tvb, 0, "mmsg.", SETTINGS)
    return string.format("%s:%d", tostring(tvb(0, 4):ipv4()), tvb(4, 2):uint())
end

local function addManagerStatus(tree, tvb)
    addFields(tree, tvb, addFields(tree, tvb, 0, "mmsg.", SETTINGS), "mmsg.", STATUS)
    return tvb(6, 2):bitfield(15, 1) == 1 and "connected" or "not connected"
end

-- By type, and type + 0x100 for the reply: bytes needed, and what shows them.
local REPLY = 0x100
local LOCAL_BODIES = {
    [LOG] = { EVENT_HEADER, addEvent },
    [ALTERNATE_LOG] = { EVENT_HEADER, addEvent },
    [INQUIRY] = { INQUIRY_SIZE, addInquiry },
    [INQUIRY + REPLY] = { EVENT_HEADER, addEvent },
    [SET_ARCHIVER] = { 8, addSettings },
    [MANAGER_STATUS + REPLY] = { 20, addManagerStatus },
}

-- Shows a body by its row of a table; returns what the info column says, or nothing.
local function addBody(tree, prefix, row, body, ...)
    if row and body:len() >= row[1] then return row[2](tree, body, ...) end
    local shown = body:len() > 0 and tree:add(f[prefix .. "body"], body()) or tree
    if row then shown:add_proto_expert_info(f[prefix .. "short_body"]) end
end

local function say(pinfo, protocol, text)
    pinfo.cols.protocol:set(protocol)
    pinfo.cols.info:append((tostring(pinfo.cols.info) == "" and "" or "; ") .. text)
end

-- Shows what cannot be taken apart. Returns its length.
local function addRaw(tree, tvb, pinfo, prefix, findingName, text)
    tree:add(f[prefix .. "body"], tvb())
    tree:add_proto_expert_info(f[prefix .. findingName])
    say(pinfo, string.upper(prefix:sub(1, -2)), text)
    return tvb:len()
end

local function dissectMmsg(tvb, pinfo, root)
    local tree = root:add(mmsg, tvb())
    local length = tvb:len() >= MMCH_SIZE and tvb(10, 2):uint() or MMSG_MAX
    if length < MMCH_SIZE or length > MMSG_MAX then
        return addRaw(tree, tvb, pinfo, "mmsg.", "bad_length", "bad length")
    elseif length > tvb:len() then
        return addRaw(tree, tvb, pinfo, "mmsg.", "cut", "cut message")
    end
    local recipients = addMmch(tree, tvb)
    local protocol, kind = tvb(12, 1):uint(), tvb(13, 3):uint()
    local reply = tvb(17, 1):bitfield(1, 1) == 1
    local row = protocol == EVENTMGR and LOCAL_BODIES[kind + (reply and REPLY or 0)] or nil
    local unstamped = (kind == LOG or kind == ALTERNATE_LOG) and tvb(16, 1):uint() ~= EVENT_MANAGER
    local what = addBody(tree, "mmsg.", row, tvb(MMCH_SIZE, length - MMCH_SIZE):tvb(), unstamped)
    local text = string.format("%s > %s: %s %s%s", name(ENDPOINTS, tvb(16, 1):uint()), table.concat(recipients, ", "),
        name(PROTOCOLS, protocol), typeName(protocol, kind), reply and " reply" or "")
    if what then text = text .. ", " .. what end
    tree:append_text(", " .. text)
    say(pinfo, "MMSG", text)
    return length
end

local function mmsgLength(tvb, _, offset)
    local length = tvb(offset + 10, 2):uint()
    if length < MMCH_SIZE or length > MMSG_MAX then return tvb:len() - offset end
    return length
end

local USER0_PACKET = 0 -- no port type

local function dissectMmsgs(tvb, pinfo, root)
    pinfo.cols.info:clear()
    if pinfo.port_type == USER0_PACKET then return dissectMmsg(tvb, pinfo, root) end
    return dissect_tcp_pdus(tvb, root, MMCH_SIZE, mmsgLength, dissectMmsg)
end

-- Takes a connection whose first bytes are a header of the protocol, and all that follows on it. The function
-- is called directly: a dissector called by a dissector may not put segments together.
local function recogniseOnTcp(protocol, dissect, headerSize, isHeader)
    protocol.dissector = dissect
    protocol:register_heuristic("tcp", function(tvb, pinfo, root)
        if tvb:len() < headerSize or not isHeader(tvb) then return false end
        pinfo.conversation = protocol
        dissect(tvb, pinfo, root)
        return true
    end)
end

recogniseOnTcp(mmsg, dissectMmsgs, MMCH_SIZE, function(tvb)
    local length = tvb(10, 2):uint()
    return tvb(8, 2):uint() == 0x0E01 and length >= MMCH_SIZE and length <= MMSG_MAX and
        PROTOCOLS[tvb(12, 1):uint()] ~= nil
end)

-- The archiver link ---------------------------------------------------------------------------------

local function isLinkHeader(tvb, offset)
    return tvb(offset, 2):uint() == 1 and tvb(offset + 2, 2):uint() <= LINK_BODY_MAX
end

local function isStatusRequest(tvb, offset)
    return tvb(offset + 4, 2):uint() == ARCHIVER_STATUS and tvb(offset + 6, 2):uint() == 1
end

local function addStatus(tree, tvb)
    local sub = tree:add(empev, tvb(0, 136), "Log")
    local at = addFields(sub, tvb, 0, "empev.", LOG_NAME)
    at = addFields(tree, tvb, at, "evlink.", { { "evSequenceIdFirst", 4 } })
    tree:add(f["empev.evStructLength"], tvb(at, 2))
    at = addFields(tree, tvb, at + 2, "evlink.", { { "reserved1", 2 }, { "evRandom", 24 }, { "evSequenceIdLast", 4 } })
    local flag = tree:add(f["evlink.evArchiverControlFlag"], tvb(at, 4))
    addFields(flag, tvb, at, "evlink.", { { "no_data", 4 } })
    addFields(flag, tvb, at, "evlink.", { { "clear", 4 } })
    return string.format("first %d, last %d, flag %d", tvb(136, 4):uint(), tvb(168, 4):uint(), tvb(172, 4):uint())
end

local LINK_BODIES = {
    [LOG] = { EVENT_HEADER, addEvent },
    [INQUIRY] = { INQUIRY_SIZE, addInquiry },
    [ARCHIVER_STATUS] = { STATUS_SIZE, addStatus },
}

local function addTail(tree, tvb, offset)
    if offset >= tvb:len() then return end
    local tail = tree:add(f["evlink.tail"], tvb(offset))
    if tvb(offset):bytes() ~= ByteArray.new("00000000") then
        tail:add_proto_expert_info(f["evlink.bad_tail"])
    end
end

local function dissectLinkMessage(tvb, pinfo, root)
    local tree = root:add(evlink, tvb())
    if not isLinkHeader(tvb, 0) then
        return addRaw(tree, tvb, pinfo, "evlink.", "bad_header", "no header")
    elseif LINK_HEADER + tvb(2, 2):uint() > tvb:len() then
        return addRaw(tree, tvb, pinfo, "evlink.", "cut", "cut message")
    end
    addFields(tree, tvb, 0, "evlink.", {
        { "evArchiverMsgHdrVersion", 2 }, { "evArchiverMsgBodyLength", 2 }, { "evArchiverMsgType", 2 },
        { "evArchiverMsgFlag", 2 }, { "evArchiverMsgReturnCode", 4 }, { "evArchiverMsgHandle", 4 },
    })
    local length, kind = tvb(2, 2):uint(), tvb(4, 2):uint()
    local response = tvb(6, 2):uint() == 2
    local what = addBody(tree, "evlink.", LINK_BODIES[kind], tvb(LINK_HEADER, length):tvb())
    addTail(tree, tvb, LINK_HEADER + length)
    local text = name(MESSAGE_TYPES, kind) .. " " .. name(FLAGS, tvb(6, 2):uint())
    if response then text = text .. " " .. name(RESPONSES, tvb(8, 4):uint()) end
    if what then text = text .. ", " .. what end
    tree:append_text(", " .. text)
    say(pinfo, "EVLINK", text)
    return tvb:len()
end

local function linkLength(tvb, _, offset)
    if not isLinkHeader(tvb, offset) then return tvb:len() - offset end
    local tail = isStatusRequest(tvb, offset) and STATUS_REQUEST_TAIL or 0
    return LINK_HEADER + tvb(offset + 2, 2):uint() + tail
end

local function dissectLinkMessages(tvb, pinfo, root)
    pinfo.cols.info:clear()
    return dissect_tcp_pdus(tvb, root, LINK_HEADER, linkLength, dissectLinkMessage)
end

recogniseOnTcp(evlink, dissectLinkMessages, LINK_HEADER, function(tvb)
    return isLinkHeader(tvb, 0) and MESSAGE_TYPES[tvb(4, 2):uint()] ~= nil and FLAGS[tvb(6, 2):uint()] ~= nil
end)

DissectorTable.get("wtap_encap"):add(wtap.USER0, mmsg)
DissectorTable.get("tcp.port"):add_for_decode_as(mmsg)
DissectorTable.get("tcp.port"):add_for_decode_as(evlink)
