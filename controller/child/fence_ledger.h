// Finds the command that a log line is about. The forwarder does not answer commands, but it
// carries them out one after the other, and it logs an error for an unknown command word. So each
// command is followed by a different unknown word, the fence. What the main thread logs before
// the error for the fence is about the command before it. Fences have no other effect.
//
// Called by child/forwarder_session with each command it sends, and by child/output_interpreter
// with each line that comes back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "child/log_line.h"
#include "commands/command.h"

namespace vesk::controller {

/// A command that has been carried out, and what the forwarder logged about it.
struct Outcome {
    Command command;
    std::vector<std::string> errors;    ///< if there are any, the command was refused
    std::vector<std::string> warnings;  ///< do not mean that it was refused
};

/// What a line means to the ledger.
struct FenceReading {
    bool ours = false;  ///< caused by a fence, so not for the log
    std::optional<Outcome> outcome;
};

class FenceLedger {
 public:
    /// `first`: the number of the first fence. A forwarder that was taken over may still answer
    /// those of an earlier ledger, which must have lower numbers.
    explicit FenceLedger(std::uint64_t first = 1)
        : first_(first), sent_(first - 1), answered_(first - 1) {}

    /// A fence that no ledger waits for.
    static constexpr std::string_view unawaited = "fence-0";

    /// Notes a command that is about to be sent, and returns the line to send after it.
    std::string expect(Command command);

    /// Takes the next line of the log.
    FenceReading read(const LogLine& line);

    /// The number of commands whose fence has not come back yet.
    std::size_t pending() const { return pending_.size(); }

    /// The command that the forwarder is handling; null if there is none.
    const Command* current() const {
        return pending_.empty() ? nullptr : &pending_.front().command;
    }

 private:
    static std::string wordOf(std::uint64_t number);
    bool isEarlier(std::string_view word) const;
    bool isOfEarlierFence(const LogLine& line);
    void noteComplaint(const LogLine& line);

    std::deque<Outcome> pending_;
    std::uint64_t first_;
    std::uint64_t sent_;      // the last fence that was sent
    std::uint64_t answered_;  // the last fence that has come back
    bool emptyLineFollows_ = false;
};

}  // namespace vesk::controller
