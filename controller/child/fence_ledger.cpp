#include "child/fence_ledger.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <utility>

namespace vesk::controller {

namespace {

using Beginnings = std::vector<std::string_view>;

const Beginnings flowBeginnings{"setLabelAttrs: ", "deleteLabel: ",
                                "label ",          "Vesk_setFlowDescLabelAttrs: ",
                                "Vesk_validate",   "validateLabelLikeString: "};

/// The beginnings of the lines in which the main thread reports a problem with a command. Other
/// threads log in between, so a line counts only if it begins with one of these.
const std::map<std::string_view, Beginnings> complaints{
    {"set", flowBeginnings},
    {"del", flowBeginnings},
    {"log", {"setLogParams: "}},
    {"start",
     {"startForwarder: ", "Failed socket syscall for endpoint: ",
      "Failed bind syscall for endpoint socket: ", "Failed to create downstream receive thread: "}},
    {"add_lateral_peer", {"addLateralPeer: "}},
    {"start_lateral",
     {"startLateralStream: ", "Failed socket syscall for endpoint: ",
      "Failed bind syscall for endpoint socket: ", "Failed to generate lateral stream HMAC key",
      "Failed to create lateral stream receive thread: ", "Vesk Lateral listener failed to start"}},
};

constexpr std::string_view beginningOfWord = "fence-";
constexpr std::string_view echo = "Got message: ";
constexpr std::string_view unrecognised = "Unrecognised command '";

bool complainsAbout(const Command& command, std::string_view text) {
    const auto row = complaints.find(command.word);
    return row != complaints.end() &&
           std::ranges::any_of(row->second, [&](auto it) { return text.starts_with(it); });
}

}  // namespace

std::string FenceLedger::wordOf(std::uint64_t number) {
    return std::string(beginningOfWord) + std::to_string(number);
}

/// Whether the text begins with a fence before the first one of this ledger.
bool FenceLedger::isEarlier(std::string_view word) const {
    std::uint64_t number = first_;
    if (word.starts_with(beginningOfWord)) {
        word.remove_prefix(beginningOfWord.size());
        std::from_chars(word.data(), word.data() + word.size(), number);
    }
    return number < first_;
}

bool FenceLedger::isOfEarlierFence(const LogLine& line) {
    const std::string_view text = line.text;
    if (line.level == LogLevel::debug && text.starts_with(echo)) {
        return isEarlier(text.substr(echo.size()));
    }
    emptyLineFollows_ = line.level == LogLevel::error && text.starts_with(unrecognised) &&
                        isEarlier(text.substr(unrecognised.size()));
    return emptyLineFollows_;
}

std::string FenceLedger::expect(Command command) {
    pending_.push_back({std::move(command), {}, {}});
    return wordOf(++sent_);
}

FenceReading FenceLedger::read(const LogLine& line) {
    // The error for the fence itself ends in a newline, so an empty line follows it.
    if (std::exchange(emptyLineFollows_, false) && line.level == LogLevel::none &&
        line.text.empty()) {
        return {true, std::nullopt};
    }
    if (first_ > 1 && isOfEarlierFence(line)) {
        return {true, std::nullopt};
    }
    if (pending_.empty()) {
        return {};
    }
    const std::string word = wordOf(answered_ + 1);
    if (line.level == LogLevel::debug && line.text == std::string(echo) + word) {
        return {true, std::nullopt};
    }
    if (line.level == LogLevel::error && line.text == std::string(unrecognised) + word + "'") {
        ++answered_;
        emptyLineFollows_ = true;
        Outcome outcome = std::move(pending_.front());
        pending_.pop_front();
        return {true, std::move(outcome)};
    }
    noteComplaint(line);
    return {};
}

void FenceLedger::noteComplaint(const LogLine& line) {
    Outcome& current = pending_.front();
    if (!complainsAbout(current.command, line.text)) {
        return;
    }
    if (line.level == LogLevel::error) {
        current.errors.push_back(line.text);
    } else if (line.level == LogLevel::warn) {
        current.warnings.push_back(line.text);
    }
}

}  // namespace vesk::controller
