#include "config/numeric_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <charconv>

namespace vesk::controller {

namespace {

struct Halves {
    std::string host;
    std::string_view port;
    bool bracketed = false;
};

std::optional<Halves> split(std::string_view text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view host = text.substr(0, colon);
    const bool bracketed = host.starts_with('[') && host.ends_with(']');
    if (bracketed) {
        host = host.substr(1, host.size() - 2);
    }
    return Halves{std::string(host), text.substr(colon + 1), bracketed};
}

std::optional<std::uint16_t> parsePort(std::string_view text) {
    std::uint16_t port = 0;
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, port);
    if (error != std::errc() || stopped != end || port == 0) {
        return std::nullopt;
    }
    return port;
}

/// Whether the whole text is an address. inet_pton(3) reads only up to a NUL, so that is refused.
bool isAddress(int family, const std::string& host) {
    in6_addr room{};
    return host.find('\0') == std::string::npos && inet_pton(family, host.c_str(), &room) == 1;
}

}  // namespace

bool isIPv4(const std::string& host) {
    return isAddress(AF_INET, host);
}

bool isIPv6(const std::string& host) {
    return isAddress(AF_INET6, host);
}

bool isNumericHost(const std::string& host) {
    return isIPv4(host) || isIPv6(host);
}

std::optional<HostPort> parseHostPort(std::string_view text) {
    const std::optional<Halves> halves = split(text);
    if (!halves) {
        return std::nullopt;
    }
    const std::optional<std::uint16_t> port = parsePort(halves->port);
    const bool good = halves->bracketed ? isIPv6(halves->host) : isIPv4(halves->host);
    if (!port || !good) {
        return std::nullopt;
    }
    return HostPort{halves->host, *port};
}

}  // namespace vesk::controller
