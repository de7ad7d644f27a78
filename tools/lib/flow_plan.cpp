#include "lib/flow_plan.h"

#include <array>
#include <charconv>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>

namespace vesk::bench {
namespace {

constexpr std::size_t keySize = 32;
constexpr std::uint32_t upLabelDistance = 0x40000000;
constexpr std::uint32_t downLabelDistance = firstForeignLabel;
constexpr std::string_view hexDigits = "0123456789abcdef";

struct KeyUse {
    const char* name;
    HmacKey FlowPlan::*member;
};
constexpr std::array<KeyUse, 4> keyUses{{{"down_in", &FlowPlan::downIn},
                                         {"down_out", &FlowPlan::downOut},
                                         {"up_in", &FlowPlan::upIn},
                                         {"up_out", &FlowPlan::upOut}}};

struct LabelUse {
    const char* name;
    std::uint32_t FlowPlan::*member;
};
constexpr std::array<LabelUse, 3> labelUses{{{"label", &FlowPlan::label},
                                             {"up_label", &FlowPlan::upLabel},
                                             {"down_label", &FlowPlan::downLabel}}};

HmacKey makeKey(Algorithm algorithm, std::mt19937_64& random) {
    HmacKey key{algorithm, {}};
    if (algorithm != Algorithm::none) {
        for (std::size_t i = 0; i < keySize; ++i) {
            key.bytes.push_back(static_cast<std::byte>(random()));
        }
    }
    return key;
}

std::vector<std::byte> fromHex(std::string_view text) {
    std::vector<std::byte> bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        const std::size_t high = hexDigits.find(text[i]);
        const std::size_t low = hexDigits.find(text[i + 1]);
        if (high == std::string_view::npos || low == std::string_view::npos) {
            throw std::invalid_argument("not a key: " + std::string(text));
        }
        bytes.push_back(static_cast<std::byte>(high << 4 | low));
    }
    return bytes;
}

template <typename Number>
Number decimal(const std::string& text) {
    Number value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        throw std::invalid_argument("not a number: " + text);
    }
    return value;
}

// The attributes of a line that begins with `command`; none for any other line.
std::optional<std::map<std::string, std::string>> attributesOf(std::string_view line,
                                                               std::string_view command) {
    std::istringstream words{std::string(line)};
    std::string word;
    if (!(words >> word) || word != command) {
        return std::nullopt;
    }
    std::map<std::string, std::string> attributes;
    for (std::string name, value; words >> name >> value;) {
        attributes.emplace(name, value);
    }
    return attributes;
}

}  // namespace

std::string toHex(const std::vector<std::byte>& bytes) {
    std::string text;
    for (const std::byte byte : bytes) {
        text += hexDigits[std::to_integer<std::size_t>(byte >> 4)];
        text += hexDigits[std::to_integer<std::size_t>(byte & std::byte{0xf})];
    }
    return text;
}

std::vector<FlowPlan> makeFlowPlans(const FlowPlanOptions& options) {
    std::mt19937_64 random(options.seed);
    std::vector<FlowPlan> plans;
    for (std::size_t i = 0; i < options.flows; ++i) {
        const Algorithm algorithm = options.algorithms.at(i % options.algorithms.size());
        FlowPlan plan;
        plan.label = options.labelBase + static_cast<std::uint32_t>(i) * options.labelStep;
        plan.upLabel = options.unchanged ? plan.label : plan.label + upLabelDistance;
        plan.downLabel = options.unchanged ? plan.label : plan.label + downLabelDistance;
        for (const KeyUse& use : keyUses) {
            plan.*use.member = makeKey(algorithm, random);
        }
        if (options.unchanged) {
            plan.upOut = plan.downIn;
            plan.downOut = plan.upIn;
        }
        plan.upPort = options.upPort;
        plan.source = options.source;
        plan.sourcePort = static_cast<std::uint16_t>(firstSourcePort + i % mostSources);
        plans.push_back(std::move(plan));
    }
    return plans;
}

std::string setCommand(const FlowPlan& plan) {
    std::ostringstream line;
    line << "set";
    for (const LabelUse& use : labelUses) {
        line << ' ' << use.name << ' ' << plan.*use.member;
    }
    line << " up_ip 127.0.0.1 up_port " << plan.upPort;
    if (!plan.source.empty()) {
        line << " up_src_ip " << plan.source << " up_src_port " << plan.sourcePort;
    }
    for (const KeyUse& use : keyUses) {
        const HmacKey& key = plan.*use.member;
        if (!key.bytes.empty()) {
            line << ' ' << use.name << "_key " << toHex(key.bytes);
            line << ' ' << use.name << "_algo " << algorithmName(key.algorithm);
        }
    }
    return line.str();
}

std::string startCommand(const std::string& address, std::uint16_t port) {
    return "start addr " + address + " port " + std::to_string(port);
}

std::optional<FlowPlan> parseSetCommand(std::string_view line) {
    const auto attributes = attributesOf(line, "set");
    if (!attributes) {
        return std::nullopt;
    }
    FlowPlan plan;
    for (const LabelUse& use : labelUses) {
        plan.*use.member = decimal<std::uint32_t>(attributes->at(use.name));
    }
    plan.upPort = decimal<std::uint16_t>(attributes->at("up_port"));
    for (const KeyUse& use : keyUses) {
        const auto key = attributes->find(use.name + std::string("_key"));
        if (key != attributes->end()) {
            plan.*use.member = {algorithmByName(attributes->at(use.name + std::string("_algo"))),
                                fromHex(key->second)};
        }
    }
    return plan;
}

std::optional<std::uint16_t> parseStartCommand(std::string_view line) {
    const auto attributes = attributesOf(line, "start");
    if (!attributes) {
        return std::nullopt;
    }
    return decimal<std::uint16_t>(attributes->at("port"));
}

}  // namespace vesk::bench
