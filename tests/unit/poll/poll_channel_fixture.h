// The message channel without a poll loop, and the datagrams that tests expect in it.
#pragma once

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "poll/poll_channel.h"
#include "support/bytes.h"
#include "support/descriptors.h"

namespace vesk {

/// The datagram of one record.
Bytes recordOf(const PollCtlMsg& message);

/// A row's header: "Rows", four zero bytes and the number of records in eight bytes.
Bytes rowHeader(std::uint64_t count);

/// A row of records that are those of `model` for each descriptor.
Bytes rowOf(const std::vector<int>& fds, const PollCtlMsg& model = {EPOLL_CTL_MOD, EPOLLIN});

std::vector<int> descriptorsFrom(int first, std::size_t count);

class PollChannelTest : public DescriptorCountingTest {
 protected:
    void SetUp() override {
        DescriptorCountingTest::SetUp();
        ASSERT_EQ(createPollSocks(sender, server), 0);
    }

    void TearDown() override {
        sender.reset();
        server.reset();
        DescriptorCountingTest::TearDown();
    }

    /// The next datagram in the channel, whatever its length.
    Bytes receive() {
        Bytes bytes(1024);
        const ssize_t count = recv(server.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
        bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return bytes;
    }

    /// Sends until the channel is full.
    void fill() {
        const PollRecord record = encodePollCtlMsg({EPOLL_CTL_MOD, EPOLLIN, -1});
        while (send(sender.get(), record.data(), record.size(), MSG_DONTWAIT) != -1) {
        }
        ASSERT_EQ(errno, EAGAIN);
    }

    UniqueFd sender;
    UniqueFd server;
};

}  // namespace vesk
