#include "datapath/documented_datagrams.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace vesk {

namespace {

/// Line breaks within a paragraph of the page have no meaning.
std::string withBlanksForNewlines(std::string text) {
    std::ranges::replace(text, '\n', ' ');
    return text;
}

std::size_t endOf(const std::string& text, std::string_view phrase) {
    const std::size_t at = text.find(phrase);
    if (at == std::string::npos) {
        throw std::runtime_error("docs/wire-format.md lacks: " + std::string(phrase));
    }
    return at + phrase.size();
}

DocumentedDatagram parseDump(const std::string& dump) {
    // Offset, bytes and, after three or more blanks, a note.
    static const std::regex line("([0-9a-f]{4})  ([0-9a-f]{2}(?: [0-9a-f]{2})*)(?:   +(.*))?");
    Bytes bytes;
    std::vector<DocumentedDatagram::Row> rows;
    std::istringstream lines(dump);
    for (std::string text; std::getline(lines, text);) {
        std::smatch parts;
        if (!std::regex_match(text, parts, line) ||
            std::stoul(parts[1], nullptr, 16) != bytes.size()) {
            throw std::runtime_error("no line of a dump, or its offset is wrong: " + text);
        }
        rows.push_back({bytes.size(), parts[3]});
        bytes = join({bytes, fromHex(parts[2].str())});
    }
    return {bytes, rows};
}

}  // namespace

DocumentedDatagram::DocumentedDatagram(Bytes bytes, std::vector<Row> rows)
    : bytes_(std::move(bytes)), rows_(std::move(rows)) {}

std::uint32_t DocumentedDatagram::startOf(std::string_view name) const {
    const auto row =
        std::ranges::find_if(rows_, [name](const Row& it) { return it.note.starts_with(name); });
    if (row == rows_.end()) {
        throw std::runtime_error("no row is called " + std::string(name));
    }
    return static_cast<std::uint32_t>(row->offset);
}

WireFormatPage::WireFormatPage() {
    std::ifstream page(VESK_WIRE_FORMAT_PAGE);
    text_.assign(std::istreambuf_iterator<char>(page), {});
    if (text_.empty()) {
        throw std::runtime_error("cannot read " VESK_WIRE_FORMAT_PAGE);
    }
}

DocumentedDatagram WireFormatPage::datagram(std::string_view description) const {
    constexpr std::string_view fence = "```\n";
    const std::string examples = text_.substr(endOf(text_, "## Examples"));
    const std::string rest = examples.substr(endOf(examples, "\n" + std::string(description)));
    const std::size_t begin = endOf(rest, fence);
    return parseDump(rest.substr(begin, rest.find(fence, begin) - begin));
}

std::string WireFormatPage::wordAfter(std::string_view phrase) const {
    const std::string text = withBlanksForNewlines(text_);
    const auto begin = text.begin() + static_cast<std::ptrdiff_t>(endOf(text, phrase));
    const auto isWordCharacter = [](unsigned char character) {
        return std::isalnum(character) != 0;
    };
    return {begin, std::find_if_not(begin, text.end(), isWordCharacter)};
}

}  // namespace vesk
