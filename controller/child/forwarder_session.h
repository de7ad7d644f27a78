// One life of the forwarder: commands in, events out, never waiting for either. The supervisor
// starts one after the other and polls its descriptors.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "child/answer_watch.h"
#include "child/child_process.h"
#include "child/fence_ledger.h"
#include "child/line_splitter.h"
#include "child/output_interpreter.h"
#include "child/pending_lines.h"

namespace vesk::controller {

class ForwarderSession {
 public:
    using Clock = std::chrono::steady_clock;

    /// Starts the program, with `variables` as ChildProcess takes them. Throws std::system_error
    /// where it cannot be.
    ForwarderSession(const std::string& program, const std::vector<std::string>& arguments,
                     const std::vector<std::string>& variables = {});

    ForwarderSession(const ForwarderSession&) = delete;
    ForwarderSession& operator=(const ForwarderSession&) = delete;

    /// Queues a command; its outcome comes as an event.
    void send(const Command& command);

    /// Has the forwarder show that it lives, by a fence without a command before it.
    void sendFence();

    /// Forgets what has not been written yet.
    void dropUnsent() { pending_.keepLineBegun(); }

    /// Closes the child's input, which tells it to end, after the line that is being written.
    void finishInput();

    /// Writes what the pipe takes.
    void write();

    /// Reads what is there and tells what it means.
    std::vector<OutputEvent> read();

    /// The wait status if the child has ended, once. What it wrote before can still be read.
    std::optional<int> reap() { return process_.reap(); }

    void signal(int number) const { process_.signal(number); }

    /// Whether there is something to write; the descriptor to watch for it is input().
    bool wantsToWrite() const { return process_.input() != -1 && !pending_.empty(); }
    int input() const { return process_.input(); }
    int output() const { return process_.output(); }
    pid_t pid() const { return process_.pid(); }

    /// Whether the child closed its output.
    bool outputEnded() const { return outputEnded_; }

    /// Commands whose outcome has not been read yet, and the one that the child is at.
    std::size_t unanswered() const { return ledger_.pending(); }
    const Command* current() const { return ledger_.current(); }

    /// Since when it has been silent, and what that means now.
    const AnswerWatch& watch() const { return watch_; }
    AnswerWatch::Verdict judge(Clock::duration patience);

    Clock::duration age() const { return Clock::now() - startedAt_; }

 private:
    void expect(const Command& command);
    void closeWhenWritten();

    ChildProcess process_;
    Clock::time_point startedAt_ = Clock::now();
    PendingLines pending_;
    LineSplitter lines_;
    FenceLedger ledger_;
    OutputInterpreter interpreter_{ledger_};
    AnswerWatch watch_{startedAt_};
    bool finishing_ = false;
    bool outputEnded_ = false;
};

}  // namespace vesk::controller
