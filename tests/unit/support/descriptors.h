// Helpers for tests that count descriptors, check whether they are open, or make them run short.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstddef>

#include "base/unique_fd.h"

namespace vesk {

bool isOpen(int fd);
/// The value of an integer socket option.
int socketOption(int fd, int level, int name);
std::size_t countOpenDescriptors();

/// A pipe: `read` returns the bytes written to `write`.
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

/// Fails a test that leaves a descriptor open or closes one that it did not open.
class DescriptorCountingTest : public testing::Test {
 protected:
    void SetUp() override;
    void TearDown() override;

 private:
    std::size_t openBefore_ = 0;
};

/// While it exists, the process can open only `spare` more descriptors.
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
