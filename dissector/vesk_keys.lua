-- The key file of the dissector, read by vesk.lua whenever a capture is opened:
--
--     # label   algorithm  key                               direction (may be left out)
--     0x10001   sha256     00112233445566778899aabbccddeeff  from_peer
--     0x20001   sha256     0f1e2d3c4b5a69788796a5b4c3d2e1f0  to_upstream
--
-- The label is the one in the datagram, so each direction of a flow has its own line.

local LONGEST_KEY = 128
local DIRECTIONS = {from_peer = true, to_upstream = true, from_upstream = true, to_peer = true}

local keys = {}

--- The label in a text, decimal or hexadecimal with "0x"; nil if it is invalid.
local function label_of(text)
    local decimal = text:match("^[1-9]%d*$") or text:match("^0$")
    local label = tonumber(decimal or text:match("^0[xX]%x+$"))
    return label and label < 2 ^ 32 and label or nil
end

--- The bytes for the hex digits of a key; nil if they are invalid.
local function bytes_of(text)
    if #text % 2 ~= 0 or #text > 2 * LONGEST_KEY or not text:match("^%x+$") then
        return nil
    end
    return (text:gsub("%x%x", function(digits) return string.char(tonumber(digits, 16)) end))
end

--- The label and the key of one line, or nil and its fault.
local function parse_line(line, algorithms)
    local label_text, algorithm, secret_text, direction, surplus =
        line:match("^%s*(%S+)%s+(%S+)%s+(%S+)%s*(%S*)%s*(%S*)")
    if not label_text or surplus ~= "" then
        return nil, "expected LABEL ALGORITHM HEXKEY [DIRECTION]"
    end
    local label, secret = label_of(label_text), bytes_of(secret_text)
    if not label then
        return nil, "not a label: " .. label_text
    elseif not algorithms[algorithm] then
        return nil, "not an algorithm (sha1, sha256): " .. algorithm
    elseif not secret then
        return nil, "not a key (2 to 256 hex digits, an even number)"
    elseif direction ~= "" and not DIRECTIONS[direction] then
        return nil, "not a direction (from_peer, to_upstream, from_upstream, to_peer): " .. direction
    end
    return label, {algorithm = algorithm, secret = secret,
                   direction = direction ~= "" and direction or nil}
end

--- The keys in the text of a file, as lists by label, and the faults of its lines. Faulty lines are
--- ignored.
function keys.parse(text, algorithms)
    local by_label, complaints, number = {}, {}, 0
    for line in (text .. "\n"):gmatch("(.-)\r?\n") do
        number = number + 1
        line = line:gsub("#.*", "")
        if line:match("%S") then
            local label, key = parse_line(line, algorithms)
            if label then
                by_label[label] = by_label[label] or {}
                table.insert(by_label[label], key)
            else
                table.insert(complaints, ("line %d: %s"):format(number, key))
            end
        end
    end
    return by_label, complaints
end

--- The keys with which a datagram with this label may be signed. Without a direction, all keys of the
--- label.
function keys.find(by_label, label, direction)
    local found = {}
    for _, key in ipairs(by_label[label] or {}) do
        if not direction or not key.direction or key.direction == direction then
            table.insert(found, key)
        end
    end
    return found
end

return keys
