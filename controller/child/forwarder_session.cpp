#include "child/forwarder_session.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <utility>

namespace vesk::controller {

namespace {

/// The most that one call reads or writes, so that other events are handled in between.
constexpr std::size_t pieceSize = std::size_t{1} << 16U;

/// A number of a fence that no earlier controller has reached: the time passes faster than fences
/// are sent.
std::uint64_t laterThanAllBefore() {
    const auto now = ForwarderSession::Clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::nanoseconds(now).count());
}

}  // namespace

ForwarderSession::ForwarderSession(const std::string& program,
                                   const std::vector<std::string>& arguments,
                                   const std::vector<std::string>& variables)
    : process_(program, arguments, variables) {}

/// The earlier controller may have left half a command in the input. The blank and the fence make a
/// command of it that is refused.
ForwarderSession::ForwarderSession(ForwarderDescriptors running)
    : process_(std::move(running)), ledger_(laterThanAllBefore()) {
    pending_.add(" " + std::string(FenceLedger::unawaited));
}

void ForwarderSession::send(const Command& command) {
    if (finishing_) {
        return;
    }
    pending_.add(toLine(command));
    expect(command);
}

void ForwarderSession::sendFence() {
    if (!finishing_) {
        expect({"", {}, "a liveness check"});
    }
}

void ForwarderSession::expect(const Command& command) {
    if (ledger_.pending() == 0) {
        watch_.note(Clock::now());
    }
    pending_.add(ledger_.expect(command));
}

AnswerWatch::Verdict ForwarderSession::judge(Clock::duration patience) {
    return watch_.judge(Clock::now(), ledger_.pending() > 0, patience);
}

void ForwarderSession::finishInput() {
    finishing_ = true;
    dropUnsent();
    closeWhenWritten();
}

void ForwarderSession::closeWhenWritten() {
    if (finishing_ && pending_.empty()) {
        process_.closeInput();
    }
}

void ForwarderSession::write() {
    while (wantsToWrite()) {
        const std::string_view piece = pending_.front(pieceSize);
        const ssize_t written = ::write(process_.input(), piece.data(), piece.size());
        if (written >= 0) {
            pending_.drop(static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) {
            return;
        } else if (errno != EINTR) {
            // The child has ended, which SIGCHLD reports.
            pending_.clear();
        }
    }
    closeWhenWritten();
}

std::vector<OutputEvent> ForwarderSession::read() {
    std::array<char, pieceSize> piece;
    const ssize_t got = ::read(process_.output(), piece.data(), piece.size());
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return {};
    }
    std::vector<OutputEvent> events;
    if (got <= 0) {
        outputEnded_ = true;
        if (const std::string rest = lines_.takeRest(); !rest.empty()) {
            events.push_back(interpreter_.take(rest));
        }
        return events;
    }
    for (const std::string& line : lines_.feed({piece.data(), static_cast<std::size_t>(got)})) {
        events.push_back(interpreter_.take(line));
    }
    if (!events.empty()) {
        watch_.note(Clock::now());
    }
    return events;
}

}  // namespace vesk::controller
