-- Prints the HMAC of each line "ALGORITHM HEXKEY HEXMESSAGE" of a file, "-" standing for no bytes.
-- Arguments: the module, the file, and the library for bits ("bit32" or "bit").
local module, vectors, library = ...
if library == "bit" then
    bit32 = nil
end
local hmac = dofile(module).hmac

local function bytes_of(hex)
    return (hex:gsub("-", ""):gsub("%x%x", function(digits) return string.char(tonumber(digits, 16)) end))
end

for line in io.lines(vectors) do
    local algorithm, key, message = line:match("(%S+) (%S+) (%S+)")
    local code = hmac(algorithm, bytes_of(key), bytes_of(message))
    print((code:gsub(".", function(c) return ("%02x"):format(c:byte()) end)))
end
