#include "child/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

#include "child/process_descriptor.h"

namespace vesk::controller {

namespace {

/// The largest size that the kernel grants without privileges. With a large pipe the forwarder's
/// threads do not wait for this process.
constexpr int pipeSize = 1 << 20;

struct Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category(), "pipe2");
        }
        reader.reset(ends[0]);
        writer.reset(ends[1]);
        static_cast<void>(fcntl(ends[0], F_SETPIPE_SZ, pipeSize));
    }
    UniqueFd reader;
    UniqueFd writer;
};

/// Standard input and output from the pipes, every other descriptor closed.
class Redirections {
 public:
    Redirections(int input, int output) {
        check(posix_spawn_file_actions_init(&actions_));
        check(posix_spawn_file_actions_adddup2(&actions_, input, STDIN_FILENO));
        check(posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO));
        check(posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1));
    }
    ~Redirections() { posix_spawn_file_actions_destroy(&actions_); }
    Redirections(const Redirections&) = delete;
    Redirections& operator=(const Redirections&) = delete;

    const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
    static void check(int error) {
        if (error != 0) {
            throw std::system_error(error, std::generic_category(), "posix_spawn_file_actions");
        }
    }
    posix_spawn_file_actions_t actions_{};
};

/// The child starts with default signal handling, and in a new process group.
class PlainSignals {
 public:
    PlainSignals() {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_init(&attributes_);
        posix_spawnattr_setsigmask(&attributes_, &none);
        posix_spawnattr_setsigdefault(&attributes_, &all);
        posix_spawnattr_setpgroup(&attributes_, 0);
        posix_spawnattr_setflags(&attributes_,
                                 static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                                    POSIX_SPAWN_SETPGROUP));
    }
    ~PlainSignals() { posix_spawnattr_destroy(&attributes_); }
    PlainSignals(const PlainSignals&) = delete;
    PlainSignals& operator=(const PlainSignals&) = delete;

    const posix_spawnattr_t* get() const { return &attributes_; }

 private:
    posix_spawnattr_t attributes_{};
};

/// "NAME=" of a variable; empty for an entry without "=".
std::string_view beginningOf(std::string_view variable) {
    return variable.substr(0, variable.find('=') + 1);
}

/// This process's environment, with `variables` added; they replace variables of the same name.
std::vector<std::string> environmentWith(const std::vector<std::string>& variables) {
    std::vector<std::string> environment = variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view name = beginningOf(*entry);
        if (std::ranges::find(variables, name, beginningOf) == variables.end()) {
            environment.emplace_back(*entry);
        }
    }
    return environment;
}

/// The form that execve(2) takes: pointers into `texts`, and a null pointer after them.
std::vector<char*> pointersInto(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// `words` are the program and its arguments.
pid_t spawn(std::vector<std::string> words, std::vector<std::string> environment, int input,
            int output) {
    const Redirections redirections(input, output);
    const PlainSignals signals;
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, words.front().c_str(), redirections.get(), signals.get(),
                                   pointersInto(words).data(), pointersInto(environment).data());
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), words.front());
    }
    return pid;
}

void makeNonBlocking(int fd) {
    if (fcntl(fd, F_SETFL, O_NONBLOCK) == -1) {
        throw std::system_error(errno, std::generic_category(), "fcntl");
    }
}

}  // namespace

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                           const std::vector<std::string>& variables) {
    Pipe input;
    Pipe output;
    makeNonBlocking(input.writer.get());
    makeNonBlocking(output.reader.get());
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    pid_ = spawn(std::move(words), environmentWith(variables), input.reader.get(),
                 output.writer.get());
    input_ = std::move(input.writer);
    output_ = std::move(output.reader);
}

ChildProcess::ChildProcess(ForwarderDescriptors running)
    : input_(std::move(running.input)),
      output_(std::move(running.output)),
      process_(std::move(running.process)),
      pid_(processOf(process_.get())) {
    makeNonBlocking(input_.get());
    makeNonBlocking(output_.get());
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : input_(std::move(other.input_)),
      output_(std::move(other.output_)),
      process_(std::move(other.process_)),
      pid_(std::exchange(other.pid_, -1)) {}

ChildProcess::~ChildProcess() {
    if (pid_ > 0 && !process_) {
        signal(SIGKILL);
        while (waitpid(pid_, nullptr, 0) == -1 && errno == EINTR) {
        }
    }
}

void ChildProcess::signal(int number) const {
    if (process_) {
        // The number of a process that is no child may be in use again.
        signalProcess(process_.get(), number);
    } else if (pid_ > 0) {
        kill(-pid_, number);
    }
}

std::optional<int> ChildProcess::reap() {
    if (process_) {
        return hasEnded(process_.get()) ? std::optional(unknownStatus) : std::nullopt;
    }
    siginfo_t end{};
    if (pid_ <= 0 ||
        waitid(P_PID, static_cast<id_t>(pid_), &end, WEXITED | WNOHANG | WNOWAIT) != 0 ||
        end.si_pid != pid_) {
        return std::nullopt;
    }
    // Remaining processes of the group would keep the output open. The group's id cannot be reused
    // before waitpid(2) has been called for the child.
    signal(SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
}

std::string describeEnd(int waitStatus) {
    if (waitStatus == unknownStatus) {
        return "ended";
    }
    if (WIFSIGNALED(waitStatus)) {
        const int number = WTERMSIG(waitStatus);
        const char* const name = sigdescr_np(number);
        return "was ended by signal " + std::to_string(number) + " (" +
               (name != nullptr ? name : "unknown") + ")";
    }
    return "ended with status " + std::to_string(WEXITSTATUS(waitStatus));
}

bool endedWell(int waitStatus) {
    return waitStatus == unknownStatus || (WIFEXITED(waitStatus) && WEXITSTATUS(waitStatus) == 0);
}

}  // namespace vesk::controller
