// A key may be anywhere in a file: instead of a name, in a comment, after a missing quote. No text
// that the controller prints about the file may contain it.
#include <gtest/gtest.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <array>
#include <random>
#include <sstream>
#include <string>
#include <string_view>

#include "commands/command_lines.h"
#include "config/configuration_reader.h"
#include "config/numeric_address.h"
#include "configuration_text.h"
#include "metrics/exposition.h"
#include "service/deployment.h"

namespace vesk::controller {
namespace {

constexpr unsigned seed = 20240501;
constexpr int files = 10000;
/// This many consecutive digits of a key do not occur by chance.
constexpr std::size_t shortestPiece = 8;
/// A key that a typing mistake split is masked where this many digits remain together.
constexpr std::size_t shortestRun = 16;

using Random = std::mt19937;

std::size_t between(Random& random, std::size_t least, std::size_t greatest) {
    return std::uniform_int_distribution<std::size_t>(least, greatest)(random);
}

/// Lines of files; the key replaces each "@".
constexpr std::array places{
    // Names.
    "[flows.@]\nlabel = 1\nupstream = \"127.0.0.1:1\"",
    "[flows.\"@\"]\nlabel = 1\nupstream = \"127.0.0.1:1\"",
    "[flows.\"of @\"]\nlabel = 1\nupstream = \"127.0.0.1:1\"\nfrom_peer = { key = \"abab\" }",
    "[flows.\"@\"]\nlabel = 1\n[flows.other]\nlabel = 1",
    "[flows.\"@\"]\nlabel = 1\n[flows.\"@\"]\nlabel = 1",
    "[flows.\"@\"]\nauxiliary = { prefix = 1 }\n[flows.b]\nauxiliary = { prefix = 1 }",
    "[flows.\"@'@\"]\nlabel = 1\n[flows.\"@'@\"]\nlabel = 1",
    "[flows.\"a\\t@\"]\nlabel = 0",
    "[flows.a]\nfrom_peer = { @ = \"sha256\" }",
    "[flows.a]\nfrom_peer = { \"@\" = \"sha256\" }",
    "[flows.a]\nto_peer = { label = 1, '@' = 1, '@' = 1 }",
    "[flows.a]\nauxiliary = { \"@\" = 1 }",
    "[flows.a]\n@ = 1\n@ = 2",
    "[flows.a.@]\nkey = \"abab\"",
    "flows.\"@\".label = 1",
    "flows.\"@\" = 1",
    "[[flows.\"@\"]]\nlabel = 1",
    "[forwarder]\n\"@\" = true",
    "[lateral]\npeers = [{ index = 1, \"@\" = \"::1\" }]",
    "[\"@\"]\na = 1",
    "[\"@\".\"@\"]\na = 1",
    "\"@\" = 1",
    "@ = 1",
    // Values.
    "[flows.a]\nfrom_peer = \"@\"",
    "[flows.a]\nfrom_peer = { key = \"@\" }",
    "[flows.a]\nlabel = 1\nupstream = \"127.0.0.1:1\"\nto_peer = { key = \"@\" }",
    "[flows.a]\nfrom_peer = { key_file = \"@\" }",
    "[flows.a]\nfrom_peer = { key_file = \"/dev/fd/@\" }",
    "[flows.a]\nfrom_peer = { key = \"abab\", algorithm = \"@\" }",
    "[flows.a]\nto_peer = { label = \"@\", dscp = \"@\" }",
    "[flows.a]\nlabel = @",
    "[flows.a]\nlabel = 0x@",
    "[flows.a]\nlabel = \"@\"\nmultiplex = \"@\"",
    "[flows.a]\nupstream = \"@\"\nsource = \"@:1\"\npeer = \"[@]:1\"",
    "[flows.a]\nauxiliary = { prefix = \"@\", upstream_label = @ }",
    "[forwarder]\nframing = \"@\"\nlog_level = \"@\"",
    "[forwarder]\nprogram = \"/@\"\ncleanup_interval = @",
    "[lateral]\naddress = \"@\"\nport = @",
    "[lateral]\npeers = [\"@\", { index = @ }]",
    "[controller]\ndrain_seconds = \"@\"",
    "[metrics]\naddress = \"@\"",
    "[metrics]\nport = @",
    // Comments.
    "# @",
    "[flows.a] # @\nlabel = 0 # @",
    // Lines that are not TOML.
    "@",
    "@ @",
    "= @",
    "[flows.@",
    "[flows.\"@]\nlabel = 1",
    "[flows.'@\"]\nlabel = 1",
    "[flows.a]\nfrom_peer = { key = @ }",
    "[flows.a]\nfrom_peer = { key = \"@ }",
    "[flows.a]\nfrom_peer = { key = @\" }",
    "[flows.a]\nfrom_peer = { key = '@\" }",
    "[flows.a]\nfrom_peer = { key = \"@\"@ }",
    "[flows.a]\nfrom_peer = { key = \"\\@\" }",
    "[flows.a]\nfrom_peer = { key = \"\\u@\" }",
    "[flows.a]\nfrom_peer = { key \"@\" }",
    "[flows.a]\nfrom_peer = { @ }",
    "[flows.a]\nfrom_peer = \"\"\"@",
    "[flows.a]\nlabel = 1 @",
};

std::string digitsOf(Random& random) {
    std::string digits;
    for (std::size_t i = between(random, 16, 80); i > 0; --i) {
        digits += "0123456789abcdefABCDEF"[between(random, 0, 21)];
    }
    return digits;
}

/// The digits as an operator may write them: in one piece, or in groups of up to 8.
std::string written(const std::string& digits, Random& random) {
    constexpr std::array separators{"", "", ":", "-", " ", "  ", "_", " - "};
    const std::string separator = separators.at(between(random, 0, separators.size() - 1));
    const std::size_t group = between(random, 1, 8);
    std::string text;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        text += i > 0 && i % group == 0 ? separator : "";
        text += digits[i];
    }
    return text;
}

std::string replaced(std::string text, const std::string& with) {
    for (std::size_t at = 0; (at = text.find('@', at)) != std::string::npos; at += with.size()) {
        text.replace(at, 1, with);
    }
    return text;
}

int occurrences(std::string_view text, std::string_view of) {
    int count = 0;
    for (std::size_t at = 0; (at = text.find(of, at)) != std::string_view::npos; at += of.size()) {
        ++count;
    }
    return count;
}

/// Makes typing mistakes: sometimes a character is removed or added.
std::string mistyped(std::string text, Random& random) {
    const std::size_t at = between(random, 0, text.size() - 1);
    switch (between(random, 0, 5)) {
        case 0:
            text.erase(at, 1);
            break;
        case 1:
            text.insert(at, 1, "\"'[]{}=,\n\\#"[between(random, 0, 10)]);
            break;
        default:
            break;
    }
    return text;
}

/// Everything that the controller prints or publishes about a file.
std::string shownOf(const std::string& text, const std::string& file) {
    std::string shown;
    const ConfigurationReading reading = parseConfiguration(text, file, false, {});
    for (const Problem& problem : reading.problems) {
        shown += describe(problem, file) + "\n";
    }
    if (!reading.configuration) {
        return shown;
    }
    Deployment deployment;
    for (const Command& command : deployment.begin(*reading.configuration)) {
        shown += maskKeys(toLine(command)) + "\n" + command.subject + "\n";
    }
    ReportTotals totals(true);
    totals.add(Report{}, deployment.flowNames());
    std::ostringstream page;
    prometheus::TextSerializer().Serialize(page, describeMetrics(totals.totals(), {}));
    return shown + page.str();
}

std::string lowerHex(std::string_view text) {
    std::string result;
    for (const char c : text) {
        if (std::string_view(" \t\n:-_").find(c) == std::string_view::npos) {
            result += c >= 'A' && c <= 'F' ? static_cast<char>(c | 0x20) : c;
        }
    }
    return result;
}

bool holdsPieceOf(const std::string& shown, const std::string& key, std::size_t pieceSize) {
    const std::string text = lowerHex(shown);
    const std::string digits = lowerHex(key);
    for (std::size_t i = 0; i + pieceSize <= digits.size(); ++i) {
        if (text.find(digits.substr(i, pieceSize)) != std::string::npos) {
            return true;
        }
    }
    return false;
}

TEST(KeySecrecy, NoOutputAboutAFileContainsAKey) {
    Random random(seed);
    for (int i = 0; i < files; ++i) {
        const std::string place = places.at(static_cast<std::size_t>(i) % places.size());
        const std::string digits = digitsOf(random);
        std::string key = written(digits, random);
        // A key that is also an IPv6 address would be shown as an address.
        key = isIPv6(key) ? digits : key;
        const std::string text = std::string(listening) + replaced(place, key) + "\n";
        const std::string file = mistyped(text, random);
        const bool whole = occurrences(file, key) == occurrences(text, key);
        const std::string shown = shownOf(file, "vesk.toml");
        ASSERT_FALSE(holdsPieceOf(shown, digits, whole ? shortestPiece : shortestRun))
            << "seed " << seed << ", file " << i << ":\n"
            << file << "\nshown:\n"
            << shown;
    }
}

TEST(KeySecrecy, AFileNameThatIsAKeyIsMasked) {
    const std::string key = "00112233445566778899aabbccddeeff";
    EXPECT_FALSE(holdsPieceOf(describe({3, "is odd"}, "/etc/vesk/" + key), key, shortestPiece));
}

}  // namespace
}  // namespace vesk::controller
