#include "config/key_reader.h"

#include <algorithm>
#include <string_view>

#include "config/key_mask.h"
#include "config/protected_file.h"

namespace vesk::controller {

namespace {

constexpr std::string_view keyDigits = "0123456789abcdefABCDEF";
constexpr std::string_view whiteSpace = " \t\r\n\v\f";
constexpr std::size_t maxDigits = 256;
constexpr std::size_t maxKeyFile = 4096;

std::string withoutWhiteSpace(std::string text) {
    std::erase_if(text, [](char c) { return whiteSpace.find(c) != std::string_view::npos; });
    return text;
}

std::string lowerCase(std::string digits) {
    std::transform(digits.begin(), digits.end(), digits.begin(),
                   [](char c) { return c >= 'A' && c <= 'F' ? static_cast<char>(c | 0x20) : c; });
    return digits;
}

}  // namespace

KeyReading readKey(const std::string& text) {
    if (text.empty()) {
        return {"", "the key is empty"};
    }
    if (text.find_first_not_of(keyDigits) != std::string::npos) {
        return {"", "the key has a character that is not a hex digit"};
    }
    if (text.size() % 2 != 0) {
        return {"", "the key has an odd number of hex digits"};
    }
    if (text.size() > maxDigits) {
        return {"", "the key is longer than " + std::to_string(maxDigits / 2) + " bytes"};
    }
    return {lowerCase(text), ""};
}

KeyReading readKeyFile(const std::filesystem::path& path, bool allowReadable) {
    const FileText file = readProtectedFile(path, maxKeyFile);
    if (!file.problem.empty()) {
        // A path that does not exist may be a key that was entered as a path.
        const bool named = file.found || !mayHoldKey(path.string());
        return {"", (named ? path.string() : "the file") + " " + file.problem};
    }
    if (file.readableByOthers && !allowReadable) {
        return {"", path.string() + " is readable by others: run chmod go-r on it, or use " +
                        "--allow-readable-keys"};
    }
    KeyReading key = readKey(withoutWhiteSpace(file.text));
    if (!key.problem.empty()) {
        key.problem = path.string() + ": " + key.problem;
    }
    return key;
}

}  // namespace vesk::controller
