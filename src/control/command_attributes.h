// The attributes of one command. A handler asks for them in the order in which errors are to be
// logged. Each error is logged as a line that begins with the handler's name. Called by the
// handlers, on the main thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/command_line.h"

namespace vesk {

/// The address on which a listener is to receive; the port is in host byte order.
struct ListenAddress {
    std::string address;
    std::uint64_t port;
};

class CommandAttributes {
 public:
    /// Parses the words after a command. None, after logging, if a word is left over.
    static std::optional<CommandAttributes> parse(std::string_view routine, TokenQueue& tokens);

    /// The attribute's text; null, after logging, if it is missing or empty. Valid as long as this
    /// object.
    const std::string* text(std::string_view name) const;

    /// A number of up to 64 or 32 bits. If the text is not such a number, `complaint` is logged,
    /// followed by the text.
    std::optional<std::uint64_t> number(std::string_view name, std::string_view complaint) const;
    std::optional<std::uint32_t> number32(std::string_view name, std::string_view complaint) const;

    /// "addr" and "port"; the address is not looked up. `badPort` is the complaint about the port.
    std::optional<ListenAddress> listenAddress(std::string_view badPort) const;

    /// Logs a complaint, followed by the text refused.
    void refuse(std::string_view complaint, std::string_view refused = {}) const;

 private:
    CommandAttributes(std::string_view routine, AttributeMap attributes);

    template <typename Number>
    std::optional<Number> parsed(
        std::string_view name, std::string_view complaint,
        std::optional<Number> (*parseNumber)(const std::string& text)) const;

    std::string_view routine_;
    AttributeMap attributes_;
};

}  // namespace vesk
