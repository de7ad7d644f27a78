#include "control/command_attributes.h"

#include <utility>

#include "base/parse_number.h"
#include "log/log.h"

namespace vesk {

std::optional<CommandAttributes> CommandAttributes::parse(std::string_view routine,
                                                          TokenQueue& tokens) {
    CommandAttributes attributes(routine, parseCommandAttrs(tokens));
    if (!consumedWhole(tokens, routine)) {
        return std::nullopt;
    }
    return attributes;
}

CommandAttributes::CommandAttributes(std::string_view routine, AttributeMap attributes)
    : routine_(routine), attributes_(std::move(attributes)) {}

const std::string* CommandAttributes::text(std::string_view name) const {
    const std::string* const value = findNonEmpty(attributes_, name);
    if (value == nullptr) {
        logError(routine_, ": bad command, missing or empty '", name, "' attr");
    }
    return value;
}

template <typename Number>
std::optional<Number> CommandAttributes::parsed(
    std::string_view name, std::string_view complaint,
    std::optional<Number> (*parseNumber)(const std::string& text)) const {
    const std::string* const value = text(name);
    if (value == nullptr) {
        return std::nullopt;
    }
    const std::optional<Number> result = parseNumber(*value);
    if (!result) {
        refuse(complaint, *value);
    }
    return result;
}

std::optional<std::uint64_t> CommandAttributes::number(std::string_view name,
                                                       std::string_view complaint) const {
    return parsed(name, complaint, parseUnsigned);
}

std::optional<std::uint32_t> CommandAttributes::number32(std::string_view name,
                                                         std::string_view complaint) const {
    return parsed(name, complaint, parseUnsigned32);
}

std::optional<ListenAddress> CommandAttributes::listenAddress(std::string_view badPort) const {
    const std::string* const address = text("addr");
    if (address == nullptr) {
        return std::nullopt;
    }
    const std::optional<std::uint64_t> port = number("port", badPort);
    if (!port) {
        return std::nullopt;
    }
    return ListenAddress{*address, *port};
}

void CommandAttributes::refuse(std::string_view complaint, std::string_view refused) const {
    logError(routine_, ": bad command, ", complaint, refused);
}

}  // namespace vesk
