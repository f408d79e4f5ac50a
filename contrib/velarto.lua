-- Wireshark dissector for the protocol between the Velarto gateway and its application servers.
-- Install: copy this file to the folder "Personal Lua Plugins" of Wireshark's Help > About > Folders, mostly
-- ~/.local/lib/wireshark/plugins. Or for once: tshark -X lua_script:velarto.lua -r capture.pcapng
--
-- Shows each message with all its fields, whether it fills several segments or shares one. Some filters:
--     velarto.type == 1                      requests
--     velarto.param.path_info == "/hi"       one of the 25 parameters, its name in lower case
--     velarto.status >= 400                  answers that tell of an error
--     velarto.path                           files that a server asked the gateway for
--     velarto.malformed                      what breaks the protocol (docs/protocol.md), with the reason
--
-- Servers are expected on port 18155 (Preferences > Protocols > Velarto). On a port of no other protocol, a
-- connection is recognised by the first 8 bytes of a message. Who opened the connection is the gateway.

local MARK, VERSION, FOOTER = "QUIL", 0xFFFDFFFD, "END!"
local SIGNATURE = MARK .. "\255\253\255\253"
local ACKNOWLEDGED = "\0\0\0\1" .. FOOTER
local SHORTEST, READABLE = 16, 16 * 1024  -- bytes of a message without fields; of a text shown line by line
local LINES, COOKIES = "[^\r\n]+", "[^;%s][^;]*"
local TYPES = { "request", "file request", "file reply", "body", [6] = "HTTP header", [7] = "end" }
local PARAMETERS = {
    "QUERY_STRING", "PATH_INFO", "PATH_TRANSLATED", "REQUEST_METHOD", "REMOTE_HOST", "REMOTE_IDENT",
    "REMOTE_USER", "REMOTE_PASSWD", "REMOTE_NAME", "REMOTE_PORT", "SERVER_NAME", "SERVER_PORT", "SCRIPT_NAME",
    "HTTP_REFERER", "HTTP_USER_AGENT", "CONTENT_TYPE", "CONTENT_LENGTH", "PLUGIN", "REMOTE_ADDR",
    "HTTP_COOKIE", "COMMANDLINE", "HTTP_FROM", "HTTP_ACCEPT", "SOAPACTION", "FULLHEADER",
}

local velarto = Proto("velarto", "Velarto Protocol")

local fields = {
    sender = ProtoField.string("velarto.sender", "Sender"),
    mark = ProtoField.string("velarto.mark", "Frame mark"),
    version = ProtoField.uint32("velarto.version", "Version", base.HEX),
    type = ProtoField.uint32("velarto.type", "Type", base.DEC, TYPES),
    file_time = ProtoField.absolute_time("velarto.request.file_time", "File time", base.UTC),
    length = ProtoField.uint32("velarto.length", "Length"),
    body = ProtoField.bytes("velarto.body", "Body"),
    path = ProtoField.string("velarto.path", "Path"),
    result = ProtoField.bool("velarto.result", "Result"),
    data = ProtoField.bytes("velarto.data", "Content of the file"),
    header = ProtoField.string("velarto.header", "HTTP header"),
    status = ProtoField.uint16("velarto.status", "Status"),
    footer = ProtoField.string("velarto.footer", "Footer"),
    rest = ProtoField.bytes("velarto.rest", "Not a message"),
}
for _, name in ipairs(PARAMETERS) do
    fields[name] = ProtoField.string("velarto.param." .. name:lower(), name)
end
velarto.fields = fields

local malformed = ProtoExpert.new("velarto.malformed", "Breaks the protocol",
    expert.group.MALFORMED, expert.severity.ERROR)
velarto.experts = { malformed }

velarto.prefs.ports = Pref.range("TCP ports", "18155", "Where application servers listen", 65535)
velarto.prefs.limit = Pref.uint("Longest message (MiB)", 32, "Longer ones are not put together")

-- ---- A walk through a message ------------------------------------------------------------------------

-- Bytes that are no UTF-8 as \xNN.
local function text(range)
    local raw = range:raw()
    if range:string(ENC_UTF_8) == raw then return raw end
    return (raw:gsub("[\128-\255]", function(byte) return ("\\x%02X"):format(byte:byte()) end))
end

-- Notes what lies where, to be shown when the message has arrived whole. What stops a walk is raised as a
-- table: `missing`, how many bytes are surely yet to come, or `wrong`, the reason why this is no message.
local Walk = {}
Walk.__index = Walk

function Walk.new(tvb, start)
    return setmetatable({ tvb = tvb, start = start, at = start, least = start + SHORTEST, notes = {} }, Walk)
end

-- So many of the next bytes as are here.
function Walk:peek(count)
    return self.tvb(self.at, math.min(count, self.tvb:len() - self.at)):raw()
end

function Walk:take(count)
    local here = self.tvb:len()
    if self.at + count > here then error({ missing = math.max(self.at + count, self.least) - here }) end
    self.at = self.at + count
    return self.tvb(self.at - count, count)
end

-- A note may also get `wrong`, what to complain about, and `parts`, a pattern for what `content` consists of.
function Walk:note(field, range, value, content)
    local note = { field = field, range = range, value = value, content = content }
    table.insert(self.notes, note)
    return note
end

function Walk:number(field)
    return self:note(field, self:take(4)).range:uint()
end

-- The bytes of a Text or Block. One that makes the message too long is not waited for.
function Walk:content()
    local length, limit = self:take(4):uint(), velarto.prefs.limit
    if self.at - self.start + length > limit * 1024 * 1024 then
        error({ wrong = ("A length of %.0f makes the message longer than %d MiB"):format(length, limit) })
    end
    self.least = self.least + length
    return self:take(length)
end

function Walk:block(field, value_of)
    local start, content = self.at, self:content()
    self:note(fields.length, self.tvb(start, 4))
    return content, self:note(field, content, value_of and value_of(content), content)
end

-- One that may be text is shown line by line, too.
function Walk:data(field)
    local content, note = self:block(field)
    if not content:raw():find("[%z\1-\8\14-\31]") then note.parts = LINES end
    return content
end

function Walk:parameter(name)
    local start, found, value = self.at, self:content(), self:content()
    local note = self:note(fields[name], self.tvb(start, self.at - start), text(value), value)
    if found:raw() ~= name then note.wrong = ("This parameter is called %s"):format(text(found)) end
    return note
end

-- ---- The messages ------------------------------------------------------------------------------------

local function count(range)
    return range:len() == 1 and "1 byte" or range:len() .. " bytes"
end

local function read_request(walk)
    walk.least = walk.least + 4 + 4 + #PARAMETERS * (4 + 4)
    if walk:number(fields.file_time) == 0 then walk.notes[#walk.notes].remark = " (no file)" end
    local body, values = walk:data(fields.body), {}
    for _, name in ipairs(PARAMETERS) do
        local note = walk:parameter(name)
        if name == "HTTP_COOKIE" then note.parts = COOKIES end
        values[name] = note.value
    end
    local query = values.QUERY_STRING == "" and "" or "?" .. values.QUERY_STRING
    local info = ("Request %s %s%s"):format(values.REQUEST_METHOD, values.PATH_INFO, query)
    return body:len() == 0 and info or info .. ", " .. count(body)
end

local function read_file_reply(walk)
    local found = walk:number(fields.result) ~= 0
    return "File reply, " .. (found and count(walk:data(fields.data)) or "no such file")
end

local function read_header(walk)
    local header, note = walk:block(fields.header, text)
    note.parts = LINES
    local status = "without a status"
    local first, last = header:raw():match("^HTTP/[^%z]%d*%.%d* ()%d%d%d [^%z\r]*()\r\n")
    if first then
        status = text(header(first - 1, last - first))
        walk:note(fields.status, header(first - 1, 3), tonumber(status:sub(1, 3)))
    else
        note.wrong = "A bad status line: the browser gets error page 605"
    end
    return ("HTTP header %s, %s"):format(status, count(header))
end

local function read_acknowledgement(walk, kind)
    local refused = walk:number(fields.result) == 0
    return ("Acknowledgement (%s)%s"):format(kind == 4 and "body" or "header", refused and ", false" or "")
end

-- By sender and type: reads what follows the type, and tells what it is for the Info column.
local READERS = {
    gateway = {
        [1] = read_request, [3] = read_file_reply, [4] = read_acknowledgement, [6] = read_acknowledgement,
    },
    server = {
        [2] = function(walk) return "File request " .. text(walk:block(fields.path, text)) end,
        [4] = function(walk) return "Body, " .. count(walk:data(fields.body)) end,
        [6] = read_header,
        [7] = function() return "End" end,
    },
}

-- ---- Who is who --------------------------------------------------------------------------------------

-- By direction of a connection: whether it is the gateway's, in which frame a message began that is not yet
-- whole, whether what came last was no message. By frame: whether it follows such bytes.
local opened, unfinished, lost, continues

function velarto.init()
    opened, unfinished, lost, continues = {}, {}, {}, {}
end

local function directions(pinfo)
    local source = ("%s:%d"):format(tostring(pinfo.src), pinfo.src_port)
    local destination = ("%s:%d"):format(tostring(pinfo.dst), pinfo.dst_port)
    return source .. ">" .. destination, destination .. ">" .. source
end

local function is_server_port(port)
    for first, last in velarto.prefs.ports:gmatch("(%d+)%-?(%d*)") do
        if port >= tonumber(first) and port <= tonumber(last == "" and first or last) then return true end
    end
    return false
end

local function sender(walk, kind, pinfo)
    local here, back = directions(pinfo)
    if opened[here] then return "gateway" end
    if opened[back] then return "server" end
    local to_server = is_server_port(pinfo.dst_port)
    if to_server ~= is_server_port(pinfo.src_port) then return to_server and "gateway" or "server" end
    if kind == 1 then opened[here] = true end
    -- Of what both sides send, only an acknowledgement has its footer right behind the number 1.
    local acknowledged = walk:peek(#ACKNOWLEDGED) == ACKNOWLEDGED
    return (acknowledged or not READERS.server[kind]) and "gateway" or "server"
end

-- ---- Dissection --------------------------------------------------------------------------------------

local function read_message(walk, pinfo)
    local mark = walk:peek(#MARK)
    if mark ~= MARK:sub(1, #mark) then  -- by one byte or more: no need to wait for the others
        error({ wrong = "No frame mark where a message should begin, unless the capture began within one" })
    end
    walk:note(fields.mark, walk:take(#MARK))
    if walk:number(fields.version) ~= VERSION then error({ wrong = "Not the version of the protocol" }) end
    local kind = walk:number(fields.type)
    walk.sender = sender(walk, kind, pinfo)
    local read = READERS[walk.sender][kind]
    if not read then error({ wrong = ("The %s sends no type %.0f"):format(walk.sender, kind) }) end
    walk.info = read(walk, kind)
    local note = walk:note(fields.footer, walk:take(#FOOTER))
    if note.range:raw() ~= FOOTER then note.wrong = "Not the footer" end
end

local function show(walk, pinfo, tree)
    local info = pinfo.cols.info
    info:clear()  -- but for the messages before this one in the same frame
    info:append((tostring(info) == "" and "" or "; ") .. walk.info)
    info:fence()
    local item = tree:add(velarto, walk.tvb(walk.start, walk.at - walk.start)):append_text(", " .. walk.info)
    if walk.sender then item:add(fields.sender, walk.sender):set_generated() end
    for _, note in ipairs(walk.notes) do
        local field, range, value = note.field, note.range, note.value
        local line = value and item:add(field, range, value) or item:add(field, range)
        if note.remark then line:append_text(note.remark) end
        if note.wrong then line:add_proto_expert_info(malformed, note.wrong) end
        if note.parts then
            for from, part in note.content:raw():sub(1, READABLE):gmatch("()(" .. note.parts .. ")") do
                local bytes = note.content(from - 1, #part)
                line:add(bytes, text(bytes))
            end
        end
    end
    return item
end

local function dissect(tvb, pinfo, tree)
    pinfo.cols.protocol = "Velarto"
    local here = directions(pinfo)
    if not pinfo.visited then  -- frames come in order only once
        continues[pinfo.number] = lost[here]
        unfinished[here], lost[here] = nil, nil
    end
    local at = 0
    while at < tvb:len() do
        local walk = Walk.new(tvb, at)
        local whole, stop = pcall(read_message, walk, pinfo)
        if whole then
            show(walk, pinfo, tree)
        elseif type(stop) ~= "table" then
            error(stop, 0)  -- a fault of this file
        elseif stop.missing and pinfo.can_desegment > 0 then
            if not pinfo.visited then unfinished[here] = pinfo.number end
            pinfo.desegment_offset, pinfo.desegment_len = at, stop.missing
            break
        else  -- the rest of this segment is not read; the next may begin with a message again
            if not pinfo.visited then lost[here] = true end
            local continued = at == 0 and #walk.notes == 0 and continues[pinfo.number]
            walk.info = stop.missing and "Part of a message" or continued and "Continuation" or "Malformed"
            if walk.at < tvb:len() then walk:note(fields.rest, walk:take(tvb:len() - walk.at)) end
            local item = show(walk, pinfo, tree)
            if stop.wrong and not continued then item:add_proto_expert_info(malformed, stop.wrong) end
        end
        at = walk.at
    end
    return tvb:len()
end
velarto.dissector = dissect

velarto:register_heuristic("tcp", function(tvb, pinfo, tree)
    if tvb:len() < #SIGNATURE or tvb:raw(0, #SIGNATURE) ~= SIGNATURE then return false end
    pinfo.conversation = velarto
    dissect(tvb, pinfo, tree)
    return true
end)

local tcp_ports, ports = DissectorTable.get("tcp.port"), velarto.prefs.ports
tcp_ports:add(ports, velarto)

function velarto.prefs_changed()
    tcp_ports:remove(ports, velarto)
    ports = velarto.prefs.ports
    tcp_ports:add(ports, velarto)
end

-- A segment without content gets to no dissector but one that comes after all others.
local watch, tcp_flags = Proto("velarto_watch", "Velarto connections"), Field.new("tcp.flags")
local FIN, SYN, RESET, ACK = 1, 2, 4, 16

function watch.dissector(_, pinfo, tree)
    local flags = tcp_flags()
    local function has(bit) return flags.value % (2 * bit) >= bit end
    if not flags or not (has(FIN) or has(SYN) or has(RESET)) then return end
    local here, back = directions(pinfo)
    if has(SYN) then
        if has(ACK) then here, back = back, here end
        opened[here], opened[back] = true, nil
    elseif unfinished[here] or has(RESET) and unfinished[back] then
        local began = unfinished[here] or unfinished[back]
        local reason = ("The connection ends within the message of frame %d"):format(began)
        tree:add(velarto):append_text(", cut"):add_proto_expert_info(malformed, reason)
    end
end
register_postdissector(watch)
