-- Wireshark dissector for the KV-3000 link of kv3000-host, kv3000-sim and the
-- controllers they talk to. Plain Lua for Wireshark's Lua API: copy it into
-- ~/.local/lib/wireshark/plugins/ (or install it with the project), or load
-- it once with `tshark -X lua_script:kv3000.lua`.
--
-- It decodes
--   * captures written by `kv3000-host --capture` and `kv3000-sim --capture`:
--     pcap link type USER0, each record a direction byte (0 request, 1 reply)
--     and one frame; an empty reply record means that no reply came;
--   * raw TCP captures (tcpdump) of a link on the port set in the
--     preferences (default 8000): the direction comes from the port, and
--     frames split across segments are reassembled.
--
-- Requests: [06] 01 00 FF L <L command bytes> check 04, the check byte the low
-- byte of the check sum over FF, L and the command bytes (negated when the sum
-- is above 255). Replies: 06 01 00 FF <body> check 04, the check byte over FF
-- and the body. Numbers are sent most significant byte first.

local kv = Proto("kv3000", "KV-3000 link")

-- Area codes of reads, word writes and bit writes: the register each names,
-- the bytes one counted unit takes in a read reply (R and B are read in words
-- of 16 bits, T and C as nine-byte timer/counter records), and how its
-- addresses are written. The same rules as include/kv3000_traits.h derives
-- from the catalogue; tests/e2e/e2e_capture.sh compares the two.
local AREAS = {
    [0] = { name = "R", unit = 2, bits = true, notation = "wordbit" },
    [1] = { name = "CR", unit = 2, relay = true },
    [2] = { name = "T", unit = 9, record = true },
    [3] = { name = "C", unit = 9, record = true },
    [6] = { name = "DM", unit = 2 },
    [7] = { name = "CM", unit = 2 },
    [8] = { name = "TM", unit = 2 },
    [17] = { name = "MR", unit = 2, relay = true },
    [18] = { name = "LR", unit = 2, relay = true },
    [23] = { name = "EM", unit = 2 },
    [25] = { name = "FM", unit = 2 },
    [27] = { name = "B", unit = 2, bits = true, notation = "hex" },
    [28] = { name = "W", unit = 2, notation = "hex" },
    [38] = { name = "TRM", unit = 4 },
    [44] = { name = "ZF", unit = 2 },
    [48] = { name = "Z", unit = 4 },
}
-- Area codes of timer/counter value writes.
local VALUE_AREAS = { [32] = "TC", [33] = "TS", [34] = "CC", [35] = "CS" }

local ACK, SOF, EOT, HDR2, HDR3 = 0x06, 0x01, 0x04, 0x00, 0xFF
local CMD_HANDSHAKE_1, CMD_HANDSHAKE_2, CMD_WORD = 0x07, 0x20, 0x1E
local CMD_BIT_SET, CMD_BIT_RESET, CMD_VALUE_WRITE, REFUSAL = 0x32, 0x33, 0x18, 0x15
local MAX_UNITS = 1024 -- a longer read is taken for a broken frame

local area_names = {}
for code, a in pairs(AREAS) do area_names[code] = a.name end
for code, name in pairs(VALUE_AREAS) do area_names[code] = name end

local f = {
    direction = ProtoField.uint8("kv3000.direction", "Direction", base.DEC,
        { [0] = "host to controller (request)", [1] = "controller to host (reply)" }),
    ack = ProtoField.uint8("kv3000.ack", "Acknowledge", base.HEX),
    operation = ProtoField.string("kv3000.operation", "Operation"),
    length = ProtoField.uint8("kv3000.length", "Command length", base.DEC),
    command = ProtoField.uint8("kv3000.command", "Command", base.HEX, {
        [CMD_HANDSHAKE_1] = "handshake 1", [CMD_HANDSHAKE_2] = "handshake 2", [CMD_WORD] = "block read/write",
        [CMD_BIT_SET] = "bit set", [CMD_BIT_RESET] = "bit reset",
        [CMD_VALUE_WRITE] = "timer/counter value write", [REFUSAL] = "refusal" }),
    area = ProtoField.uint8("kv3000.area", "Area", base.DEC, area_names),
    register = ProtoField.string("kv3000.register", "Register"),
    start = ProtoField.uint32("kv3000.start", "Start (frame)", base.DEC),
    address = ProtoField.string("kv3000.address", "Address"),
    count = ProtoField.uint16("kv3000.count", "Count", base.DEC),
    word = ProtoField.uint16("kv3000.word", "Word", base.DEC_HEX),
    dword = ProtoField.uint32("kv3000.dword", "Double word", base.DEC_HEX),
    value = ProtoField.uint32("kv3000.value", "Value", base.DEC),
    bit = ProtoField.uint8("kv3000.bit", "Bit", base.DEC, { [0] = "reset", [1] = "set" }),
    record = ProtoField.bytes("kv3000.record", "Timer/counter record"),
    contact = ProtoField.bool("kv3000.record.contact", "Contact", 8, { "closed", "open" }, 0x80),
    current = ProtoField.uint32("kv3000.record.current", "Current value", base.DEC),
    set = ProtoField.uint32("kv3000.record.set", "Set value", base.DEC),
    item = ProtoField.string("kv3000.item", "Item"),
    status = ProtoField.uint8("kv3000.status", "Status", base.HEX, { [0] = "ok" }),
    refusal = ProtoField.uint8("kv3000.refusal", "Refusal code", base.DEC, {
        [1] = "check byte wrong", [2] = "unknown command", [3] = "area not valid for the command",
        [4] = "address or count out of range", [5] = "wrong length" }),
    check = ProtoField.uint8("kv3000.check", "Check byte", base.HEX),
    check_status = ProtoField.string("kv3000.check.status", "Check byte status"),
    check_expected = ProtoField.uint8("kv3000.check.expected", "Expected check byte", base.HEX),
    eot = ProtoField.uint8("kv3000.end", "End", base.HEX),
    data = ProtoField.bytes("kv3000.data", "Undecoded bytes"),
    garbage = ProtoField.bytes("kv3000.garbage", "Bytes outside any frame"),
    request_in = ProtoField.framenum("kv3000.request_in", "Request in", base.NONE, frametype.REQUEST),
    response_in = ProtoField.framenum("kv3000.response_in", "Reply in", base.NONE, frametype.RESPONSE),
    response_time = ProtoField.relative_time("kv3000.response_time", "Response time"),
    answers = ProtoField.string("kv3000.answers", "Reply to"),
}
kv.fields = {}
for _, field in pairs(f) do table.insert(kv.fields, field) end

local e = {
    check_bad = ProtoExpert.new("kv3000.check.bad", "Wrong check byte", expert.group.CHECKSUM,
        expert.severity.WARN),
    truncated = ProtoExpert.new("kv3000.truncated", "Frame cut short", expert.group.MALFORMED,
        expert.severity.ERROR),
    malformed = ProtoExpert.new("kv3000.malformed", "Malformed frame", expert.group.MALFORMED,
        expert.severity.ERROR),
    no_reply = ProtoExpert.new("kv3000.no_reply", "No reply came", expert.group.RESPONSE_CODE,
        expert.severity.WARN),
    refused = ProtoExpert.new("kv3000.refused", "Request refused", expert.group.RESPONSE_CODE,
        expert.severity.WARN),
    status_bad = ProtoExpert.new("kv3000.status.bad", "Status not ok", expert.group.RESPONSE_CODE,
        expert.severity.WARN),
    mismatch = ProtoExpert.new("kv3000.mismatch", "Reply does not fit its request", expert.group.SEQUENCE,
        expert.severity.WARN),
    no_request = ProtoExpert.new("kv3000.no_request", "Reply without a request", expert.group.SEQUENCE,
        expert.severity.NOTE),
    garbage = ProtoExpert.new("kv3000.noise", "Bytes outside any frame", expert.group.PROTOCOL,
        expert.severity.WARN),
}
kv.experts = {}
for _, ex in pairs(e) do table.insert(kv.experts, ex) end

kv.prefs.tcp_port = Pref.uint("TCP port", 8000, "TCP port of the controller (raw TCP captures)")

local f_tcp_stream = Field.new("tcp.stream")

------------------------------------------------------------------------------
-- Numbers and addresses

local function floor_div(a, b) return math.floor(a / b) end

-- The check byte over t(first) .. t(last).
local function check_byte(t, first, last)
    local sum = 0
    for i = first, last do sum = sum + t(i, 1):uint() end
    if sum > 255 then sum = -sum end
    return sum % 256
end

local function area_name(code)
    return area_names[code] or ("area " .. code)
end

-- An address of the area as its register writes it: R word.bit, B and W
-- hexadecimal, relay words (MR, LR, CR) from their bit-scaled frame address.
local function address_text(code, n)
    local a = AREAS[code]
    if a and (a.notation == "wordbit" or (a.relay and n % 16 ~= 0)) then
        return string.format("%d.%02d", floor_div(n, 16), n % 16)
    end
    if a and a.notation == "hex" then return string.format("%X", n) end
    if a and a.relay then return tostring(floor_div(n, 16)) end
    return tostring(n)
end

-- Frame address of the i-th unit (from 0) of a block read or write.
local function unit_start(code, start, i)
    local a = AREAS[code]
    if a and (a.bits or a.relay) then return start + 16 * i end
    return start + i
end

local function short_list(list)
    if #list <= 8 then return table.concat(list, ", ") end
    local head = {}
    for i = 1, 8 do head[i] = list[i] end
    return table.concat(head, ", ") .. ", ... (" .. #list .. ")"
end

------------------------------------------------------------------------------
-- Values

-- Adds count units of width bytes from t(o) to tree, labelled with their
-- addresses from start (with no start known, "DM+2" for the third unit);
-- returns the values as text for the Info column.
local function add_values(t, o, tree, code, start, count, width)
    local shown = {}
    local name = area_name(code)
    local a = AREAS[code]
    for i = 0, count - 1 do
        local at = o + i * width
        if at + width > t:len() then break end
        local label = start and name .. address_text(code, unit_start(code, start, i)) or (name .. "+" .. i)
        local text
        if width == 9 then
            local rt = tree:add(f.record, t(at, 9))
            rt:add(f.contact, t(at, 1))
            rt:add(f.current, t(at + 1, 4))
            rt:add(f.set, t(at + 5, 4))
            local contact = t(at, 1):uint() >= 0x80 and 1 or 0
            text = string.format("contact %d current %d set %d", contact, t(at + 1, 4):uint(), t(at + 5, 4):uint())
            rt:set_text(label .. ": " .. text)
            rt:add(f.item, label .. "=" .. text):set_generated()
        else
            local v = t(at, width):uint()
            local vt = tree:add(width == 4 and f.dword or f.word, t(at, width))
            if a and a.bits then
                text = string.format("0x%04X", v)
                local last = start and (" to " .. name .. address_text(code, unit_start(code, start, i) + 15)) or ""
                vt:set_text(label .. ": " .. text .. " (16 bits from " .. label .. last .. ", lowest first)")
            else
                text = tostring(v)
                vt:set_text(string.format(width == 4 and "%s: %d (0x%08X)" or "%s: %d (0x%04X)", label, v, v))
            end
            vt:add(f.item, label .. "=" .. text):set_generated()
        end
        table.insert(shown, label .. "=" .. text)
    end
    return short_list(shown)
end

------------------------------------------------------------------------------
-- Envelope checks

-- Adds the check byte at position at (verified over first .. at-1) and the
-- end byte after it. Returns a note for the Info column when the check fails.
local function add_trailer(t, tree, first, at)
    local n = t:len()
    if at >= n then return "" end
    local want = check_byte(t, first, at - 1)
    local got = t(at, 1):uint()
    local ct = tree:add(f.check, t(at, 1))
    local note = ""
    if got == want then
        ct:add(f.check_status, "good"):set_generated()
    else
        ct:add(f.check_status, "bad"):set_generated()
        ct:add(f.check_expected, want):set_generated()
        ct:add_proto_expert_info(e.check_bad,
            string.format("Wrong check byte: 0x%02X, expected 0x%02X", got, want))
        note = " [wrong check byte]"
    end
    if at + 1 < n then
        local et = tree:add(f.eot, t(at + 1, 1))
        if t(at + 1, 1):uint() ~= EOT then
            et:add_proto_expert_info(e.malformed, "The frame does not end in 04")
            note = note .. " [no 04 at the end]"
        end
    end
    return note
end

-- Flags a frame shorter or longer than its layout says; true when cut short.
local function check_size(t, tree, want)
    local n = t:len()
    if n < want then
        tree:add_proto_expert_info(e.truncated, string.format("Frame cut short: %d of %d bytes", n, want))
        return true
    end
    if n > want then
        tree:add(f.data, t(want, n - want)):add_proto_expert_info(e.malformed,
            string.format("%d bytes after the end of the frame", n - want))
    end
    return false
end

------------------------------------------------------------------------------
-- Requests

-- Decodes one request frame in t; returns what it asks (for pairing with its
-- reply) and the Info text.
local function dissect_request(t, tree)
    local n = t:len()
    local req = { op = "unknown", expect = nil }
    local p = 0
    if t(0, 1):uint() == ACK then
        tree:add(f.ack, t(0, 1))
        if n == 1 then
            tree:add(f.operation, "acknowledge"):set_generated()
            req.op = "acknowledge"
            req.lone_ack = true
            return req, "acknowledge"
        end
        p = 1
    end
    if n < p + 4 or t(p, 1):uint() ~= SOF or t(p + 1, 1):uint() ~= HDR2 or t(p + 2, 1):uint() ~= HDR3 then
        local bad = n < p + 4 and "too short for 01 00 FF L" or "does not start with [06] 01 00 FF"
        tree:add(f.data, t(p, n - p)):add_proto_expert_info(e.malformed, "Malformed request: " .. bad)
        return req, "malformed request"
    end
    local L = t(p + 3, 1):uint()
    tree:add(f.length, t(p + 3, 1))
    local c = p + 4 -- first command byte
    local cut = check_size(t, tree, c + L + 2)
    local function has(k) return L >= k and c + k <= n end
    if not has(1) then
        tree:add_proto_expert_info(e.malformed, "Request without command bytes")
        return req, "malformed request"
    end
    local cmd = t(c, 1):uint()
    tree:add(f.command, t(c, 1))
    local info
    if cmd == CMD_HANDSHAKE_1 or cmd == CMD_HANDSHAKE_2 then
        req.op = cmd == CMD_HANDSHAKE_1 and "handshake 1" or "handshake 2"
        req.cmd = cmd
        tree:add(f.operation, req.op):set_generated()
        info = req.op
    elseif cmd == CMD_WORD and has(12) then
        local sub = t(c + 1, 1):uint()
        local code = t(c + 3, 1):uint()
        local count = t(c + 6, 2):uint()
        local start = t(c + 8, 4):uint()
        local a = AREAS[code]
        req.cmd, req.area, req.count, req.start = cmd, code, count, start
        req.op = sub == 1 and "write" or (sub == 0 and "read" or "unknown")
        tree:add(f.operation, req.op == "write" and "word write" or req.op):set_generated()
        tree:add(f.area, t(c + 3, 1))
        tree:add(f.register, area_name(code)):set_generated()
        tree:add(f.start, t(c + 8, 4))
        tree:add(f.address, address_text(code, start)):set_generated()
        tree:add(f.count, t(c + 6, 2))
        local what = area_name(code) .. address_text(code, start) .. " x" .. count
        if not a then tree:add_proto_expert_info(e.malformed, "Unknown area code " .. code) end
        if req.op == "read" then
            info = "read " .. what
            if a then req.expect = 11 + count * a.unit end
        elseif req.op == "write" then
            local width = (a and a.unit == 4) and 4 or 2
            local bytes = L - 12
            if bytes ~= count * width then
                tree:add_proto_expert_info(e.malformed,
                    string.format("%d data bytes for %d units of %d bytes", bytes, count, width))
            end
            local values = add_values(t, c + 12, tree, code, start, math.min(count, floor_div(bytes, width)), width)
            info = "write " .. what .. ": " .. values
            req.expect = 10
        else
            tree:add_proto_expert_info(e.malformed, string.format("Unknown block operation 0x%02X", sub))
            info = "unknown block request"
        end
    elseif (cmd == CMD_BIT_SET or cmd == CMD_BIT_RESET) and has(6) then
        local code = t(c + 3, 1):uint()
        local bitno = t(c + 4, 2):uint()
        req.cmd, req.area, req.start, req.count = cmd, code, bitno, 1
        req.op = cmd == CMD_BIT_SET and "bit set" or "bit reset"
        tree:add(f.operation, req.op):set_generated()
        tree:add(f.area, t(c + 3, 1))
        tree:add(f.register, area_name(code)):set_generated()
        tree:add(f.start, t(c + 4, 2))
        tree:add(f.address, address_text(code, bitno)):set_generated()
        local state = cmd == CMD_BIT_SET and 1 or 0
        local label = area_name(code) .. address_text(code, bitno)
        tree:add(f.bit, state):set_generated()
        tree:add(f.item, label .. "=" .. state):set_generated()
        if not (AREAS[code] and AREAS[code].bits) then
            tree:add_proto_expert_info(e.malformed, "Area " .. code .. " has no single bits to write")
        end
        info = req.op .. " " .. label
        req.expect = 9
    elseif cmd == CMD_VALUE_WRITE and has(10) then
        local code = t(c + 3, 1):uint()
        local addr = t(c + 4, 2):uint()
        local v = t(c + 6, 4):uint()
        req.cmd, req.area, req.start, req.count = cmd, code, addr, 1
        req.op = "value write"
        tree:add(f.operation, req.op):set_generated()
        tree:add(f.area, t(c + 3, 1))
        tree:add(f.register, area_name(code)):set_generated()
        tree:add(f.start, t(c + 4, 2))
        tree:add(f.address, tostring(addr)):set_generated()
        local label = area_name(code) .. addr
        tree:add(f.value, t(c + 6, 4)):set_text(label .. ": " .. v)
        tree:add(f.item, label .. "=" .. v):set_generated()
        if not VALUE_AREAS[code] then
            tree:add_proto_expert_info(e.malformed, "Area " .. code .. " is not a timer/counter value")
        end
        info = "value write " .. label .. " = " .. v
        req.expect = 9
    else
        if not cut then
            tree:add_proto_expert_info(e.malformed, string.format("Unknown command 0x%02X or wrong length", cmd))
        end
        info = "unknown request"
    end
    if cut then info = info .. " [cut short]" end
    info = info .. add_trailer(t, tree, p + 2, c + L)
    req.text = info
    return req, info
end

------------------------------------------------------------------------------
-- Replies

-- Whether t(o) .. starts 06 01 00 FF, as far as there are bytes.
local function starts_reply(t, o)
    local n = t:len() - o
    local want = { ACK, SOF, HDR2, HDR3 }
    for i = 1, math.min(n, 4) do
        if t(o + i - 1, 1):uint() ~= want[i] then return false end
    end
    return true
end

-- Length of the reply that starts at t(o), from its own bytes; nil when more
-- bytes are needed to know, false when it cannot be told (unknown command).
local function reply_length(t, o)
    local n = t:len() - o
    if n < 5 then return nil end
    local cmd = t(o + 4, 1):uint()
    if cmd == CMD_WORD then
        if n < 6 then return nil end
        if t(o + 5, 1):uint() == 1 then return 10 end
        if n < 9 then return nil end
        local a = AREAS[t(o + 6, 1):uint()]
        local count = t(o + 7, 2):uint()
        if not a or count > MAX_UNITS then return false end
        return 11 + count * a.unit
    end
    if cmd == CMD_BIT_SET or cmd == CMD_BIT_RESET or cmd == CMD_VALUE_WRITE or cmd == CMD_HANDSHAKE_1 then
        return 9
    end
    if cmd == CMD_HANDSHAKE_2 then return 10 end
    if cmd == REFUSAL then return 8 end
    return false
end

local function add_status(t, tree, at)
    if at >= t:len() then return "" end
    local st = t(at, 1):uint()
    local it = tree:add(f.status, t(at, 1))
    if st ~= 0 then
        it:add_proto_expert_info(e.status_bad, string.format("Status 0x%02X", st))
        return string.format(" status 0x%02X", st)
    end
    return " ok"
end

-- Decodes one reply frame in t, with the request it answers (or nil).
local function dissect_reply(t, tree, req)
    local n = t and t:len() or 0
    if n == 0 then
        tree:add(f.operation, "no reply"):set_generated()
        tree:add_proto_expert_info(e.no_reply, "No reply came (timeout, or dropped)")
        return "no reply"
    end
    local o = 0
    -- Bytes in front of the reply (line noise) are shown as such.
    while o + 4 <= n and not (t(o, 1):uint() == ACK and t(o + 1, 1):uint() == SOF and
            t(o + 2, 1):uint() == HDR2 and t(o + 3, 1):uint() == HDR3) do
        o = o + 1
    end
    if o + 4 > n then
        local item = tree:add(f.data, t(0, n))
        if n < 4 and starts_reply(t, 0) then
            item:add_proto_expert_info(e.truncated, "Frame cut short: " .. n .. " bytes")
            return "reply cut short"
        end
        item:add_proto_expert_info(e.malformed, "Malformed reply: no 06 01 00 FF in " .. n .. " bytes")
        return "malformed reply"
    end
    if o > 0 then
        tree:add(f.garbage, t(0, o)):add_proto_expert_info(e.garbage, o .. " bytes before the reply")
        t = t(o):tvb()
        n = t:len()
    end
    tree:add(f.ack, t(0, 1))
    if n < 5 then
        tree:add_proto_expert_info(e.truncated, "Frame cut short: " .. n .. " bytes")
        return "reply cut short"
    end
    local cmd = t(4, 1):uint()
    tree:add(f.command, t(4, 1))
    local size = reply_length(t, 0)
    local cut = false
    if size then cut = check_size(t, tree, size) end
    local info
    local function has(k) return k <= n end
    if cmd == REFUSAL and has(6) then
        local code = t(5, 1):uint()
        tree:add(f.operation, "refusal"):set_generated()
        tree:add(f.refusal, t(5, 1)):add_proto_expert_info(e.refused, "Request refused, code " .. code)
        info = "refused, code " .. code
    elseif cmd == CMD_WORD and has(9) and t(5, 1):uint() == 0 then
        local code = t(6, 1):uint()
        local count = t(7, 2):uint()
        local a = AREAS[code]
        tree:add(f.operation, "read"):set_generated()
        tree:add(f.area, t(6, 1))
        tree:add(f.register, area_name(code)):set_generated()
        tree:add(f.count, t(7, 2))
        local start = nil
        if req and req.op == "read" then
            start = req.start
            tree:add(f.address, address_text(code, start)):set_generated()
            if req.area ~= code or req.count ~= count then
                tree:add_proto_expert_info(e.mismatch, "The request read " .. area_name(req.area) ..
                    address_text(req.area, req.start) .. " x" .. req.count)
            end
        elseif req then
            tree:add_proto_expert_info(e.mismatch, "A read reply to: " .. (req.text or req.op))
        end
        if a then
            local values = add_values(t, 9, tree, code, start, math.min(count, MAX_UNITS), a.unit)
            info = "read " .. area_name(code) .. (start and address_text(code, start) or "") .. " x" .. count ..
                ": " .. values
        else
            tree:add_proto_expert_info(e.malformed, "Unknown area code " .. code)
            info = "read reply, unknown area " .. code
        end
    elseif cmd == CMD_WORD and has(8) then
        local code = t(6, 1):uint()
        tree:add(f.operation, "word write"):set_generated()
        tree:add(f.area, t(6, 1))
        tree:add(f.register, area_name(code)):set_generated()
        info = "word write " .. area_name(code) .. add_status(t, tree, 7)
        if req and (req.op ~= "write" or req.area ~= code) then
            tree:add_proto_expert_info(e.mismatch, "A word write reply to: " .. (req.text or req.op))
        end
    elseif (cmd == CMD_BIT_SET or cmd == CMD_BIT_RESET or cmd == CMD_VALUE_WRITE) and has(7) then
        local code = t(5, 1):uint()
        local op = cmd == CMD_VALUE_WRITE and "value write" or (cmd == CMD_BIT_SET and "bit set" or "bit reset")
        tree:add(f.operation, op):set_generated()
        tree:add(f.area, t(5, 1))
        tree:add(f.register, area_name(code)):set_generated()
        info = op .. " " .. area_name(code) .. add_status(t, tree, 6)
        if req and (req.op ~= op or req.area ~= code) then
            tree:add_proto_expert_info(e.mismatch, "A " .. op .. " reply to: " .. (req.text or req.op))
        end
    elseif cmd == CMD_HANDSHAKE_1 and has(7) then
        tree:add(f.operation, "handshake 1"):set_generated()
        info = "handshake 1" .. add_status(t, tree, 6)
    elseif cmd == CMD_HANDSHAKE_2 and has(8) then
        tree:add(f.operation, "handshake 2"):set_generated()
        info = "handshake 2" .. add_status(t, tree, 7)
    else
        if not cut then
            tree:add_proto_expert_info(e.malformed, string.format("Unknown reply command 0x%02X", cmd))
        end
        info = string.format("reply 0x%02X", cmd)
    end
    if req and req.expect and size and size ~= req.expect and not cut then
        tree:add_proto_expert_info(e.mismatch,
            string.format("%d bytes where the request asks for %d", size, req.expect))
    end
    if cut then info = info .. " [cut short]" end
    local last = (size and size <= n) and size or n
    if last >= 6 then info = info .. add_trailer(t, tree, 3, last - 2) end
    return info
end

------------------------------------------------------------------------------
-- Pairing: each reply with the request before it in the same conversation.
-- Worked out on the first pass and kept for the later ones.

local pairing = {}

function kv.init()
    pairing = { last = {}, requests = {}, replies = {} }
end

local function frame_id(pinfo, index)
    return pinfo.number .. ":" .. index
end

local function nstime(seconds)
    if seconds < 0 then seconds = 0 end
    local s = math.floor(seconds)
    return NSTime.new(s, math.floor((seconds - s) * 1e6 + 0.5) * 1000) -- captures keep microseconds
end

local function pair_request(pinfo, conversation, index, req)
    local id = frame_id(pinfo, index)
    if not pinfo.visited then
        req.frame = pinfo.number
        req.time = pinfo.rel_ts
        pairing.requests[id] = req
        if not req.lone_ack then pairing.last[conversation] = req end
    end
    return pairing.requests[id] or req
end

local function pair_reply(pinfo, conversation, index)
    local id = frame_id(pinfo, index)
    if not pinfo.visited then
        local req = pairing.last[conversation]
        if req and not req.reply_frame then
            req.reply_frame = pinfo.number
            req.reply_time = pinfo.rel_ts
            pairing.replies[id] = req
        end
        pairing.last[conversation] = nil
    end
    return pairing.replies[id]
end

------------------------------------------------------------------------------
-- One frame

local function dissect_frame(t, pinfo, tree, is_request, conversation, index, full)
    local title = is_request and "KV-3000 request" or "KV-3000 reply"
    local root = tree:add(kv, full, title)
    local info
    if is_request then
        local req, text = dissect_request(t, root)
        req = pair_request(pinfo, conversation, index, req)
        if req.reply_frame then
            root:add(f.response_in, req.reply_frame):set_generated()
        end
        info = text
    else
        local req = pair_reply(pinfo, conversation, index)
        if req then
            root:add(f.request_in, req.frame):set_generated()
            root:add(f.response_time, nstime(req.reply_time - req.time)):set_generated()
            root:add(f.answers, req.text or req.op):set_generated()
        else
            root:add_proto_expert_info(e.no_request, "No request before this reply")
        end
        info = dissect_reply(t, root, req)
    end
    root:append_text(": " .. info)
    return is_request and info or "reply " .. info
end

local function set_info(pinfo, infos)
    pinfo.cols.protocol = "KV-3000"
    pinfo.cols.info = table.concat(infos, "; ")
end

------------------------------------------------------------------------------
-- Captures of the tools: a direction byte, then one frame.

local function dissect_record(tvb, pinfo, tree)
    local n = tvb:len()
    if n == 0 then return 0 end
    local direction = tvb(0, 1):uint()
    pinfo.cols.protocol = "KV-3000"
    if direction > 1 then
        local root = tree:add(kv, tvb(), "KV-3000")
        root:add(f.direction, tvb(0, 1)):add_proto_expert_info(e.malformed,
            "Direction byte " .. direction .. " (0 request, 1 reply)")
        pinfo.cols.info = "record with an unknown direction"
        return n
    end
    local is_request = direction == 0
    pinfo.cols.src = is_request and "host" or "controller"
    pinfo.cols.dst = is_request and "controller" or "host"
    local frame = n > 1 and tvb(1):tvb() or nil
    local root = tree:add(kv, tvb(0, 1), "KV-3000 record")
    root:add(f.direction, tvb(0, 1))
    if is_request and n == 1 then
        root:add_proto_expert_info(e.malformed, "A request record without bytes")
        pinfo.cols.info = "empty request"
        return n
    end
    set_info(pinfo, { dissect_frame(frame, pinfo, tree, is_request, "record", 0, tvb()) })
    return n
end

------------------------------------------------------------------------------
-- Raw TCP: frames cut out of the byte stream, reassembled across segments.

-- Length of the request at t(o): nil when more bytes are needed, false when
-- it does not start a request.
local function request_length(t, o)
    local n = t:len() - o
    local b = t(o, 1):uint()
    local p = 0
    if b == ACK then
        if n == 1 or t(o + 1, 1):uint() ~= SOF then return 1 end
        p = 1
    elseif b ~= SOF then
        return false
    end
    if n < p + 4 then return nil end
    return p + t(o + p + 3, 1):uint() + 6
end

local function dissect_tcp(tvb, pinfo, tree)
    local n = tvb:len()
    local port = kv.prefs.tcp_port
    local is_request
    if pinfo.dst_port == port then
        is_request = true
    elseif pinfo.src_port == port then
        is_request = false
    else
        is_request = pinfo.dst_port < pinfo.src_port -- the controller's port, chosen with Decode As
    end
    local stream = f_tcp_stream()
    local conversation = "tcp" .. (stream and tostring(stream.value) or "")
    local infos = {}
    local o, index = 0, 0
    while o < n do
        local size
        if is_request then
            size = request_length(tvb, o)
        else
            size = starts_reply(tvb, o) and reply_length(tvb, o)
        end
        if (size == nil or (size and o + size > n)) and pinfo.can_desegment == 0 then
            size = n - o -- no reassembly here: what there is, flagged as cut short
        end
        if size == nil then
            pinfo.desegment_offset = o
            pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
            break
        end
        if size == false then
            -- Not a frame start: everything up to the next one is noise.
            local q = o + 1
            while q < n do
                if is_request then
                    local b = tvb(q, 1):uint()
                    if b == ACK or b == SOF then break end
                elseif tvb(q, 1):uint() == ACK and starts_reply(tvb, q) then
                    break
                end
                q = q + 1
            end
            local root = tree:add(kv, tvb(o, q - o), "KV-3000")
            root:add(f.garbage, tvb(o, q - o)):add_proto_expert_info(e.garbage,
                (q - o) .. " bytes outside any frame")
            table.insert(infos, "noise")
            o = q
        elseif o + size > n then
            pinfo.desegment_offset = o
            pinfo.desegment_len = o + size - n
            break
        else
            index = index + 1
            table.insert(infos, dissect_frame(tvb(o, size):tvb(), pinfo, tree, is_request, conversation, index,
                tvb(o, size)))
            o = o + size
        end
    end
    if #infos > 0 then set_info(pinfo, infos) end
    return n
end

function kv.dissector(tvb, pinfo, tree)
    if f_tcp_stream() then return dissect_tcp(tvb, pinfo, tree) end
    return dissect_record(tvb, pinfo, tree)
end

------------------------------------------------------------------------------
-- Registration: USER0 records need no set-up; raw TCP on the port preference.

DissectorTable.get("wtap_encap"):add(wtap_encaps.USER0, kv)

local registered_port = kv.prefs.tcp_port
DissectorTable.get("tcp.port"):add(registered_port, kv)

function kv.prefs_changed()
    if registered_port ~= kv.prefs.tcp_port then
        DissectorTable.get("tcp.port"):remove(registered_port, kv)
        registered_port = kv.prefs.tcp_port
        DissectorTable.get("tcp.port"):add(registered_port, kv)
    end
end
