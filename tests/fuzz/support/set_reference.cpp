#include "support/set_reference.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <optional>
#include <set>
#include <string_view>

namespace vesk::fuzz {

namespace {

/// A number in C notation: sign and magnitude, the magnitude limited to 64 bits.
struct Number {
    bool negative = false;
    bool overflow = false;
    unsigned long long magnitude = 0;
};

int digitValue(char character) {
    constexpr std::string_view digits = "0123456789abcdef";
    const char lower = character >= 'A' && character <= 'F' ? char(character + 32) : character;
    const std::size_t value = digits.find(lower);
    return value == std::string_view::npos ? 99 : static_cast<int>(value);
}

/// Removes the prefix that selects the base.
unsigned takeBase(std::string_view& text) {
    const bool zero = text.starts_with('0');
    if (zero && text.size() > 2 && (text[1] == 'x' || text[1] == 'X') && digitValue(text[2]) < 16) {
        text.remove_prefix(2);
        return 16;
    }
    return zero ? 8 : 10;
}

std::optional<Number> readNumber(std::string_view text) {
    Number number;
    if (text.empty()) {
        return number;
    }
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    if (text.starts_with('-') || text.starts_with('+')) {
        number.negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty()) {
        return std::nullopt;
    }
    const unsigned base = takeBase(text);
    for (const char character : text) {
        const int digit = digitValue(character);
        if (digit >= static_cast<int>(base)) {
            return std::nullopt;
        }
        const auto added = static_cast<unsigned>(digit);
        number.overflow = number.overflow || number.magnitude > (~0ULL - added) / base;
        number.magnitude = number.magnitude * base + added;
    }
    return number;
}

unsigned long long unsignedValue(const Number& number) {
    if (number.overflow) {
        return ~0ULL;
    }
    return number.negative ? 0 - number.magnitude : number.magnitude;
}

Verdict accept(bool accepted) {
    return accepted ? Verdict::accepted : Verdict::refused;
}

Verdict verdictOnLabel(const std::string& value, unsigned long long maximum) {
    const auto number = readNumber(value);
    return accept(number && unsignedValue(*number) >= 1 && unsignedValue(*number) <= maximum);
}

Verdict verdictOnMark(const std::string& value) {
    // A DSCP out of range is ignored. Only a value above the range of the type is refused.
    constexpr unsigned long long greatest = 0x7FFFFFFFFFFFFFFF;
    const auto number = readNumber(value);
    if (!number || number->negative) {
        return accept(number.has_value());
    }
    if (number->magnitude == greatest && !number->overflow) {
        return Verdict::undetermined;
    }
    return accept(!number->overflow && number->magnitude < greatest);
}

Verdict verdictOnKey(const std::string& value) {
    return accept(!value.empty() && value.size() % 2 == 0 && value.size() <= 256 &&
                  std::ranges::all_of(value, [](char it) { return digitValue(it) < 16; }));
}

bool isPlainlyNumeric(const std::string& host) {
    std::array<unsigned char, 16> address{};
    return host.find('\0') == std::string::npos &&
           (inet_pton(AF_INET, host.c_str(), address.data()) == 1 ||
            inet_pton(AF_INET6, host.c_str(), address.data()) == 1);
}

Verdict verdictOnAddress(const std::string& value) {
    const std::size_t bar = value.find('|');
    if (bar == std::string::npos) {
        return Verdict::accepted;
    }
    const auto port = readNumber(value.substr(bar + 1));
    if (!port || port->overflow) {
        return Verdict::refused;
    }
    if (unsignedValue(*port) == ~0ULL) {
        return Verdict::undetermined;
    }
    const std::string host = value.substr(0, bar);
    const bool complete = !host.empty() && static_cast<unsigned>(unsignedValue(*port)) != 0;
    return complete && !isPlainlyNumeric(host) ? Verdict::undetermined : Verdict::accepted;
}

bool isOneOf(std::string_view text, std::initializer_list<std::string_view> texts) {
    return std::ranges::find(texts, text) != texts.end();
}

Verdict verdictOn(const std::string& name, const std::string& value) {
    const auto endsIn = [&name](std::string_view end) { return name.ends_with(end); };
    static const std::set<std::string, std::less<>> names{"down_in_key",
                                                          "down_out_key",
                                                          "up_in_key",
                                                          "up_out_key",
                                                          "down_addrinfo",
                                                          "up_addrinfo",
                                                          "up_src_addrinfo",
                                                          "up_aux_flow_addrinfo",
                                                          "down_in_algo",
                                                          "down_out_algo",
                                                          "up_in_algo",
                                                          "up_out_algo",
                                                          "down_out_dscp_v4",
                                                          "down_out_dscp_v6",
                                                          "up_out_dscp_v4",
                                                          "up_out_dscp_v6",
                                                          "label",
                                                          "down_label",
                                                          "up_label",
                                                          "up_aux_flow_label",
                                                          "is_multiplex",
                                                          "down_aux_flow_label_prefix"};
    if (!names.contains(name)) {
        return Verdict::refused;
    }
    if (endsIn("_key")) {
        return verdictOnKey(value);
    }
    if (endsIn("_addrinfo")) {
        return verdictOnAddress(value);
    }
    if (endsIn("_algo")) {
        return accept(isOneOf(value, {"sha1", "sha256"}));
    }
    if (endsIn("_multiplex")) {
        return accept(isOneOf(value, {"true", "false"}));
    }
    if (endsIn("label")) {
        return verdictOnLabel(value, 0xFFFFFFFF);
    }
    return endsIn("_prefix") ? verdictOnLabel(value, 0xFFFF) : verdictOnMark(value);
}

}  // namespace

Verdict verdictOnSet(const Attributes& attributes) {
    if (!attributes.contains("label")) {
        return Verdict::refused;
    }
    // In the order of names: attributes before the first refused one may end the command earlier.
    Verdict verdict = Verdict::accepted;
    for (const auto& [name, value] : attributes) {
        switch (verdictOn(name, value)) {
            case Verdict::refused:
                return verdict == Verdict::accepted ? Verdict::refused : verdict;
            case Verdict::undetermined:
                verdict = Verdict::undetermined;
                break;
            case Verdict::accepted:
                break;
        }
    }
    return verdict;
}

unsigned labelOf(const Attributes& attributes) {
    return static_cast<unsigned>(unsignedValue(readNumber(attributes.at("label")).value()));
}

}  // namespace vesk::fuzz
