-- The Wireshark dissector of Vesk's datagrams: both framings and the lateral header. docs/capture.md
-- explains how to load and configure it. This file declares protocols, fields and preferences and finds
-- the datagrams. The other files in this folder are its parts and do nothing when Wireshark loads them
-- separately.

-- Not __DIR__, which is empty in the folder of the system's plugins.
local directory = debug.getinfo(1, "S").source:match("^@(.*)[/\\]") or "."
local function part(name) return dofile(directory .. "/" .. name .. ".lua") end
local framing, key_file, digest = part("vesk_framing"), part("vesk_keys"), part("vesk_hmac")

local vesk = Proto("vesk", "Vesk")
local lateral = Proto("vesk_lateral", "Vesk lateral header")

local AUTOMATIC = 0
vesk.prefs.framing = Pref.enum("Framing", AUTOMATIC, "The framing that the forwarder was started with",
    {{1, "automatic", AUTOMATIC}, {2, "udpv1", 1}, {3, "udpv2", 2}}, false)
vesk.prefs.downstream_ports = Pref.range("Downstream ports", "", "Ports that peers send to", 65535)
vesk.prefs.upstream_ports = Pref.range("Upstream ports", "", "Ports of the upstream services", 65535)
vesk.prefs.lateral_ports = Pref.range("Lateral ports", "", "Ports of the lateral streams", 65535)
vesk.prefs.key_file = Pref.string("Key file", "", "Lines of LABEL ALGORITHM HEXKEY [DIRECTION]")

local fields = {
    framing = ProtoField.uint8("vesk.framing", "Framing", base.DEC, {"UDPv1", "UDPv2"}),
    direction = ProtoField.string("vesk.direction", "Direction"),
    hmac = ProtoField.bytes("vesk.hmac", "HMAC"),
    status = ProtoField.string("vesk.hmac.status", "HMAC status"),
    header_length = ProtoField.uint16("vesk.header_length", "Header length"),
    label = ProtoField.uint32("vesk.label", "Label", base.HEX_DEC),
    further = ProtoField.bytes("vesk.further_header", "Further header bytes"),
    payload = ProtoField.bytes("vesk.payload", "Payload"),
    payload_length = ProtoField.uint32("vesk.payload.length", "Payload length"),
}
vesk.fields = fields

local lateral_fields = {
    kind = ProtoField.uint8("vesk.lateral.type", "Type", base.DEC, {"forwarded", "returned"}),
    length = ProtoField.uint8("vesk.lateral.length", "Length of the return information"),
    sockaddr = ProtoField.bytes("vesk.lateral.sockaddr", "Socket address of the peer"),
    port = ProtoField.uint16("vesk.lateral.port", "Port"),
    address = ProtoField.ipv4("vesk.lateral.address", "Address"),
    address6 = ProtoField.ipv6("vesk.lateral.address6", "Address"),
    scope = ProtoField.uint32("vesk.lateral.scope", "Scope"),
    hmac = ProtoField.bytes("vesk.lateral.hmac", "HMAC of the return information"),
}
lateral.fields = lateral_fields

local experts = {}
local function add_expert(name, group, severity, text)
    experts[name] = ProtoExpert.new("vesk.expert." .. name:gsub(" ", "_"), text, group, severity)
end
local group, severity = expert.group, expert.severity
add_expert("good", group.CHECKSUM, severity.CHAT, "The HMAC is right")
add_expert("bad", group.CHECKSUM, severity.ERROR, "The HMAC fits none of the keys of this label")
add_expert("no key", group.CHECKSUM, severity.CHAT, "No key is known for this label")
add_expert("unsigned", group.CHECKSUM, severity.NOTE, "Unsigned: the HMAC field is all zeros")
add_expert("unsigned despite key", group.CHECKSUM, severity.WARN,
           "Unsigned, though a key is known for this label")
add_expert("cut short", group.CHECKSUM, severity.NOTE, "Not captured whole: the HMAC was not checked")
add_expert("guessed", group.ASSUMPTION, severity.NOTE,
           "The framing is a guess; set it in the preferences")
add_expert("too long", group.PROTOCOL, severity.WARN, "The forwarder reads the first 2,048 bytes only")
add_expert("refused", group.MALFORMED, severity.ERROR, "The forwarder does not accept this datagram")
add_expert("address", group.PROTOCOL, severity.WARN, "Neither an IPv4 nor an IPv6 socket address")
vesk.experts = experts

local tree = part("vesk_tree")({vesk = vesk, lateral = lateral, fields = fields,
                                lateral_fields = lateral_fields, experts = experts},
                               framing, digest.hmac)

local udp_length = Field.new("udp.length")
local UDP_HEADER = 8

-- The length of the datagram as sent. Wireshark passes on the first fragment of a datagram like a whole
-- one; only its UDP header contains the full length.
local function sent_length(tvb)
    local lengths = {udp_length()}
    local nearest = lengths[#lengths]
    return math.max(tvb:reported_len(), nearest and nearest.value - UDP_HEADER or 0)
end

local keys_by_label, told = {}, ""

local function keys_for(direction)
    return function(label) return key_file.find(keys_by_label, label, direction) end
end

local function is_among(ranges, port)
    for first, last in ranges:gmatch("(%d+)%-?(%d*)") do
        if port >= tonumber(first) and port <= (tonumber(last) or tonumber(first)) then
            return true
        end
    end
    return false
end

local function direction_of(pinfo)
    local downstream, upstream = vesk.prefs.downstream_ports, vesk.prefs.upstream_ports
    return is_among(downstream, pinfo.dst_port) and "from_peer"
        or is_among(downstream, pinfo.src_port) and "to_peer"
        or is_among(upstream, pinfo.dst_port) and "to_upstream"
        or is_among(upstream, pinfo.src_port) and "from_upstream"
        or nil
end

local function add_framed(tvb, length, pinfo, root, direction)
    local version = vesk.prefs.framing ~= AUTOMATIC and vesk.prefs.framing or nil
    return tree.add_framed(tvb, length, pinfo, root, version, direction, keys_for(direction))
end

function vesk.dissector(tvb, pinfo, root)
    pinfo.cols.protocol = "Vesk"
    pinfo.cols.info = tvb:len() == 0 and "nothing captured"
        or add_framed(tvb, sent_length(tvb), pinfo, root, direction_of(pinfo))
    return tvb:len()
end

function lateral.dissector(tvb, pinfo, root)
    pinfo.cols.protocol = "Vesk lateral"
    if tvb:len() == 0 then
        pinfo.cols.info = "nothing captured"
        return 0
    end
    local length = sent_length(tvb)
    local size, summary = tree.add_lateral(tvb, length, root)
    if size and tvb:len() > size then
        local direction = tvb(0, 1):uint() == framing.FORWARDED and "from_peer" or "to_peer"
        summary = summary .. ", "
            .. add_framed(tvb(size):tvb(), length - size, pinfo, root, direction)
    elseif size then
        summary = summary .. ", nothing behind it"
    end
    pinfo.cols.info = summary
    return tvb:len()
end

-- The protocol of a datagram that is signed correctly with one of the keys; nil for any other.
local function protocol_of(bytes, length)
    local find_keys = keys_for(nil)
    if framing.signed_version(bytes, length, find_keys, digest.hmac) then
        return vesk
    end
    local size = framing.lateral_header_size(bytes, length)
    if size and framing.signed_version(bytes:sub(size + 1), length - size, find_keys, digest.hmac) then
        return lateral
    end
    return nil
end

-- On ports that are not configured, a correct HMAC identifies the protocol of the whole conversation.
vesk:register_heuristic("udp", function(tvb, pinfo, root)
    if next(keys_by_label) == nil or tvb:len() == 0 then
        return false
    end
    local protocol = protocol_of(tvb:raw(), sent_length(tvb))
    if not protocol then
        return false
    end
    pinfo.conversation = protocol
    protocol.dissector(tvb, pinfo, root)
    return true
end)

-- Reports a fault in the key file. The file is read repeatedly, but the same text is reported only once.
local function complain(text)
    if text ~= told then
        told = text
        report_failure(text)
    end
end

-- Called whenever a capture is opened or dissected again, since the key file may have changed.
function vesk.init()
    keys_by_label = {}
    local path = vesk.prefs.key_file
    if path == "" then
        return
    end
    local file, problem = io.open(path, "rb")
    if not file then
        complain("Vesk key file: " .. problem)
        return
    end
    local complaints
    keys_by_label, complaints = key_file.parse(file:read("*a") or "", digest.algorithms)
    file:close()
    if #complaints > 0 then
        complain(("Vesk key file %s:\n%s"):format(path, table.concat(complaints, "\n")))
    end
end

local udp_ports = DissectorTable.get("udp.port")
local claimed = {}

local function claim(ports, protocol)
    if ports ~= "" then
        udp_ports:add(ports, protocol)
        table.insert(claimed, {ports = ports, protocol = protocol})
    end
end

function vesk.prefs_changed()
    for _, former in ipairs(claimed) do
        udp_ports:remove(former.ports, former.protocol)
    end
    claimed = {}
    claim(vesk.prefs.downstream_ports, vesk)
    claim(vesk.prefs.upstream_ports, vesk)
    claim(vesk.prefs.lateral_ports, lateral)
end

udp_ports:add_for_decode_as(vesk)
udp_ports:add_for_decode_as(lateral)
