#include "service/kept_forwarder.h"

#include <algorithm>
#include <charconv>

#include "base/unique_fd.h"
#include "child/process_descriptor.h"

namespace vesk::controller {

namespace {

constexpr std::string_view nameBeginning = "forwarder";

std::string_view textOf(KeptPart part) {
    switch (part) {
        case KeptPart::input:
            return "input";
        case KeptPart::output:
            return "output";
        default:
            return "process";
    }
}

/// Removes what precedes the next hyphen from the text, with it, and returns it.
std::string_view takeNamePart(std::string_view& text) {
    const std::string_view word = text.substr(0, text.find('-'));
    text.remove_prefix(std::min(word.size() + 1, text.size()));
    return word;
}

std::uint16_t numberOf(std::string_view word) {
    std::uint16_t number = 0;
    std::from_chars(word.data(), word.data() + word.size(), number);
    return number;
}

}  // namespace

std::string textOf(const KeptName& name) {
    return std::string(nameBeginning) + "-" + std::to_string(name.place.number) + "-" +
           std::to_string(name.place.port) + "-" + std::string(textOf(name.part));
}

std::optional<KeptName> keptNameIn(std::string_view text) {
    std::string_view rest = text;
    takeNamePart(rest);
    KeptName name;
    name.place.number = numberOf(takeNamePart(rest));
    name.place.port = numberOf(takeNamePart(rest));
    for (const KeptPart part : keptParts) {
        name.part = part;
        if (textOf(name) == text) {
            return name;
        }
    }
    return std::nullopt;
}

/// The process first: with it the next controller can wait for the end of a forwarder of which it
/// got nothing else.
KeptForwarder::KeptForwarder(const ServiceNotification& notification, KeptPlace place,
                             const ForwarderSession& forwarder)
    : KeptForwarder(notification, place) {
    const UniqueFd process = processDescriptor(forwarder.pid());
    if (process) {
        store(KeptPart::process, process.get());
        store(KeptPart::output, forwarder.output());
        store(KeptPart::input, forwarder.input());
    }
}

KeptForwarder::~KeptForwarder() {
    for (const KeptPart part : keptParts) {
        remove(part);
    }
}

void KeptForwarder::store(KeptPart part, int descriptor) const {
    notification_.store(controller::textOf({place_, part}), descriptor);
}

void KeptForwarder::remove(KeptPart part) const {
    notification_.removeStored(controller::textOf({place_, part}));
}

}  // namespace vesk::controller
