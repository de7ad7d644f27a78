#include "poll/poll_loop_fixture.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <ostream>

#include "poll/poll_channel.h"
#include "poll/poll_loop.h"

namespace vesk {

namespace {
constexpr std::chrono::seconds patience{30};
}  // namespace

std::ostream& operator<<(std::ostream& out, const Batch& batch) {
    return out << batch.kind << " " << testing::PrintToString(batch.fds);
}

WatchedSocket::WatchedSocket() {
    SocketCouple couple(SOCK_STREAM);
    watched_ = std::move(couple.first);
    other_ = std::move(couple.second);
}

void WatchedSocket::makeReady() {
    EXPECT_EQ(write(other_.get(), "x", 1), 1);
}

void WatchedSocket::drain() {
    char byte = 0;
    EXPECT_EQ(read(watched_.get(), &byte, 1), 1);
}

bool WatchedSocket::awaitClosed() {
    // A socket that is closed with unread data resets the connection.
    char byte = 0;
    const ssize_t count = read(other_.get(), &byte, 1);
    return count == 0 || (count == -1 && errno == ECONNRESET);
}

void PollLoopTest::SetUp() {
    DescriptorCountingTest::SetUp();
    ASSERT_EQ(createPollSocks(sender, server), 0);
    param = std::make_unique<PollThreadParam>(server.get(), readQueues, writeQueues);
}

void PollLoopTest::TearDown() {
    param->thread.stop();
    sockets_.clear();
    rows_.clear();
    pipes_.clear();
    duplicates_.clear();
    param.reset();
    sender.reset();
    server.reset();
    DescriptorCountingTest::TearDown();
}

void PollLoopTest::startLoop() {
    const auto collect = [this](const char* kind) -> ReadyCallback {
        return [this, kind](const std::vector<int>& fds) { report(kind, fds); };
    };
    ASSERT_EQ(param->thread.start([this, collect] {
        pollLoop(*param, collect("read"), collect("write"), collect("error"));
    }),
              0);
}

void PollLoopTest::report(const std::string& kind, const std::vector<int>& fds) {
    std::unique_lock lock(mutex_);
    batches_.push_back({kind, fds});
    changed_.notify_all();
    changed_.wait(lock, [this] { return !standing_; });
}

Batch PollLoopTest::nextBatch() {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, patience, [this] { return !batches_.empty(); })) {
        return {};
    }
    Batch batch = std::move(batches_.front());
    batches_.pop_front();
    return batch;
}

void PollLoopTest::awaitRequests() {
    // The loop executes requests in order, and the deletion of an unknown socket closes it.
    WatchedSocket last;
    remove(last.giveAway());
    EXPECT_TRUE(last.awaitClosed());
}

void PollLoopTest::expectNoFurtherBatch() {
    WatchedSocket last;
    last.makeReady();
    add(last.fd(), EPOLLIN);
    // Any socket that was ready earlier would be reported before this one or with it.
    EXPECT_EQ(nextBatch(), (Batch{"read", {last.fd()}}));
    remove(last.giveAway());
    EXPECT_TRUE(last.awaitClosed());
}

PollLoopTest::Standstill::Standstill(PollLoopTest& test) : test_(test) {
    {
        const std::lock_guard lock(test_.mutex_);
        test_.standing_ = true;
    }
    gate_.makeReady();
    test_.add(gate_.fd(), EPOLLIN);
    EXPECT_EQ(test_.nextBatch(), (Batch{"read", {gate_.fd()}}));
    test_.remove(gate_.giveAway());
}

PollLoopTest::Standstill::~Standstill() {
    const std::lock_guard lock(test_.mutex_);
    test_.standing_ = false;
    test_.changed_.notify_all();
}

void PollLoopTest::add(int fd, int events) {
    EXPECT_EQ(pollLoop_add_fd(sender.get(), fd, events), 0);
}

void PollLoopTest::arm(int fd, int events) {
    EXPECT_EQ(pollLoop_mod_fd(sender.get(), fd, events), 0);
}

void PollLoopTest::remove(int fd) {
    EXPECT_EQ(pollLoop_del_fd(sender.get(), fd), 0);
}

}  // namespace vesk
