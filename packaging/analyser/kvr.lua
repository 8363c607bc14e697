-- SPDX-License-Identifier: MIT
-- The channel's wire protocol (docs/protocol.md) for Wireshark and tshark 4.0 and later. Every field has the name that
-- it has there: kvr.sDestQue, kvr.iPriority. What is wrong with a frame is told in the words of `kvr dissect`, as
-- kvr.malformed.
--
-- A message and its file frames are one unit, so that nothing has to be remembered about earlier bytes: a unit that is
-- not there as a whole is asked for again with more bytes. The stream is looked for at the configured ports, plain or
-- inside TLS, and wherever a plain connection begins with a frame header.

local kvr = Proto("kvr", "KVR message channel")

local kHeaderSize, kBlockSize, kEntrySize, kTrailerSize, kDigits = 75, 272, 80, 16, 8
local kHeaderBegin = "0000007501"
local kPackageMax, kBodyMax, kNameMax, kPathMax, kChannelMax, kFilesMax = 2116322, 2098304, 511, 1023, 63, 30
local kWithAttachments = 4
local kUnitMax = 128 * 1024 * 1024 -- a message with more bytes of files is not put together: memory
local kTypes = { ["0"] = "message", ["1"] = "bind", ["2"] = "heartbeat", ["4"] = "file message" }
local kPackageBounds = {
    ["0"] = { kBlockSize, kPackageMax }, ["1"] = { 1, kChannelMax }, ["2"] = { 0, 0 }, ["4"] = { kBlockSize, kPackageMax },
}

-- Name, size and encoding, as the tables of docs/protocol.md have them, in order. Without a name: reserved.
local kHeader = {
    { "sHdrLen", 8, "number" }, { "sVer", 2, "digits" }, { "sSeqno", 8, "number" }, { "sMsgType", 1, "raw" },
    { "sDestQue", 32, "raw" }, { "sIPCMsgType", 8, "signed" }, { "sIPCMsgCode", 8, "signed" }, { "sPkgLen", 8, "number" },
}
local kBlock = {
    { "sMsgId", 32, "raw" }, { "sCorrelId", 32, "raw" }, { "cMsgStoreType", 1, "raw" }, { nil, 3 },
    { "iUsage", 4, "int32" }, { "iMsgFlags", 4, "int32" }, { "iExpiry", 4, "int32" }, { "iFeedback", 4, "int32" },
    { "iEncoding", 4, "int32" }, { "iCodedCharSetId", 4, "int32" }, { "iPriority", 4, "int32" },
    { "iPersistence", 4, "int32" }, { "iMsgSeqNo", 4, "int32" }, { "iReportOpt", 4, "int32" }, { "sFmtName", 9, "raw" },
    { "sReplyToQ", 33, "raw" }, { "sReplyToQMgr", 33, "raw" }, { "sGroupId", 32, "raw" }, { nil, 1 },
    { "iPutApplType", 4, "int32" }, { "sPutApplName", 33, "raw" }, { "sPutDate", 9, "raw" }, { "sPutTime", 7, "raw" },
    { nil, 3 },
}
local kEntry = { { "sLen", 8, "number" }, { "sFlags", 8, "bytes" }, { "sMac", 64, "bytes" } }
local kTrailer = { { "entries", 8, "number" }, { "entries_length", 8, "number" } }

local kFieldOf = {
    number = ProtoField.uint32, digits = ProtoField.string, signed = ProtoField.int32, raw = ProtoField.string,
    int32 = ProtoField.int32, bytes = ProtoField.bytes,
}
local field, order = {}, {}
local function declare(name, encoding, title)
    field[name] = kFieldOf[encoding]("kvr." .. name, title or name)
    order[#order + 1] = field[name]
end
for _, layout in ipairs({ kHeader, kBlock, kEntry, kTrailer }) do
    for _, part in ipairs(layout) do
        if part[1] then declare(part[1], part[3]) end
    end
end
declare("channel", "raw", "Channel")
declare("body", "bytes", "Body")
declare("body_length", "number", "Body length")
declare("attachment", "raw", "Attached file")
declare("file_name", "raw", "File name")
declare("file_length", "number", "File length")
declare("file", "bytes", "File contents")
field.with_attachments = ProtoField.bool("kvr.iMsgFlags.attachments", "Attachment block follows", 32, nil, kWithAttachments)
order[#order + 1] = field.with_attachments
kvr.fields = order

local malformed = ProtoExpert.new("kvr.malformed", "Malformed", expert.group.MALFORMED, expert.severity.ERROR)
local unbound = ProtoExpert.new("kvr.unbound", "No bind frame before", expert.group.SEQUENCE, expert.severity.WARN)
local continued = ProtoExpert.new("kvr.continued", "No frame begins here", expert.group.SEQUENCE, expert.severity.WARN)
local partial = ProtoExpert.new("kvr.partial", "Not put together", expert.group.REASSEMBLE, expert.severity.WARN)
kvr.experts = { malformed, unbound, continued, partial }

kvr.prefs.ports = Pref.range("TCP ports", "5151", "Ports of listeners, plain or TLS", 65535)
kvr.prefs.show_note = Pref.statictext("Inside TLS: set the key log in the preferences of TLS", "")

local stream_of = Field.new("tcp.stream")
local in_tls = Field.new("tls.record.content_type")
local fin, reset = Field.new("tcp.flags.fin"), Field.new("tcp.flags.reset")
local binds = {} -- by TCP stream: the bind frame's channel, and which unit it was
local unfinished = {} -- by TCP stream: what it stands in, in the first pass over the packets
local cuts = {} -- by packet: what the connection ended in
local titled -- the packet that has titles already: the end of a unit comes in one piece, what is behind it in another

function kvr.init()
    binds, unfinished, cuts, titled = {}, {}, {}, nil
end

-- ---- values

local function escaped(bytes)
    return (bytes:gsub('[%c\127-\255%%"\\]', function(c) return ("%%%02X"):format(c:byte()) end))
end

local function escaped_field(bytes)
    return escaped((bytes:gsub("%z+$", "")))
end

local function number(digits)
    return digits:match("^%d+$") and tonumber(digits, 10)
end

local function signed(digits)
    return digits:match("^%-?%d+$") and tonumber(digits, 10)
end

-- The text before the first NUL; nothing when another byte follows one.
local function padded(bytes)
    return bytes:match("^([^%z]*)%z*$")
end

-- ---- what a unit says

-- A unit that is looked at: `raw(from, count)` reads relative to its beginning.
local Unit = {}
Unit.__index = Unit

function Unit.new(tvb, at)
    return setmetatable({ tvb = tvb, at = at, have = tvb:len() - at, length = 0, entries = {}, files = {} }, Unit)
end

function Unit:raw(from, count)
    return count > 0 and self.tvb:raw(self.at + from, count) or ""
end

-- False when so many bytes are not there: `need` says how many are lacking, `final` that the unit ends with them.
function Unit:has(count, final)
    if self.have < count then
        self.need, self.final = count - self.have, final
        return false
    end
    return true
end

-- Whether the unit ends with its package, as far as what is there tells.
function Unit:ends_with_package()
    return self.type == "1" or self.type == "0" and self.have >= kHeaderSize + kBlockSize and not self:is_flagged()
end

function Unit:is_flagged()
    return self.tvb(self.at + kHeaderSize + 72, 4):bitfield(29, 1) == 1 -- iMsgFlags: it has attached files
end

-- The first thing that is wrong stays.
function Unit:fail(from, count, reason)
    self.error = self.error or { from = from, count = math.max(0, math.min(count, self.have - from)), reason = reason }
    return false
end

function Unit:read_header()
    local begin = self:raw(0, math.min(self.have, #kHeaderBegin))
    local may_go_on = #begin < #kHeaderBegin and begin:sub(1, 1) == "0" -- enough to wait for the rest
    if begin:sub(1, kDigits) ~= kHeaderBegin:sub(1, kDigits) and not may_go_on then
        return self:fail(0, kDigits, ("header length '%s' instead of '00000075'"):format(escaped(begin:sub(1, kDigits))))
    end
    if begin:sub(9) ~= kHeaderBegin:sub(9) and not may_go_on then
        return self:fail(8, 2, ("version '%s' instead of '01'"):format(escaped(begin:sub(9))))
    end
    if not self:has(kHeaderSize) then return false end
    self.length = kHeaderSize
    self.type = self:raw(18, 1)
    local bounds, package = kPackageBounds[self.type], number(self:raw(67, 8))
    local queue = padded(self:raw(19, 32))
    self.queue = queue and escaped(queue)
    if not number(self:raw(10, 8)) then return self:fail(10, 8, "sequence number is not 8 digits") end
    if not bounds then return self:fail(18, 1, ("unknown frame type '%s'"):format(escaped(self.type))) end
    if not queue then return self:fail(19, 32, "destination queue goes on after a NUL") end
    if queue ~= "" and (self.type == "1" or self.type == "2") then
        return self:fail(19, 32, "destination queue in a frame that is not a data frame")
    end
    if not signed(self:raw(51, 8)) then return self:fail(51, 8, "message type is not a number") end
    if not signed(self:raw(59, 8)) then return self:fail(59, 8, "message code is not a number") end
    if not package then return self:fail(67, 8, "package length is not 8 digits") end
    if package < bounds[1] or package > bounds[2] then
        return self:fail(67, 8, ("package length %d is not within %d and %d"):format(package, bounds[1], bounds[2]))
    end
    self.package_end = kHeaderSize + package
    return true
end

function Unit:read_bind()
    local name = self:raw(kHeaderSize, self.package_end - kHeaderSize)
    local bad = name:find("[%z\1-\31\127]")
    if bad then
        return self:fail(kHeaderSize + bad - 1, 1, "control character in the channel's name")
    end
    self.channel = escaped(name)
    return true
end

-- Walks the entries between the body and the trailer, which says where they begin.
function Unit:read_entries()
    local trailer = self.package_end - kTrailerSize
    if trailer < kHeaderSize + kBlockSize then
        return self:fail(kHeaderSize + kBlockSize, kTrailerSize, "package too short for an attachment trailer")
    end
    local count, length = number(self:raw(trailer, kDigits)), number(self:raw(trailer + kDigits, kDigits))
    if not count or count > kFilesMax then
        return self:fail(trailer, kDigits, ("attachment count is not a number up to %d"):format(kFilesMax))
    end
    if not length or length > trailer - kHeaderSize - kBlockSize then
        return self:fail(trailer + kDigits, kDigits,
            "length of the attachment entries is not a number that the package has room for")
    end
    local at = trailer - length
    self.body_end, self.trailer = at, trailer
    for i = 1, count do
        local name = trailer - at >= kEntrySize and number(self:raw(at, kDigits))
        if not name or name < 1 or name > kNameMax or name > trailer - at - kEntrySize then
            return self:fail(at, kDigits,
                ("attachment %d: no name length of 1 to %d that the entries have room for"):format(i, kNameMax))
        end
        self.entries[i] = { at = at, size = name, name = escaped(self:raw(at + kEntrySize, name)) }
        at = at + kEntrySize + name
    end
    if at ~= trailer then
        return self:fail(trailer, kTrailerSize, ("%d attachment entries take %d bytes, the trailer says %d"):format(
            count, at - self.body_end, length))
    end
    return true
end

function Unit:read_data()
    local store_type = self:raw(kHeaderSize + 64, 1)
    if (self.type == "4") ~= (store_type == "2") then
        return self:fail(kHeaderSize + 64, 1,
            ("store type '%s' in a frame of type '%s'"):format(escaped(store_type), self.type))
    end
    self.body_end = self.package_end
    if self:is_flagged() and not self:read_entries() then return false end
    local body = kHeaderSize + kBlockSize
    local length = self.body_end - body
    if self.type == "4" then
        local name = padded(self:raw(body, length))
        if not name or name == "" or length > kPathMax then
            return self:fail(body, length, "the body of a file message is not a file name padded with NULs")
        end
        self.name = escaped(name)
    elseif length > kBodyMax then
        return self:fail(body, length, ("body of %d bytes, more than %d"):format(length, kBodyMax))
    end
    return self:read_files()
end

function Unit:read_files()
    local names = {}
    for i, entry in ipairs(self.entries) do names[i] = entry.name end
    names[#names + 1] = self.name
    for i, name in ipairs(names) do
        local at = self.length
        if not self:has(at + kDigits) then return false end
        local digits = self:raw(at, kDigits)
        local length = number(digits)
        if not length or length < 1 then
            return self:fail(at, kDigits,
                ("file length '%s' is not a number from 1 to 99999999"):format(escaped(digits)))
        end
        self.files[#self.files + 1] = { at = at, size = length, name = name }
        if not self:has(at + kDigits + length, i == #names) then return false end
        self.length = at + kDigits + length
    end
    return true
end

-- Everything about the unit; false with `need` or `error` when it is not whole.
function Unit:read()
    if not self:read_header() or not self:has(self.package_end, self:ends_with_package()) then return false end
    self.length = self.package_end
    if self.type == "2" then return true end
    if self.type == "1" then return self:read_bind() end
    return self:read_data()
end

-- ---- how it is shown

local value_of = { number = number, signed = signed, raw = escaped_field, digits = escaped }

local function add_layout(tree, tvb, at, layout)
    for _, part in ipairs(layout) do
        local name, size, encoding = part[1], part[2], part[3]
        local range = tvb(at, size)
        if name and value_of[encoding] then
            local value = value_of[encoding](range:raw())
            if value then
                tree:add(field[name], range, value)
            else
                tree:add(range, ("%s: '%s'"):format(name, escaped(range:raw())))
            end
        elseif name then
            tree:add(field[name], range)
        end
        if name == "iMsgFlags" then tree:add(field.with_attachments, range) end
        at = at + size
    end
end

function Unit:range(from, count)
    return self.tvb(self.at + from, count)
end

function Unit:show_data(tree)
    local block = tree:add(self:range(kHeaderSize, kBlockSize), "Descriptor block")
    add_layout(block, self.tvb, self.at + kHeaderSize, kBlock)
    local body, body_end = kHeaderSize + kBlockSize, self.body_end or self.package_end
    tree:add(field.body_length, self:range(body, body_end - body), body_end - body):set_generated()
    if body_end > body then
        tree:add(field.body, self:range(body, body_end - body))
    end
    if self.name then tree:add(field.file_name, self:range(body, body_end - body), self.name) end
    for _, entry in ipairs(self.entries) do
        local sub = tree:add(self:range(entry.at, kEntrySize + entry.size), "Attachment entry: " .. entry.name)
        add_layout(sub, self.tvb, self.at + entry.at, kEntry)
        sub:add(field.attachment, self:range(entry.at + kEntrySize, entry.size), entry.name)
    end
    if self.trailer then
        add_layout(tree:add(self:range(self.trailer, kTrailerSize), "Attachment trailer"), self.tvb,
            self.at + self.trailer, kTrailer)
    end
end

function Unit:show_files(tree)
    for _, file in ipairs(self.files) do
        local there = math.min(file.size, self.have - file.at - kDigits)
        local sub = tree:add(self:range(file.at, kDigits + there), ("File frame: %s, %d bytes"):format(file.name, file.size))
        sub:add(field.file_length, self:range(file.at, kDigits), file.size)
        sub:add(field.file_name, file.name):set_generated()
        if there > 0 then sub:add(field.file, self:range(file.at + kDigits, there)) end
    end
end

-- Bytes of which nothing says that a frame should begin with them.
function Unit:is_outside()
    return self.error and self.at == 0 and not self.type
end

function Unit:title()
    if self:is_outside() then return "no frame begins here" end
    if not self.type or not kTypes[self.type] then return "malformed" end
    local title = kTypes[self.type]
    if self.channel then title = title .. " " .. self.channel end
    if self.body_end then
        title = ("%s for %s, %d bytes"):format(title, self.queue, self.body_end - kHeaderSize - kBlockSize)
        if #self.files > 0 then title = ("%s, files: %d"):format(title, #self.files) end
    end
    return self.error and title .. ", malformed" or title
end

-- Returns the unit's tree.
function Unit:show(root, length)
    local tree = root:add(kvr, self:range(0, length))
    tree:append_text(", " .. self:title())
    if self.have >= kHeaderSize and self.type then
        local header = tree:add(self:range(0, kHeaderSize), "Frame header")
        add_layout(header, self.tvb, self.at, kHeader)
    end
    if self.channel then
        tree:add(field.channel, self:range(kHeaderSize, self.package_end - kHeaderSize), self.channel)
    elseif self.package_end and self.have >= self.package_end and (self.type == "0" or self.type == "4") then
        self:show_data(tree)
        self:show_files(tree)
    end
    if self.error then
        -- At the beginning of what came it need not be damage: what is before it may be missing.
        local reason = self:is_outside() and "no frame begins here: " .. self.error.reason or self.error.reason
        tree:add(self:range(self.error.from, self.error.count), reason)
            :add_proto_expert_info(self:is_outside() and continued or malformed, reason)
    end
    return tree
end

-- Holds the unit against the stream's bind frame, and names the channel in it.
local function relate_to_bind(unit, tree, pinfo)
    local stream = stream_of()
    local key, id = stream and stream.value or 0, ("%d:%d:%d"):format(pinfo.number, unit.at, unit.tvb:len())
    local bind = binds[key]
    if unit.type == "1" then
        if bind and bind.id ~= id then
            tree:add_proto_expert_info(malformed, "a second bind frame")
        elseif unit.channel then
            binds[key] = { id = id, channel = unit.channel }
        end
    elseif bind then
        tree:add(field.channel, bind.channel):set_generated()
    else
        tree:add_proto_expert_info(unbound,
            ("first frame has type '%s' instead of bind, or the capture began later"):format(unit.type))
    end
end

local function begins_with_header(tvb)
    return tvb:len() >= 19 and tvb:raw(0, 19):match("^" .. kHeaderBegin .. "%d%d%d%d%d%d%d%d[0124]") ~= nil
end

local function is_tls(tvb)
    return tvb:len() >= 2 and tvb:raw(0, 2):match("^[\20-\23]\3") ~= nil
end

local function show_titles(pinfo, titles)
    if #titles > 0 then
        pinfo.cols.info = (titled == pinfo.number and "; " or "") .. table.concat(titles, "; ")
        pinfo.cols.info:fence()
        titled = pinfo.number
    end
end

-- Bytes of a unit that is not whole are shown nowhere, because its last ones may come. What the connection's end then
-- leaves unfinished is told there.
local function note_unfinished(pinfo, unit)
    local stream = stream_of()
    if stream and not pinfo.visited then
        local text = unit and ("the connection ends in a %s that is not whole"):format(kTypes[unit.type] or "frame")
        unfinished[stream.value] = unit and { port = pinfo.src_port, text = text }
    end
end

local function dissect(tvb, pinfo, root, may_ask)
    if is_tls(tvb) then return 0 end -- for the dissector of TLS, which comes back with what is inside
    pinfo.cols.protocol = "KVR"
    local at, titles = 0, {}
    while at < tvb:len() do
        local unit = Unit.new(tvb, at)
        local whole = unit:read()
        local too_large = unit.need and unit.have + unit.need > kUnitMax
        if unit.need and not too_large and may_ask then
            -- What is not the end of the unit cannot be asked for exactly inside TLS: the rest of a record would be lost.
            local exact = unit.final or not in_tls()
            pinfo.desegment_offset, pinfo.desegment_len = at, exact and unit.need or DESEGMENT_ONE_MORE_SEGMENT
            note_unfinished(pinfo, unit)
            return tvb:len(), show_titles(pinfo, titles)
        end
        local length = whole and unit.length or unit.have -- nothing behind an error can be believed
        local tree = unit:show(root, length)
        titles[#titles + 1] = unit:title()
        if unit.need then
            tree:add_proto_expert_info(partial, too_large and "more bytes of files than are put together"
                or ("%d bytes of it are not here"):format(unit.need))
        end
        if kTypes[unit.type] then relate_to_bind(unit, tree, pinfo) end
        at = at + length
    end
    note_unfinished(pinfo, nil)
    return tvb:len(), show_titles(pinfo, titles)
end

function kvr.dissector(tvb, pinfo, root)
    return dissect(tvb, pinfo, root, pinfo.can_desegment > 0)
end

local ending = Proto("kvr_end", "KVR message channel, end of the connection")

function ending.dissector(_, pinfo, root)
    local stream = stream_of()
    local ends = stream and ((fin() and fin().value) or (reset() and reset().value))
    local left = ends and unfinished[stream.value]
    if left and not pinfo.visited and (left.port == pinfo.src_port or reset().value) then
        cuts[pinfo.number], unfinished[stream.value] = left.text, nil
    end
    if cuts[pinfo.number] then
        root:add(kvr, "KVR message channel, cut"):add_proto_expert_info(malformed, cuts[pinfo.number])
    end
end
register_postdissector(ending)

-- ---- where it is looked for

local tables = { DissectorTable.get("tcp.port"), DissectorTable.get("tls.port") }
local registered

local function register_ports()
    for _, ports in ipairs(tables) do
        if registered then ports:remove(registered, kvr) end
        ports:add(kvr.prefs.ports, kvr)
    end
    registered = kvr.prefs.ports
end
kvr.prefs_changed = register_ports
register_ports()

-- On any port: where a plain connection begins with a frame header. What guesses inside TLS may not ask for more bytes.
kvr:register_heuristic("tcp", function(tvb, pinfo, root)
    if not begins_with_header(tvb) then return false end
    pinfo.conversation = kvr
    dissect(tvb, pinfo, root, true) -- whoever guesses is told that it may not, but it may
    return true
end)
