-- Wireshark dissector for the framed message stream of Util::HijackApi (Framework/GCL/HijackApi.h).
--
-- A frame is a header of three unsigned 32-bit words, most significant byte first (sync id,
-- sequence number, payload length), and the payload. Each side has a sync id of its own. The
-- dissector reads a stream as the library's reader does: it hunts for the sender's sync id byte by
-- byte, takes the header, and hunts on behind the header of a frame that is longer than its reader
-- accepts. So it finds its way after garbage and in a capture that begins in mid-stream.
--
-- Wireshark finds this file by itself in its folder for plugins (tshark -G folders); elsewhere:
--
--     tshark -X lua_script:kivgcl.lua -o kivgcl.ports:4680 -r capture.pcapng
--
-- Without a port, choose KivGCL by "Decode As" (tshark -d tcp.port==4680,kivgcl).
--
-- Preferences
--   kivgcl.ports         the servers' TCP ports, such as 4680,5000-5010
--   kivgcl.client_sync   the sync id of the frames that clients send, in hexadecimal
--   kivgcl.server_sync   the sync id of the frames that servers send
--   kivgcl.max_payload   the longest payload that a reader accepts, in bytes
-- The port of a stream tells which side sends which sync id. Where it does not, the first of the
-- two that is found in a direction is taken for that direction's.
--
-- Fields
--   kivgcl.sender        "Client" or "Server"; "Peer" where the sync ids are the same and the port
--                        does not tell
--   kivgcl.sync_id       the sync id
--   kivgcl.sequence      the sequence number
--   kivgcl.length        the payload's length
--   kivgcl.payload       the payload
--   kivgcl.missing       how many frames are missing before this one
--   kivgcl.garbage       bytes that belong to no frame
--   kivgcl.expert.gap, .repeat, .back, .oversized, .garbage, .start, .cut, .preferences
--                        what is remarkable, as expert information
-- Numbering is followed in each direction by itself. The number of the first frame in a capture
-- says nothing: a client counts from 0 and goes on counting over its connections.
--
-- TCP's own preferences matter: frames over several segments need "Allow subdissector to reassemble
-- TCP streams" (on by default), segments out of order "Reassemble out-of-order segments" (off by
-- default: tcp.reassemble_out_of_order:TRUE).

local proto = Proto("kivgcl", "KivGCL Framed Messages")

local fields = {
    sender = ProtoField.string("kivgcl.sender", "Sender"),
    sync_id = ProtoField.uint32("kivgcl.sync_id", "Sync Id", base.HEX),
    sequence = ProtoField.uint32("kivgcl.sequence", "Sequence Number", base.DEC),
    length = ProtoField.uint32("kivgcl.length", "Payload Length", base.DEC),
    payload = ProtoField.bytes("kivgcl.payload", "Payload"),
    missing = ProtoField.uint32("kivgcl.missing", "Missing Frames", base.DEC),
    garbage = ProtoField.bytes("kivgcl.garbage", "Garbage"),
}
proto.fields = fields

local function expert_info(name, text, group, severity)
    return ProtoExpert.new("kivgcl.expert." .. name, text, group, severity)
end

local experts = {
    gap = expert_info("gap", "Frames are missing", expert.group.SEQUENCE, expert.severity.WARN),
    again = expert_info("repeat", "Sequence number repeated", expert.group.SEQUENCE,
                        expert.severity.WARN),
    back = expert_info("back", "Sequence number goes back", expert.group.SEQUENCE,
                       expert.severity.WARN),
    oversized = expert_info("oversized", "Longer than a reader accepts", expert.group.MALFORMED,
                            expert.severity.ERROR),
    garbage = expert_info("garbage", "Garbage between frames", expert.group.MALFORMED,
                          expert.severity.WARN),
    start = expert_info("start", "Bytes before the first sync id", expert.group.UNDECODED,
                        expert.severity.NOTE),
    cut = expert_info("cut", "Frame not whole in the capture", expert.group.REASSEMBLE,
                      expert.severity.NOTE),
    preferences = expert_info("preferences", "A sync id of the preferences is no hexadecimal word",
                              expert.group.UNDECODED, expert.severity.ERROR),
}
proto.experts = experts

-- The defaults are those of the peer node that comes with the library, which accepts as much.
proto.prefs.ports = Pref.range("TCP ports of servers", "", "Such as 4680,5000-5010", 65535)
proto.prefs.client_sync = Pref.string("Sync id of clients", "0x434c4e54", "Hexadecimal, 32 bits")
proto.prefs.server_sync = Pref.string("Sync id of servers", "0x4e4f4445", "Hexadecimal, 32 bits")
proto.prefs.max_payload = Pref.uint("Longest payload", 1048576,
                                    "In bytes; a longer frame is given up behind its header")

local tcp_stream = Field.new("tcp.stream")

local HEADER = 8 -- bytes behind the sync id
local NOTHING_READ = "\0\0\0" -- what a reader counts as read before it begins to hunt

-- How a direction of a stream stands:
--   sync    the four bytes of its sync id, nil as long as it is not known
--   carry   the three bytes before the next one, as the hunt counts them
--   last    the last sequence number, nil before the first frame
--   left    how many bytes were left over, for which more were wanted
local directions = {}
-- By frame and call of the dissector: how the direction stood before, how many bytes were dealt
-- with and how many more were wanted. Wireshark dissects a frame again whenever it likes, in any
-- order, and then need not hand out more than what was dealt with.
local calls = {}

local clients_send, servers_send -- the sync ids as four bytes, nil for a bad preference
local server_ports = {} -- pairs of the first and last port of a range
local registered = ""

function proto.init()
    directions = {}
    calls = {}
end

local function word_of(text)
    local digits = text:match("^%s*0[xX](%x+)%s*$") or text:match("^%s*(%x+)%s*$")
    if not digits or #digits > 8 then
        return nil
    end
    digits = ("0"):rep(8 - #digits) .. digits
    return (digits:gsub("%x%x", function(byte) return string.char(tonumber(byte, 16)) end))
end

local function apply_preferences()
    clients_send = word_of(proto.prefs.client_sync)
    servers_send = word_of(proto.prefs.server_sync)
    local ports = proto.prefs.ports
    if ports == registered then
        return
    end
    local tcp = DissectorTable.get("tcp.port")
    if registered ~= "" then
        tcp:remove(registered, proto)
    end
    if ports ~= "" then
        tcp:add(ports, proto)
    end
    registered = ports
    server_ports = {}
    for range in ports:gmatch("[^,]+") do
        local first, last = range:match("(%d+)%s*-%s*(%d+)")
        first = tonumber(first or range)
        server_ports[#server_ports + 1] = {first, tonumber(last) or first}
    end
end

local function is_server(port)
    for _, range in ipairs(server_ports) do
        if range[1] <= port and port <= range[2] then
            return true
        end
    end
    return false
end

-- The sync id that the sender's port promises, nil where both or neither port is a server's.
local function promised_sync(pinfo)
    local from_server, to_server = is_server(pinfo.src_port), is_server(pinfo.dst_port)
    if from_server == to_server then
        return nil
    end
    return from_server and servers_send or clients_send
end

local function sender_name(pinfo, sync)
    if clients_send ~= servers_send then
        return sync == servers_send and "Server" or "Client"
    end
    if promised_sync(pinfo) == nil then
        return "Peer"
    end
    return is_server(pinfo.src_port) and "Server" or "Client"
end

-- The first sync id in the bytes: where it begins, and the id.
local function find_sync(bytes, sync)
    if sync then
        return bytes:find(sync, 1, true), sync
    end
    local client, server = bytes:find(clients_send, 1, true), bytes:find(servers_send, 1, true)
    if client and (not server or client <= server) then
        return client, clients_send
    end
    return server, servers_send
end

-- How many of the last bytes may be the beginning of a sync id.
local function begun_sync(bytes, sync)
    for count = 3, 1, -1 do
        for _, id in ipairs(sync and {sync} or {clients_send, servers_send}) do
            if bytes:sub(-count) == id:sub(1, count) then
                return count
            end
        end
    end
    return 0
end

local function plural(count, noun)
    return ("%u %s%s"):format(count, noun, count == 1 and "" or "s")
end

-- Adds to the line of the packet list, which tells all that is in the segment.
local function tell(pinfo, text)
    local told = pinfo.private["kivgcl_told"]
    pinfo.cols.protocol = "KivGCL"
    if told then
        pinfo.cols.info:append("; " .. text)
    else
        pinfo.cols.info:set(text)
        pinfo.private["kivgcl_told"] = "yes"
    end
end

local function show_garbage(range, pinfo, tree, state)
    local count = range:len()
    local item = tree:add(proto, range, ("KivGCL, %s of no frame"):format(plural(count, "byte")))
    item:add(fields.garbage, range)
    if state.last then
        item:add_proto_expert_info(experts.garbage, ("Garbage: %s skipped in search of a sync id")
                                   :format(plural(count, "byte")))
    else
        item:add_proto_expert_info(experts.start, ("%s before the first sync id")
                                   :format(plural(count, "byte")))
    end
    tell(pinfo, plural(count, "byte") .. " of no frame")
end

local function check_sequence(item, sequence, last)
    local step = (sequence - last) % 4294967296
    if step == 0 then
        item:add_proto_expert_info(experts.again, ("Sequence number %u repeated"):format(sequence))
    elseif step >= 2147483648 then
        item:add_proto_expert_info(experts.back, ("Sequence number goes back from %u to %u")
                                   :format(last, sequence))
    elseif step > 1 then
        item:add(fields.missing, step - 1):set_generated()
        item:add_proto_expert_info(experts.gap, ("%s missing between %u and %u")
                                   :format(plural(step - 1, "frame"), last, sequence))
    end
end

-- Shows a frame, or what there is of it.
local function show_frame(tvb, frame, pinfo, tree, state)
    local sender = sender_name(pinfo, state.sync)
    local sync_start, sync_end, shown_end = frame.first, frame.sync_end, frame.last
    local rest = shown_end - sync_end
    local item = tree:add(proto, tvb(sync_start, shown_end - sync_start), "KivGCL, " .. sender)
    item:add(fields.sender, sender):set_generated()
    item:add(fields.sync_id, tvb(sync_start, sync_end - sync_start))
    local text = sender .. " frame"
    if rest >= 4 then
        local sequence = tvb(sync_end, 4):uint()
        item:add(fields.sequence, tvb(sync_end, 4))
        text = ("%s %u"):format(text, sequence)
        if state.last then
            check_sequence(item, sequence, state.last)
        end
        state.last = sequence
    end
    if rest >= HEADER then
        local size = tvb(sync_end + 4, 4):uint()
        local size_item = item:add(fields.length, tvb(sync_end + 4, 4))
        text = ("%s, %s"):format(text, plural(size, "byte"))
        if size > proto.prefs.max_payload then
            text = text .. ", oversized"
            size_item:add_proto_expert_info(
                experts.oversized, ("%u bytes are more than the %u that a reader accepts")
                :format(size, proto.prefs.max_payload))
        elseif shown_end > sync_end + HEADER then
            item:add(fields.payload, tvb(sync_end + HEADER, shown_end - sync_end - HEADER))
        end
    end
    if not frame.whole then
        text = text .. ", cut"
        item:add_proto_expert_info(experts.cut)
    end
    item:set_text("KivGCL, " .. text)
    tell(pinfo, text)
end

-- What the first `length` bytes hold: a list of frames and garbage, how many bytes those are, and
-- how many more the next frame needs, nil where nothing is left over. As long as its length is not
-- known, another segment is asked for: Wireshark forgets a request for a few bytes that grows
-- within one segment.
local function parse(tvb, length, may_wait, state)
    local data = tvb:raw(0, length)
    local items = {}
    local at = 0
    while at < length do
        -- The hunt sees the bytes before this one, too.
        local seen = state.carry .. data:sub(at + 1)
        local function skip_to(offset)
            if offset > at then
                items[#items + 1] = {first = at, last = offset}
                state.carry = seen:sub(offset - at + 1, offset - at + 3)
            end
        end
        local found, sync = find_sync(seen, state.sync)
        if not found then
            local kept = may_wait and math.min(begun_sync(seen, state.sync), length - at) or 0
            skip_to(length - kept)
            return items, length - kept, kept > 0 and DESEGMENT_ONE_MORE_SEGMENT or nil
        end
        local sync_end = at + found
        local sync_start = math.max(at, sync_end - 4)
        skip_to(sync_start)
        state.sync = sync
        local header_end = sync_end + HEADER
        local frame_end = header_end
        if header_end <= length then
            local size = tvb(sync_end + 4, 4):uint()
            if size <= proto.prefs.max_payload then
                frame_end = header_end + size
            end
        end
        if frame_end > length and may_wait then
            local known = header_end <= length
            return items, sync_start, known and frame_end - length or DESEGMENT_ONE_MORE_SEGMENT
        end
        at = math.min(frame_end, length)
        items[#items + 1] = {first = sync_start, sync_end = sync_end, last = at,
                             whole = frame_end <= length}
        state.carry = NOTHING_READ
    end
    return items, length, nil
end

local function show(tvb, items, pinfo, tree, state)
    for _, item in ipairs(items) do
        if item.sync_end then
            show_frame(tvb, item, pinfo, tree, state)
        else
            show_garbage(tvb(item.first, item.last - item.first), pinfo, tree, state)
        end
    end
end

local function copy(state)
    return {sync = state.sync, carry = state.carry, last = state.last, left = state.left}
end

-- A call for bytes that Wireshark has not handed out before. Returns what parse does.
local function take(tvb, pinfo, state)
    local length = tvb:len()
    local before = copy(state)
    local items, done, wanted = parse(tvb, length, pinfo.can_desegment > 0, state)
    if wanted and done > 0 and done <= before.left then
        -- What would be dealt with came in earlier segments: Wireshark would hand it out again.
        items, done, wanted = {}, 0, DESEGMENT_ONE_MORE_SEGMENT
        state.sync, state.carry = before.sync, before.carry
    end
    state.left = length - done
    return items, done, wanted
end

function proto.dissector(tvb, pinfo, tree)
    local length = tvb:len()
    if length == 0 then
        return 0
    end
    if not clients_send or not servers_send then
        tree:add(proto, tvb()):add_proto_expert_info(experts.preferences)
        return length
    end
    -- Wireshark does not tell the stream where it builds no tree; then a connection counts as the
    -- continuation of an earlier one between the same ports.
    local direction = ("%s: %s %u, %s %u"):format(tostring((tcp_stream())), tostring(pinfo.src),
                                                  pinfo.src_port, tostring(pinfo.dst),
                                                  pinfo.dst_port)
    local number = tonumber(pinfo.private["kivgcl_calls"]) or 0
    local call = ("%u %u"):format(pinfo.number, number)
    local known = pinfo.visited and calls[call]
    local state, items, done, wanted
    if known then
        state = copy(known.state)
        done = math.min(known.done, length)
        wanted = done < length and known.wanted or nil
        items = parse(tvb, done, false, state)
    else
        state = copy(directions[direction]
                     or {sync = promised_sync(pinfo), carry = NOTHING_READ, left = 0})
        local before = copy(state)
        items, done, wanted = take(tvb, pinfo, state)
        -- A call that only asks for more leaves no trace: it is not repeated.
        if done > 0 then
            calls[call] = {state = before, done = done, wanted = wanted}
        end
    end
    show(tvb, items, pinfo, tree, state)
    if done > 0 then
        pinfo.private["kivgcl_calls"] = tostring(number + 1)
    end
    if not pinfo.visited then
        directions[direction] = state
    end
    if wanted then
        pinfo.desegment_offset = done
        pinfo.desegment_len = wanted
    end
    return length
end

proto.prefs_changed = apply_preferences
apply_preferences()
DissectorTable.get("tcp.port"):add_for_decode_as(proto)
