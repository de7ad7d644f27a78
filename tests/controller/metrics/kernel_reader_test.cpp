// The kernel's figures: of sockets that are opened and closed, of an artificial proc file system,
// and of this process.
#include "kernel/kernel_reader.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "base/unique_fd.h"
#include "kernel/kernel_watch.h"

namespace vesk::controller {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const Listeners listeners{{"0100007F", 4500}, {}};

/// An artificial proc file system with a few files, for process 7.
class KernelReaderTest : public testing::Test {
 protected:
    KernelReaderTest() {
        std::string name = testing::TempDir() + "vesk-kernel-XXXXXX";
        root_ = mkdtemp(name.data());
        write("7/limits",
              "Max open files            10                   20                   files\n");
        write("7/net/udp", line(1, "0100007F:1194", 3) + line(2, "00000000:8001", 4) +
                               line(9, "00000000:8002", 90));
        write("7/net/udp6", line(4, "00000000000000000000000000000000:8003", 5));
        write("7/net/snmp", "Udp: RcvbufErrors SndbufErrors\nUdp: 1 2\n");
        write("7/net/snmp6", "Udp6RcvbufErrors\t3\nUdp6SndbufErrors\t4\n");
        write("sys/net/ipv4/ip_local_port_range", "32768\t32777\n");
        write("sys/net/ipv4/ip_local_reserved_ports", "32770\n");
        write("sys/net/netfilter/nf_conntrack_count", "5\n");
        write("sys/net/netfilter/nf_conntrack_max", "100\n");
        link("0", "/dev/null");
        link("3", "socket:[1]");
        // A flow has two descriptors of one socket.
        link("4", "socket:[2]");
        link("5", "socket:[2]");
        link("6", "socket:[4]");
        link("7", "anon_inode:[eventpoll]");
        link("8", "socket:[none]");
    }
    ~KernelReaderTest() override { std::filesystem::remove_all(root_); }

    static std::string line(int inode, const std::string& local, int drops) {
        return " 1: " + local + " 0:0 07 00000002:00000010 00:0 0 0 0 " + std::to_string(inode) +
               " 2 0 " + std::to_string(drops) + "\n";
    }

    void write(const std::string& name, const std::string& text) const {
        const std::filesystem::path path = root_ / name;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << text;
    }

    void link(const std::string& descriptor, const std::string& target) const {
        std::filesystem::create_directories(root_ / "7/fd");
        std::filesystem::create_symlink(target, root_ / "7/fd" / descriptor);
    }

    void remove(const std::string& name) const { std::filesystem::remove_all(root_ / name); }

    std::filesystem::path root_;
};

TEST_F(KernelReaderTest, ReadsEverything) {
    KernelReader reader(root_.string());
    const KernelFigures figures = reader.read({7, listeners, {}});
    EXPECT_THAT(figures.sockets.value(),
                ElementsAre(SocketFigures{1, 16, 2}, SocketFigures(), SocketFigures{2, 32, 4}));
    EXPECT_THAT(figures.drops, ElementsAre(3, 0, 9));
    EXPECT_EQ(figures.ports, (Room{2, 7}));
    EXPECT_EQ(figures.descriptors, (Room{7, 3}));
    EXPECT_EQ(figures.conntrack, (Conntrack{5, 100}));
    EXPECT_EQ(figures.ipv4, (BufferErrors{1, 2}));
    EXPECT_EQ(figures.ipv6, (BufferErrors{3, 4}));
}

TEST_F(KernelReaderTest, DistinguishesFlowsByTheirDescriptors) {
    using testing::Pair;
    KernelReader reader(root_.string());
    EXPECT_FALSE(reader.read({7, listeners, {}}).flows);
    // Drops are counted since the previous reading.
    write("7/net/udp", line(1, "0100007F:1194", 3) + line(2, "00000000:8001", 6));
    const FlowDescriptors flows{{4, 0x10001}, {5, 0x10001}, {6, 0x20001}, {99, 0x30001}};
    const KernelFigures figures = reader.read({7, listeners, flows});
    EXPECT_THAT(figures.flows.value(), ElementsAre(Pair(0x10001, FlowSocket{{1, 16, 2}, 2}),
                                                   Pair(0x20001, FlowSocket{{1, 16, 2}, 0})));
}

TEST_F(KernelReaderTest, OmitsMissingFigures) {
    for (const char* name : {"7/net/udp6", "7/net/snmp6", "sys/net/netfilter",
                             "sys/net/ipv4/ip_local_reserved_ports"}) {
        remove(name);
    }
    KernelReader reader(root_.string());
    const KernelFigures figures = reader.read({7, listeners, {}});
    EXPECT_EQ(figures.ports, (Room{2, 8}));
    EXPECT_FALSE(figures.conntrack);
    EXPECT_FALSE(figures.ipv6);
    EXPECT_EQ(figures.ipv4, (BufferErrors{1, 2}));
    EXPECT_EQ(figures.sockets.value().at(2).sockets, 1U);
}

TEST_F(KernelReaderTest, OmitsSocketsOfAProcessWithUnreadableDescriptors) {
    KernelReader reader(root_.string());
    EXPECT_EQ(reader.read({7, listeners, {}}).drops.at(2), 9U);
    remove("7/fd");
    const KernelFigures figures = reader.read({7, listeners, {}});
    EXPECT_FALSE(figures.sockets);
    EXPECT_FALSE(figures.descriptors);
    EXPECT_EQ(figures.drops.at(2), 9U);
    EXPECT_EQ(figures.ports, (Room{2, 7}));
}

TEST_F(KernelReaderTest, HandlesAProcessThatHasEnded) {
    KernelReader reader(root_.string());
    const KernelFigures figures = reader.read({8, listeners, {}});
    EXPECT_FALSE(figures.sockets || figures.ports || figures.descriptors || figures.ipv4);
}

TEST_F(KernelReaderTest, LimitsRoomToZero) {
    write("7/limits", "Max open files            4                   20                   files\n");
    KernelReader reader(root_.string());
    EXPECT_EQ(reader.read({7, listeners, {}}).descriptors, (Room{7, 0}));
}

// The proc file system of this kernel.
TEST(KernelReaderHostTest, FindsTheSocketOfThisProcess) {
    const UniqueFd listener(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), size), 0);
    ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    const UniqueFd sender(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(sendto(sender.get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&address), size),
              1);
    KernelReader reader;
    const Listeners here{{tableAddress("127.0.0.1"), ntohs(address.sin_port)}, {}};
    const KernelFigures figures = reader.read({getpid(), here, {}});
    ASSERT_TRUE(figures.sockets);
    EXPECT_EQ(figures.sockets->at(0).sockets, 1U);
    EXPECT_GT(figures.sockets->at(0).receiveQueue, 0U);
    EXPECT_EQ(figures.sockets->at(2).sockets, 1U);
    ASSERT_TRUE(figures.ports && figures.descriptors && figures.ipv4);
    EXPECT_GE(figures.ports->used, 2U);
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(figures.descriptors->used + figures.descriptors->left, limit.rlim_cur);
}

/// Waits for figures from the watch's thread.
class Published {
 public:
    void take(const KernelFigures& figures) {
        const std::lock_guard lock(mutex_);
        figures_ = figures;
        ++count_;
        changed_.notify_all();
    }
    KernelFigures waitFor(int count) {
        std::unique_lock lock(mutex_);
        EXPECT_TRUE(
            changed_.wait_for(lock, std::chrono::seconds(20), [&] { return count_ >= count; }));
        return figures_;
    }
    int count() {
        const std::lock_guard lock(mutex_);
        return count_;
    }

 private:
    std::mutex mutex_;
    std::condition_variable changed_;
    KernelFigures figures_;
    int count_ = 0;
};

TEST_F(KernelReaderTest, WatchPublishesAndWarnsOnce) {
    Published published;
    write("7/net/udp", line(1, "0100007F:1194", 3) + line(2, "00000000:8001", 4));
    write("sys/net/ipv4/ip_local_port_range", "32769 32769\n");
    KernelWatch watch(root_.string());
    const auto publish = [&](const KernelFigures& figures) { published.take(figures); };
    EXPECT_FALSE(watch.takeWarning());
    watch.look({7, listeners, {}}, publish);
    EXPECT_EQ(published.waitFor(1).ports, (Room{1, 0}));
    EXPECT_THAT(watch.takeWarning().value(), HasSubstr("0 of 1 are left"));
    // It pauses after each reading in proportion to its duration.
    for (int count = 2; count < 4; ++count) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (published.count() < count && std::chrono::steady_clock::now() < deadline) {
            watch.look({7, listeners, {}}, publish);
        }
        EXPECT_EQ(published.count(), count);
    }
    EXPECT_FALSE(watch.takeWarning());
}

}  // namespace
}  // namespace vesk::controller
