#include "support/byte_reader.h"

#include <algorithm>

namespace vesk::fuzz {

std::uint8_t ByteReader::byte() {
    const View taken = take(1);
    return taken.empty() ? std::uint8_t{0} : taken.front();
}

std::uint16_t ByteReader::number16() {
    const unsigned high = byte();
    return static_cast<std::uint16_t>(high << 8 | byte());
}

View ByteReader::take(std::size_t count) {
    const View taken = bytes_.first(std::min(count, bytes_.size()));
    bytes_ = bytes_.subspan(taken.size());
    return taken;
}

}  // namespace vesk::fuzz
