// Descriptors as the tests need them: counted, checked for being open, and running out on demand.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstddef>

#include "base/unique_fd.h"

namespace vesk {

bool isOpen(int fd);
/// A socket option that is a number.
int socketOption(int fd, int level, int name);
std::size_t countOpenDescriptors();

/// A pipe; what is written into `write` comes out of `read`.
struct Pipe {
    Pipe();
    UniqueFd read;
    UniqueFd write;
};

/// Two connected local sockets of the given type.
struct SocketCouple {
    explicit SocketCouple(int type);
    UniqueFd first;
    UniqueFd second;
};

/// Fails the test that leaves a descriptor open, or closes one that was not its own.
class DescriptorCountingTest : public testing::Test {
 protected:
    void SetUp() override;
    void TearDown() override;

 private:
    std::size_t openBefore_ = 0;
};

/// While it lives, the process can open only `spare` more descriptors.
class DescriptorShortage {
 public:
    explicit DescriptorShortage(int spare);
    ~DescriptorShortage();
    DescriptorShortage(const DescriptorShortage&) = delete;
    DescriptorShortage& operator=(const DescriptorShortage&) = delete;

 private:
    rlimit before_{};
};

}  // namespace vesk
