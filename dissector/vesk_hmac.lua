-- SHA-1, SHA-256 and HMAC in plain Lua, since Wireshark offers none to its scripts. vesk_framing.lua
-- checks datagrams with it. The code does not protect secrets: it is only for the analysis of captures.
--
-- Stored words are numbers from 0 to 2^32-1; sums are reduced to this range before they are stored.

local bits = bit32 or bit -- Lua 5.2 has the first, Wireshark brings the second along with other versions
local band, bxor, rshift = bits.band, bits.bxor, bits.rshift
local rotate_left = bits.lrotate or bits.rol
local rotate_right = bits.rrotate or bits.ror
local byte, char, floor = string.byte, string.char, math.floor

local WORD = 2 ^ 32
local BLOCK_SIZE = 64

local SHA1_START = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476, 0xc3d2e1f0}
local SHA256_START = {
    0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a, 0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19,
}
local SHA256_ROUNDS = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2,
}

local function bytes_of(word)
    return char(floor(word / 0x1000000) % 256, floor(word / 0x10000) % 256,
                floor(word / 0x100) % 256, word % 256)
end

local function padded(message)
    local zeros = (55 - #message) % BLOCK_SIZE
    -- The length in bits has eight bytes; no datagram needs the upper four.
    return message .. "\128" .. ("\0"):rep(zeros + 4) .. bytes_of(#message * 8)
end

local function words_of_block(text, offset)
    local words = {}
    for i = 1, 16 do
        local first, second, third, fourth = byte(text, offset + 4 * i - 3, offset + 4 * i)
        words[i] = ((first * 256 + second) * 256 + third) * 256 + fourth
    end
    return words
end

local function compress_sha1(state, words)
    for i = 17, 80 do
        words[i] = rotate_left(bxor(words[i - 3], words[i - 8], words[i - 14], words[i - 16]), 1)
    end
    local a, b, c, d, e = state[1], state[2], state[3], state[4], state[5]
    for i = 1, 80 do
        local mixed, constant
        if i <= 20 then
            mixed, constant = bxor(d, band(b, bxor(c, d))), 0x5a827999
        elseif i <= 40 then
            mixed, constant = bxor(b, c, d), 0x6ed9eba1
        elseif i <= 60 then
            mixed, constant = bxor(band(b, c), band(b, d), band(c, d)), 0x8f1bbcdc
        else
            mixed, constant = bxor(b, c, d), 0xca62c1d6
        end
        local sum = (rotate_left(a, 5) + mixed + e + constant + words[i]) % WORD
        a, b, c, d, e = sum, a, rotate_left(b, 30), c, d
    end
    return {a, b, c, d, e}
end

local function compress_sha256(state, words)
    for i = 17, 64 do
        local early, late = words[i - 15], words[i - 2]
        words[i] = (words[i - 16] + words[i - 7]
            + bxor(rotate_right(early, 7), rotate_right(early, 18), rshift(early, 3))
            + bxor(rotate_right(late, 17), rotate_right(late, 19), rshift(late, 10))) % WORD
    end
    local a, b, c, d, e, f, g, h = table.unpack(state)
    for i = 1, 64 do
        local first = h + SHA256_ROUNDS[i] + words[i] + bxor(g, band(e, bxor(f, g)))
            + bxor(rotate_right(e, 6), rotate_right(e, 11), rotate_right(e, 25))
        local second = bxor(band(a, b), band(a, c), band(b, c))
            + bxor(rotate_right(a, 2), rotate_right(a, 13), rotate_right(a, 22))
        a, b, c, d, e, f, g, h = (first + second) % WORD, a, b, c, (d + first) % WORD, e, f, g
    end
    return {a, b, c, d, e, f, g, h}
end

local function digest(message, state, compress)
    message = padded(message)
    for offset = 0, #message - BLOCK_SIZE, BLOCK_SIZE do
        local added = compress(state, words_of_block(message, offset))
        for i = 1, #state do
            added[i] = (state[i] + added[i]) % WORD
        end
        state = added
    end
    local pieces = {}
    for i = 1, #state do
        pieces[i] = bytes_of(state[i])
    end
    return table.concat(pieces)
end

local digests = {
    sha1 = function(message) return digest(message, SHA1_START, compress_sha1) end,
    sha256 = function(message) return digest(message, SHA256_START, compress_sha256) end,
}

local function mask(key, value)
    return (key:gsub(".", function(c) return char(bxor(byte(c), value)) end))
end

--- The full HMAC of a message as bytes. The algorithm is "sha1" or "sha256".
local function hmac(algorithm, key, message)
    local hash = digests[algorithm]
    if #key > BLOCK_SIZE then
        key = hash(key)
    end
    key = key .. ("\0"):rep(BLOCK_SIZE - #key)
    return hash(mask(key, 0x5c) .. hash(mask(key, 0x36) .. message))
end

return {hmac = hmac, algorithms = digests}
