// A program in C++ that uses the installed library: prints a UDPv2 datagram with the given payload.
#include <array>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string_view>

#include "vesk_framing.hpp"

namespace {

namespace framing = vesk::framing;

std::span<const std::uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

framing::Result print(std::string_view payload) {
    auto key = framing::Key::make(framing::Digest::sha256, bytesOf("first key"));
    if (!key) {
        return key.result;
    }
    std::array<std::uint8_t, framing::maxDatagram> buffer{};
    const auto made = framing::make(framing::Version::udpv2,
                                    {.label = 0x10001, .payload = bytesOf(payload), .further = {}},
                                    key.value, buffer);
    const auto datagram = std::span(buffer).first(made.value);
    for (const std::uint8_t byte : datagram) {
        std::printf("%02x", unsigned{byte});
    }
    std::printf("\n");
    return framing::check(framing::Version::udpv2, datagram, key.value).result;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    const framing::Result result = print(argv[1]);
    std::fprintf(stderr, "%s\n", framing::text(result));
    return result == framing::Result::ok ? 0 : 1;
}
