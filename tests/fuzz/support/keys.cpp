#include "support/keys.h"

#include <numeric>

namespace vesk::fuzz {

namespace {

Bytes countedKey(std::size_t length, std::uint8_t first) {
    Bytes bytes(length);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

}  // namespace

const std::array<TestKey, 3>& someKeys() {
    static const std::array<TestKey, 3> keys{
        {{"sha1", {}}, {"sha1", countedKey(20, 1)}, {"sha256", countedKey(100, 101)}}};
    return keys;
}

}  // namespace vesk::fuzz
