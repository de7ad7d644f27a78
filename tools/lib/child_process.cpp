#include "lib/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

namespace vesk::bench {
namespace {

constexpr std::size_t complaintsKept = 20;
constexpr std::chrono::seconds patience{5};
constexpr std::chrono::milliseconds pollInterval{5};

struct Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category(), "pipe2");
        }
        reader.reset(ends[0]);
        writer.reset(ends[1]);
    }
    UniqueFd reader;
    UniqueFd writer;
};

pid_t spawn(const std::vector<std::string>& command, int input, int output) {
    std::vector<char*> words;
    words.reserve(command.size() + 1);
    for (const std::string& word : command) {
        words.push_back(const_cast<char*>(word.c_str()));  // posix_spawn does not change them
    }
    words.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    pid_t pid = -1;
    const int error = ::posix_spawnp(&pid, words[0], &actions, nullptr, words.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), command.front());
    }
    return pid;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command, LogListener listener)
    : listener_(std::move(listener)) {
    // A write to a child that has ended must fail without a signal; finish() reports the end.
    ::signal(SIGPIPE, SIG_IGN);
    Pipe input;
    Pipe output;
    pid_ = spawn(command, input.reader.get(), output.writer.get());
    input_ = std::move(input.writer);
    output_ = std::move(output.reader);
    logReader_ = std::thread([this] { drainLog(); });
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        finish();
    }
}

void ChildProcess::sendLine(std::string_view line) {
    std::string text(line);
    text += '\n';
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t written = ::write(input_.get(), text.data() + done, text.size() - done);
        if (written < 0) {
            return;
        }
        done += static_cast<std::size_t>(written);
    }
}

int ChildProcess::finish() {
    input_.reset();
    const auto deadline = std::chrono::steady_clock::now() + patience;
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(pid_, SIGKILL);
        }
        std::this_thread::sleep_for(pollInterval);
    }
    pid_ = -1;
    logReader_.join();
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

ChildProcess::Log ChildProcess::log() const {
    const std::lock_guard lock(logMutex_);
    return log_;
}

void ChildProcess::drainLog() {
    std::string unfinished;
    std::array<char, 65536> chunk;
    for (ssize_t got = 0; (got = ::read(output_.get(), chunk.data(), chunk.size())) > 0;) {
        unfinished.append(chunk.data(), static_cast<std::size_t>(got));
        std::size_t begin = 0;
        for (std::size_t end = 0; (end = unfinished.find('\n', begin)) != std::string::npos;
             begin = end + 1) {
            keep(unfinished.substr(begin, end - begin));
        }
        unfinished.erase(0, begin);
    }
}

void ChildProcess::keep(std::string line) {
    if (listener_) {
        listener_(line);
    }
    const std::lock_guard lock(logMutex_);
    ++log_.lines;
    const bool complaint = !line.empty() && !line.starts_with("info ");
    if (complaint && log_.complaints.size() < complaintsKept) {
        log_.complaints.push_back(std::move(line));
    }
}

}  // namespace vesk::bench
