// Splits a line into words and parses them as attributes. The input is the line.
#include <array>
#include <string>

#include "base/command_line.h"
#include "support/require.h"

namespace vesk::fuzz {
namespace {

/// The same, character by character.
TokenQueue expectedWords(const std::string& line) {
    TokenQueue words;
    bool inWord = false;
    for (const char character : line) {
        const bool separator =
            character == 32 || character == 9 || character == 10 || character == 13;
        if (!separator && !inWord) {
            words.emplace_back();
        }
        if (!separator) {
            words.back().push_back(character);
        }
        inWord = !separator;
    }
    return words;
}

/// The last value given for a name, or the first one.
std::string valueOf(const std::string& name, const TokenQueue& words, bool last) {
    std::string value;
    for (std::size_t i = 0; i + 1 < words.size(); i += 2) {
        if (words[i] == name && (last || value.empty())) {
            value = words[i + 1];
        }
    }
    return value;
}

const std::array<std::string, 4> addresses{"down", "up", "up_src", "up_aux_flow"};

bool isHalf(const std::string& name) {
    for (const std::string& address : addresses) {
        if (name == address + "_ip" || name == address + "_port") {
            return true;
        }
    }
    return false;
}

AttributeMap expectedAttributes(const TokenQueue& words) {
    AttributeMap attributes;
    for (std::size_t i = 0; i + 1 < words.size(); i += 2) {
        if (!isHalf(words[i])) {
            attributes[words[i]] = valueOf(words[i], words, false);
        }
    }
    for (const std::string& address : addresses) {
        const std::string host = valueOf(address + "_ip", words, true);
        const std::string port = valueOf(address + "_port", words, true);
        const std::string folded = address + "_addrinfo";
        if (!(host + port).empty() && !attributes.contains(folded)) {
            attributes[folded] = host + "|" + port;
        }
    }
    return attributes;
}

}  // namespace
}  // namespace vesk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vesk;
    using namespace vesk::fuzz;
    const std::string line(data, data + size);
    TokenQueue words = splitCommandLine(line);
    require(words == expectedWords(line), "a line is split into its words");
    const AttributeMap expected = expectedAttributes(words);
    require(parseCommandAttrs(words) == expected, "words become attributes");
    require(words.empty() && consumedWhole(words, "fuzz"), "no word is left over");
    for (const auto& [name, value] : expected) {
        require(*findNonEmpty(expected, name) == value, "an attribute is found by its name");
    }
    return 0;
}
