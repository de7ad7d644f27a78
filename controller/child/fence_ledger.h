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
    void noteComplaint(const LogLine& line);

    std::deque<Outcome> pending_;
    std::uint64_t sent_ = 0;      // fences sent
    std::uint64_t answered_ = 0;  // fences that have come back
    bool emptyLineFollows_ = false;
};

}  // namespace vesk::controller
