// The attributes of one command, asked for one after another in the order in which complaints are
// made. Every complaint is an error line that begins with the handler's name. Called on the main
// thread by the handlers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/command_line.h"

namespace vesk {

/// Where a listener is to receive.
struct ListenAddress {
    std::string address;
    std::uint64_t port;
};

class CommandAttributes {
 public:
    /// Parses the words after a command. Nothing, after logging, where one is left over.
    static std::optional<CommandAttributes> parse(std::string_view routine, TokenQueue& tokens);

    /// Null, after logging, where it is missing or empty. Valid as long as this object.
    const std::string* text(std::string_view name) const;

    /// A number of any size, or of 32 bits. Where it is none, `complaint` is logged with the text
    /// refused behind it.
    std::optional<std::uint64_t> number(std::string_view name, std::string_view complaint) const;
    std::optional<std::uint32_t> number32(std::string_view name, std::string_view complaint) const;

    /// "addr" and "port"; the address is not looked up.
    std::optional<ListenAddress> listenAddress(std::string_view badPort) const;

    /// Logs a complaint.
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
