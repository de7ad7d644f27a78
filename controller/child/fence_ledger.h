// Which command a log line is about. The forwarder answers no command, but it carries them out one
// after the other, and it complains about a command word that it does not know: so each command is
// followed by such a word, a fence of its own, and what the main thread logs before the complaint
// belongs to the commands before it. Fences have no other effect.
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

/// A command that has been carried out, and what the forwarder said to it.
struct Outcome {
    Command command;
    std::vector<std::string> errors;    ///< any: it was refused
    std::vector<std::string> warnings;  ///< it was accepted with these
};

/// What a line is to the ledger.
struct FenceReading {
    bool ours = false;  ///< only the fence's doing, nothing for the log
    std::optional<Outcome> outcome;
};

class FenceLedger {
 public:
    /// Notes a command that is about to be sent, and returns the line to send after it.
    std::string expect(Command command);

    /// Takes the next line of the log.
    FenceReading read(const LogLine& line);

    /// Commands whose fence is not back yet.
    std::size_t pending() const { return pending_.size(); }

    /// The command that the forwarder is at, if it is at one.
    const Command* current() const {
        return pending_.empty() ? nullptr : &pending_.front().command;
    }

 private:
    static std::string wordOf(std::uint64_t number);
    void noteComplaint(const LogLine& line);

    std::deque<Outcome> pending_;
    std::uint64_t sent_ = 0;      // fences so far
    std::uint64_t answered_ = 0;  // of these, back
    bool emptyLineFollows_ = false;
};

}  // namespace vesk::controller
