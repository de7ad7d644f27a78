-- Finds the fields of a datagram, checks its HMAC and detects its framing: plain functions over bytes,
-- for vesk.lua. Offsets count from 0, as in docs/wire-format.md.
--
-- `bytes` is the captured part of a datagram of `length` bytes, and may be shorter.

local framing = {}

--- The maximum number of bytes of a datagram that the forwarder reads.
framing.LONGEST = 2048

--- Types of lateral datagrams.
framing.FORWARDED, framing.RETURNED = 1, 2
framing.LATERAL_HMAC_LENGTH = 16
framing.LATERAL_ADDRESS_OFFSET = 2

local LATERAL_SMALLEST = 34
local RETURN_SMALLEST, RETURN_LARGEST = 32, 44

--- The layout of each framing version.
framing.layouts = {
    {name = "UDPv1", hmac_length = 32, label_offset = 34, header_size = 38},
    {name = "UDPv2", hmac_length = 16, label_offset = 16, header_size = 20},
}
local HEADER_LENGTH_OFFSET = 32 -- in UDPv1

local CUT = "not captured as far as its header goes"

local function is_zero(bytes, length)
    return #bytes >= length and not bytes:sub(1, length):find("[^\0]")
end

--- The big-endian number of `size` bytes at an offset; nil if they were not captured.
function framing.number(bytes, offset, size)
    if offset + size > #bytes then
        return nil
    end
    local value = 0
    for i = 1, size do
        value = value * 256 + bytes:byte(offset + i)
    end
    return value
end

--- The offset of the payload; nil and the reason if the forwarder does not accept the datagram or if
--- too little was captured to decide.
function framing.payload_offset(version, bytes, length)
    local layout = framing.layouts[version]
    if length < layout.header_size then
        return nil, ("%d bytes, and the header takes %d"):format(length, layout.header_size)
    elseif #bytes < layout.header_size then
        return nil, CUT
    elseif version == 2 then
        return layout.header_size
    end
    local offset = framing.number(bytes, HEADER_LENGTH_OFFSET, 2)
    if offset < layout.header_size or offset >= length then
        return nil, ("header length %d in %d bytes"):format(offset, length)
    end
    return offset
end

--- "good", "bad", "unsigned" (all zeros), "no key" or "cut short" (by the capture), for a datagram
--- that has a payload offset. `keys` are the keys with which it may be signed.
function framing.hmac_status(version, bytes, length, keys, hmac)
    local layout = framing.layouts[version]
    if is_zero(bytes, layout.hmac_length) then
        return "unsigned"
    elseif #keys == 0 then
        return "no key"
    elseif #bytes < length then
        return "cut short"
    end
    local covered = bytes:sub(layout.hmac_length + 1)
    if version == 1 then
        -- The payload first, then the header from the header length on.
        local offset = framing.payload_offset(version, bytes, length)
        covered = bytes:sub(offset + 1) .. bytes:sub(layout.hmac_length + 1, offset)
    end
    for _, key in ipairs(keys) do
        local whole = hmac(key.algorithm, key.secret, covered) .. ("\0"):rep(layout.hmac_length)
        if whole:sub(1, layout.hmac_length) == bytes:sub(1, layout.hmac_length) then
            return "good"
        end
    end
    return "bad"
end

--- The version in which a datagram is signed correctly; nil if there is none. `find_keys` returns the
--- keys of a label.
function framing.signed_version(bytes, length, find_keys, hmac)
    for version, layout in ipairs(framing.layouts) do
        if framing.payload_offset(version, bytes, length) then
            local keys = find_keys(framing.number(bytes, layout.label_offset, 4))
            if framing.hmac_status(version, bytes, length, keys, hmac) == "good" then
                return version
            end
        end
    end
    return nil
end

--- The version that a datagram appears to have, and whether that is only a guess. Few UDPv2 datagrams
--- contain by chance a valid header length of UDPv1.
function framing.likely_version(bytes, length, find_keys, hmac)
    local first = framing.layouts[1]
    if length <= first.header_size then
        return 2, false
    elseif #bytes < first.header_size then
        return 2, true -- the capture ends before the bytes that decide
    elseif not framing.payload_offset(1, bytes, length) then
        return 2, false
    end
    local signed = framing.signed_version(bytes, length, find_keys, hmac)
    if signed then
        return signed, false
    elseif is_zero(bytes, first.hmac_length) then
        return 1, false
    elseif is_zero(bytes, framing.layouts[2].hmac_length) then
        return 2, false
    end
    return 1, true
end

--- The size of a lateral header; nil and the reason if the forwarder does not accept the datagram or if
--- too little was captured to decide.
function framing.lateral_header_size(bytes, length)
    if length < LATERAL_SMALLEST then
        return nil, ("%d bytes, and the lateral header takes %d"):format(length, LATERAL_SMALLEST)
    elseif #bytes < framing.LATERAL_ADDRESS_OFFSET then
        return nil, CUT
    end
    local kind, return_length = bytes:byte(1, 2)
    local size = framing.LATERAL_ADDRESS_OFFSET + return_length
    if kind ~= framing.FORWARDED and kind ~= framing.RETURNED then
        return nil, ("type %d"):format(kind)
    elseif return_length < RETURN_SMALLEST or return_length > RETURN_LARGEST or size > length then
        return nil, ("return information of %d bytes in %d"):format(return_length, length)
    elseif size > #bytes then
        return nil, CUT
    end
    return size
end

--- The address family in a lateral header, 4 or 6, and whether the host that wrote it is little-endian;
--- nil if it is neither family or its address has another length.
function framing.lateral_family(bytes, header_size)
    local first, second = bytes:byte(3, 4)
    local little_endian = second == 0
    local family = little_endian and first or first == 0 and second
    local address_length = header_size - framing.LATERAL_ADDRESS_OFFSET - framing.LATERAL_HMAC_LENGTH
    if family == 2 and address_length == 16 then
        return 4, little_endian
    elseif family == 10 and address_length == 28 then
        return 6, little_endian
    end
    return nil
end

return framing
