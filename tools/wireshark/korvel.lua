-- Wireshark dissector for the korvel camera media-file protocol (TCP port 9800).
--
-- Every packet: five big-endian header words (bit fields, peerID, offset, payloadlen,
-- timestamp), the payload and a big-endian CRC-32 trailer. The checksum covers the header
-- words byte-reversed, a control packet's ackWord byte-reversed, and the rest of the payload
-- as it stands.
--
-- Use: wireshark -X lua_script:tools/wireshark/korvel.lua   (or copy it to the plugins folder)

local korvel = Proto("korvel", "Korvel media-file protocol")

local bits = bit32 or bit

local REQ_TYPES = { [0] = "data", [1] = "control" }
local MARKERS = {
    [0] = "intermediate",
    [1] = "only/last",
    [2] = "continues",
    [3] = "last of continuation",
}
local DATA_TYPES = {
    [0] = "ignored", [1] = "delete", [2] = "download", [3] = "chunk", [4] = "chunk",
    [5] = "chunk", [6] = "chunk", [7] = "ignored", [17] = "config", [18] = "capability",
    [19] = "metadata",
}
local CTRL_TYPES = {
    [0] = "catalogue", [3] = "chunk", [5] = "position", [6] = "chunk", [7] = "quit",
}
-- Data packets the server sends answer these requests.
local REPLY_TYPES = {
    [0] = "catalogue", [2] = "download", [3] = "chunk", [5] = "position", [6] = "chunk",
    [18] = "capability", [19] = "metadata",
}
local ACK_CODES = {
    [0xFB00] = "ACK_DONE", [0xFB02] = "ACK_NOT_FOUND", [0xFB03] = "ACK_BAD_CHECKSUM",
    [0xFB04] = "ACK_END_OF_DATA", [0xFB06] = "ACK_FAILED", [0xFB08] = "ACK_TOO_LARGE",
    [0xFB09] = "ACK_BAD_NAME", [0xFB10] = "ACK_BAD_LOCATION",
}

local f = korvel.fields
f.word0 = ProtoField.uint32("korvel.word0", "Word 0", base.HEX)
f.reqtype = ProtoField.uint32("korvel.reqtype", "reqType", base.DEC, REQ_TYPES, 0x80000000)
f.marker = ProtoField.uint32("korvel.marker", "marker", base.DEC, MARKERS, 0x60000000)
f.msgtype = ProtoField.uint32("korvel.msgtype", "msgType", base.DEC, nil, 0x1F000000)
f.seqno = ProtoField.uint32("korvel.seqno", "seqNO", base.DEC, nil, 0x00FFFFFF)
f.msgname = ProtoField.string("korvel.msgname", "Message")
f.peerid = ProtoField.uint32("korvel.peerid", "peerID", base.DEC_HEX)
f.offset = ProtoField.uint32("korvel.offset", "offset", base.DEC)
f.payloadlen = ProtoField.uint32("korvel.payloadlen", "payloadlen", base.DEC)
f.timestamp = ProtoField.uint32("korvel.timestamp", "timestamp (us)", base.DEC)
f.ackword = ProtoField.uint32("korvel.ackword", "ackWord", base.HEX)
f.ackflag = ProtoField.uint32("korvel.ackflag", "ackFlag", base.DEC, nil, 0x80000000)
f.ackvalue = ProtoField.uint32("korvel.ackvalue", "ackValue", base.DEC, nil, 0x7FFF0000)
f.ackcode = ProtoField.uint32("korvel.ackcode", "ackCode", base.HEX, ACK_CODES, 0x0000FFFF)
f.ackname = ProtoField.string("korvel.ackname", "Status")
f.payload = ProtoField.bytes("korvel.payload", "Payload")
f.json = ProtoField.string("korvel.json", "JSON text")
f.text = ProtoField.string("korvel.text", "Text")
f.location = ProtoField.string("korvel.config.location", "Location text")
f.userdef = ProtoField.uint32("korvel.config.userdef", "userDefConfig", base.DEC, nil, 0x80000000)
f.swver = ProtoField.uint32("korvel.config.swver", "softwareVerConfig", base.DEC, nil, 0x7FFF0000)
f.packsize = ProtoField.uint32("korvel.config.packsize", "userDefPacksize", base.DEC, nil, 0x0000FFFF)
f.blocks = ProtoField.uint32("korvel.config.blocks", "userDefBlocks", base.DEC, nil, 0x0000FFFF)
f.length = ProtoField.uint32("korvel.chunk.length", "Chunk length (little-endian)", base.DEC)
f.size = ProtoField.uint32("korvel.size", "File size (little-endian)", base.DEC)
f.position = ProtoField.uint32("korvel.position", "Position", base.DEC)
f.crc = ProtoField.uint32("korvel.crc", "CRC-32", base.HEX)
f.crc_calc = ProtoField.uint32("korvel.crc.computed", "CRC-32 computed", base.HEX)
f.crc_ok = ProtoField.bool("korvel.crc.ok", "CRC valid")

local ef_crc = ProtoExpert.new("korvel.crc.bad", "Bad CRC-32", expert.group.CHECKSUM,
                               expert.severity.ERROR)
korvel.experts = { ef_crc }

local SERVER_PORT = 9800
local HEADER = 20
local TRAILER = 4

-- CRC-32 (reflected polynomial 0xEDB88320), one table built at load time.
local CRC_TABLE = {}
for i = 0, 255 do
    local c = i
    for _ = 1, 8 do
        if bits.band(c, 1) ~= 0 then
            c = bits.bxor(0xEDB88320, bits.rshift(c, 1))
        else
            c = bits.rshift(c, 1)
        end
    end
    CRC_TABLE[i] = c
end

local function crc_update(crc, byte)
    return bits.bxor(CRC_TABLE[bits.band(bits.bxor(crc, byte), 0xFF)], bits.rshift(crc, 8))
end

-- The packet's checksum by the coverage rule; tvb holds exactly one packet.
local function packet_crc(tvb, payloadlen, control)
    local crc = 0xFFFFFFFF
    local words = 5
    if control and payloadlen >= 4 then
        words = 6
    end
    for w = 0, words - 1 do
        for b = 3, 0, -1 do
            crc = crc_update(crc, tvb(w * 4 + b, 1):uint())
        end
    end
    local start = words * 4
    local stop = HEADER + payloadlen - 1
    if stop >= start then
        local bytes = tvb(start, stop - start + 1):bytes()
        for i = 0, bytes:len() - 1 do
            crc = crc_update(crc, bytes:get_index(i))
        end
    end
    return bits.band(bits.bnot(crc), 0xFFFFFFFF)
end

local function le32(range)
    return range:le_uint()
end

local function looks_like_json(range)
    local s = range:string()
    local first = s:match("^%s*(.)")
    return first == "{" or first == "["
end

-- Named fields inside the payloads whose layout this system fixes.
local function dissect_data_payload(tvb, tree, msgtype, payloadlen, from_app)
    local p = tvb(HEADER, payloadlen)
    if from_app and msgtype == 17 and payloadlen >= 1 then
        local textlen = math.min(payloadlen, 1024)
        tree:add(f.location, tvb(HEADER, textlen), tvb(HEADER, textlen):stringz())
        if payloadlen >= 1028 then
            local cw = tvb(HEADER + 1024, 4)
            tree:add(f.userdef, cw)
            tree:add(f.swver, cw)
            tree:add(f.packsize, cw)
        end
        if payloadlen >= 1032 then
            tree:add(f.blocks, tvb(HEADER + 1028, 4))
        end
    elseif from_app and msgtype >= 3 and msgtype <= 6 and payloadlen >= 4 then
        tree:add(f.length, tvb(HEADER, 4), le32(tvb(HEADER, 4)))
    elseif not from_app and msgtype == 2 and payloadlen == 4 then
        tree:add(f.size, p, le32(p))
    elseif not from_app and msgtype == 5 and payloadlen == 4 then
        tree:add(f.position, p)
    elseif payloadlen > 0 and looks_like_json(p) then
        tree:add(f.json, p, p:string())
    elseif from_app and (msgtype == 2 or msgtype == 19) then
        tree:add(f.text, p, p:string())
    end
    if payloadlen > 0 then
        tree:add(f.payload, p)
    end
end

local function message_name(control, msgtype, ackflag, ackcode, from_app)
    if control then
        if ackflag == 1 and ackcode then
            local n = ACK_CODES[ackcode] or string.format("0x%04X", ackcode)
            if msgtype == 0 and ackcode == 0xFB04 then
                return "acknowledge " .. n .. " (last package)"
            end
            -- The server acknowledges data requests too, with the request's msgType.
            local what = CTRL_TYPES[msgtype] or DATA_TYPES[msgtype] or ("type " .. msgtype)
            return what .. " " .. n
        end
        return CTRL_TYPES[msgtype] or "unknown"
    end
    if not from_app then
        return REPLY_TYPES[msgtype] or "unknown"
    end
    return DATA_TYPES[msgtype] or "unknown"
end

local function dissect_packet(tvb, pinfo, root)
    local word0 = tvb(0, 4):uint()
    local control = bits.rshift(word0, 31) == 1
    local marker = bits.band(bits.rshift(word0, 29), 3)
    local msgtype = bits.band(bits.rshift(word0, 24), 0x1F)
    local seqno = bits.band(word0, 0xFFFFFF)
    local payloadlen = tvb(12, 4):uint()
    -- The server's port is the one the dissector was registered on (9800, or another
    -- chosen with "Decode As").
    local server_port = pinfo.match_uint
    if server_port == nil or server_port == 0 then
        server_port = SERVER_PORT
    end
    local from_app = pinfo.dst_port == server_port

    local ackflag, ackcode
    if control and payloadlen >= 4 then
        local ackword = tvb(HEADER, 4):uint()
        ackflag = bits.rshift(ackword, 31)
        ackcode = bits.band(ackword, 0xFFFF)
    end
    local name = message_name(control, msgtype, ackflag, ackcode, from_app)

    local tree = root:add(korvel, tvb(0, HEADER + payloadlen + TRAILER))
    local w0 = tree:add(f.word0, tvb(0, 4))
    w0:add(f.reqtype, tvb(0, 4))
    w0:add(f.marker, tvb(0, 4))
    w0:add(f.msgtype, tvb(0, 4))
    w0:add(f.seqno, tvb(0, 4))
    tree:add(f.msgname, tvb(0, 4), name)
    tree:add(f.peerid, tvb(4, 4))
    tree:add(f.offset, tvb(8, 4))
    tree:add(f.payloadlen, tvb(12, 4))
    tree:add(f.timestamp, tvb(16, 4))

    if control and payloadlen >= 4 then
        local aw = tree:add(f.ackword, tvb(HEADER, 4))
        aw:add(f.ackflag, tvb(HEADER, 4))
        aw:add(f.ackvalue, tvb(HEADER, 4))
        aw:add(f.ackcode, tvb(HEADER, 4))
        if ackflag == 1 then
            aw:add(f.ackname, tvb(HEADER, 4), ACK_CODES[ackcode] or "unknown")
        end
    elseif not control then
        dissect_data_payload(tvb, tree, msgtype, payloadlen, from_app)
    end

    local crc_range = tvb(HEADER + payloadlen, TRAILER)
    local wire_crc = crc_range:uint()
    local computed = packet_crc(tvb, payloadlen, control)
    local ci = tree:add(f.crc, crc_range)
    ci:add(f.crc_calc, crc_range, computed):set_generated()
    ci:add(f.crc_ok, crc_range, computed == wire_crc):set_generated()
    if computed ~= wire_crc then
        ci:add_proto_expert_info(ef_crc)
    end

    local kind = control and "Ctrl" or "Data"
    local info = string.format("%s %s %s(%d) seq=%d marker=%d len=%d", from_app and "App>" or "<Srv",
                               kind, name, msgtype, seqno, marker, payloadlen)
    tree:append_text(string.format(", %s %s (%d), seq %d", kind, name, msgtype, seqno))
    pinfo.cols.info:append(info .. "  ")
end

-- Length of the packet that starts at offset; the header tells it.
local function packet_len(tvb, pinfo, offset)
    return tvb(offset + 12, 4):uint() + HEADER + TRAILER
end

function korvel.dissector(tvb, pinfo, tree)
    pinfo.cols.protocol = "KORVEL"
    pinfo.cols.info:clear()
    dissect_tcp_pdus(tvb, tree, HEADER, packet_len, function(ptvb, ppinfo, ptree)
        dissect_packet(ptvb, ppinfo, ptree)
        return ptvb:len()
    end)
    return tvb:len()
end

DissectorTable.get("tcp.port"):add(SERVER_PORT, korvel)
