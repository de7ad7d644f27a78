// One run of the forwarder: sends commands and returns events, without waiting. Called by
// service/instance, which polls its descriptors and makes a new session for each run.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "child/answer_watch.h"
#include "child/child_process.h"
#include "child/fence_ledger.h"
#include "child/forwarder_descriptors.h"
#include "child/line_splitter.h"
#include "child/output_interpreter.h"
#include "child/pending_lines.h"

namespace vesk::controller {

class ForwarderSession {
 public:
    using Clock = std::chrono::steady_clock;

    /// Starts the program, with `variables` as for ChildProcess. Throws std::system_error if that
    /// fails.
    ForwarderSession(const std::string& program, const std::vector<std::string>& arguments,
                     const std::vector<std::string>& variables = {});

    /// Takes over a forwarder that an earlier controller has started.
    explicit ForwarderSession(ForwarderDescriptors running);

    ForwarderSession(const ForwarderSession&) = delete;
    ForwarderSession& operator=(const ForwarderSession&) = delete;

    /// Queues a command; read() returns its outcome as an event.
    void send(const Command& command);

    /// Queues a fence without a command, which the forwarder answers if it does not hang.
    void sendFence();

    /// Discards what has not been written yet, apart from a line that was begun.
    void dropUnsent() { pending_.keepLineBegun(); }

    /// Closes the child's input, after the line that is being written. That makes the child end.
    void finishInput();

    /// Writes as much as the pipe takes.
    void write();

    /// Reads a piece of the output and returns its events.
    std::vector<OutputEvent> read();

    /// The wait status if the child has ended, once. Its output can still be read.
    std::optional<int> reap() { return process_.reap(); }

    void signal(int number) const { process_.signal(number); }

    /// Whether input() must be polled for writing.
    bool wantsToWrite() const { return process_.input() != -1 && !pending_.empty(); }
    int input() const { return process_.input(); }
    int output() const { return process_.output(); }
    /// To be polled for the end of a forwarder that was taken over; -1 otherwise, see SIGCHLD.
    int end() const { return process_.end(); }
    pid_t pid() const { return process_.pid(); }

    /// Whether the output has been read to its end.
    bool outputEnded() const { return outputEnded_; }

    /// The number of commands whose outcome has not been read yet, and the first of them.
    std::size_t unanswered() const { return ledger_.pending(); }
    const Command* current() const { return ledger_.current(); }

    /// How long there has been no output, and what that means now.
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
