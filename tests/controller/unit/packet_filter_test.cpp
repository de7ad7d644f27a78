#include "steering/packet_filter.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>

#include "base/unique_fd.h"
#include "own_network.h"
#include "steering/bound_socket.h"
#include "steering/public_port.h"
#include "steering/steering_counters.h"
#include "steering/steering_rules.h"

namespace vesk::controller {
namespace {

using testing::HasSubstr;

const SteeringPlan plan{"127.0.0.1", 4500, 16, {4501, 4502}, 4501, 4503};

std::string ruleset() {
    return runFilterCommands("list ruleset\n").output;
}

void expectDone(const std::string& commands) {
    EXPECT_EQ(runFilterCommands(commands).error, "");
}

/// Runs the test in a namespace, or skips it where the kernel has no packet filter for it.
void inFilteredNetwork(const std::function<void()>& test) {
    std::string refusal;
    std::string reason = inOwnNetwork([&] {
        refusal = checkFilterCommands(steeringRules(plan)).error;
        if (refusal.empty()) {
            test();
        }
    });
    if (!(reason += refusal).empty()) {
        GTEST_SKIP() << "the packet filter is not allowed here: " << reason;
    }
}

UniqueFd bound(std::uint16_t port) {
    UniqueFd opened;
    EXPECT_EQ(bindSocket({"127.0.0.1", port}, opened), 0) << port;
    return opened;
}

/// Sends a datagram with this prefix of the label to the public port.
void sendTo(int sender, std::uint8_t prefix) {
    std::array<char, 20> datagram{};
    datagram[17] = static_cast<char>(prefix);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(plan.publicPort);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(sendto(sender, datagram.data(), datagram.size(), 0,
                     reinterpret_cast<const sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(datagram.size()));
}

std::size_t received(int socket) {
    std::array<char, 64> room{};
    std::size_t count = 0;
    while (recv(socket, room.data(), room.size(), MSG_DONTWAIT) > 0) {
        ++count;
    }
    return count;
}

TEST(PacketFilter, ReplacesATableThatWasLeftBehind) {
    inFilteredNetwork([] {
        expectDone(steeringRules(plan));
        const std::string once = ruleset();
        EXPECT_THAT(once, HasSubstr("elements = { 0x0 : 4501, 0x1 : 4502 }"));
        expectDone(steeringRules(plan));
        EXPECT_EQ(ruleset(), once);
    });
}

TEST(PacketFilter, LeavesOtherTablesUnchanged) {
    inFilteredNetwork([] {
        expectDone(
            "table inet other { chain input { type filter hook input priority 0; }; }\n"
            "table inet vesk_4600 { map instances { type mark : inet_service; }; }\n");
        const std::string before = ruleset();
        expectDone(steeringRules(plan));
        EXPECT_THAT(ruleset(), HasSubstr(before));
        expectDone(steeringSwap(plan.publicPort, {4503, 4502}));
        EXPECT_THAT(ruleset(), HasSubstr(before));
        expectDone(steeringRemoval(plan.publicPort));
        EXPECT_EQ(ruleset(), before);
        expectDone(steeringRemoval(plan.publicPort));
        EXPECT_EQ(ruleset(), before);
    });
}

TEST(PacketFilter, ChangesNothingIfOneCommandFailsOrInACheck) {
    inFilteredNetwork([] {
        expectDone(steeringRules(plan));
        const std::string before = ruleset();
        const FilterAnswer answer = runFilterCommands(steeringSwap(plan.publicPort, {4503, 4502}) +
                                                      "delete table inet absent\n");
        EXPECT_EQ(answer.error, "Could not process rule: No such file or directory");
        EXPECT_TRUE(answer.permitted);
        EXPECT_EQ(checkFilterCommands(steeringRemoval(plan.publicPort)).error, "");
        EXPECT_EQ(ruleset(), before);
    });
}

TEST(PacketFilter, SwapsAnInstanceUnderTrafficWithoutALoss) {
    inFilteredNetwork([] {
        const UniqueFd steady = bound(4501);
        const UniqueFd swapped = bound(4502);
        const UniqueFd spare = bound(4503);
        const UniqueFd sender = bound(5000);
        expectDone(steeringRules(plan));
        constexpr std::size_t swaps = 20;
        constexpr std::size_t perSwap = 10;
        std::size_t toSpare = 0;
        std::size_t toSwapped = 0;
        for (std::size_t swap = 0; swap < swaps; ++swap) {
            const std::uint16_t port = swap % 2 == 0 ? 4503 : 4502;
            expectDone(steeringSwap(plan.publicPort, {4501, port}));
            for (std::size_t number = 0; number < perSwap; ++number) {
                sendTo(sender.get(), 1);
                sendTo(sender.get(), 2);
            }
            toSpare += received(spare.get());
            toSwapped += received(swapped.get());
            EXPECT_EQ(received(steady.get()), perSwap);
        }
        EXPECT_EQ(toSpare, swaps * perSwap / 2);
        EXPECT_EQ(toSwapped, swaps * perSwap / 2);
    });
}

TEST(PacketFilter, LetsLabelsStayAfterASwapUntilTheyFollow) {
    inFilteredNetwork([] {
        const UniqueFd former = bound(4501);
        const UniqueFd present = bound(4503);
        const UniqueFd sender = bound(5000);
        const auto expectArrivals = [&](std::size_t atFormer, std::size_t atPresent) {
            // Labels 0x20000 and 0x40000 and, with an upper half that does not stay, 0x60000.
            for (const std::uint8_t prefix : std::array<std::uint8_t, 3>{2, 4, 6}) {
                sendTo(sender.get(), prefix);
            }
            EXPECT_EQ(received(former.get()), atFormer);
            EXPECT_EQ(received(present.get()), atPresent);
        };
        expectDone(steeringRules(plan));
        const std::string before = ruleset();
        expectDone(steeringStayEnd(plan.publicPort) + steeringSwap(plan.publicPort, {4503, 4502}) +
                   steeringStay(plan, 4501, {0x20000, 0x40000}));
        expectArrivals(2, 1);
        expectDone(steeringFollow(plan.publicPort, 0x40000));
        expectArrivals(1, 2);
        const int none = 1;
        ASSERT_EQ(setsockopt(sender.get(), SOL_SOCKET, SO_NO_CHECK, &none, sizeof none), 0);
        expectArrivals(1, 2);
        expectDone(steeringStayEnd(plan.publicPort));
        expectArrivals(0, 3);
        expectDone(steeringSwap(plan.publicPort, plan.ports));
        EXPECT_EQ(ruleset(), before);
    });
}

TEST(PacketFilter, SendsToInstanceZeroWhatHasNoEntryAndASwapAddsTheEntryAgain) {
    inFilteredNetwork([] {
        const UniqueFd first = bound(4501);
        const UniqueFd second = bound(4502);
        const UniqueFd sender = bound(5000);
        expectDone(steeringRules(plan));
        expectDone("delete element inet vesk_4500 instances { 1 }\n");
        sendTo(sender.get(), 1);
        EXPECT_EQ(received(first.get()), 1U);
        const SteeringCounters counters =
            parseSteeringCounters(runFilterCommands(steeringCountersQuery(plan.publicPort)).output);
        EXPECT_EQ(counters.unmatched, 1U);
        EXPECT_EQ(counters.tooShort, 0U);
        expectDone(steeringSwap(plan.publicPort, plan.ports));
        sendTo(sender.get(), 1);
        EXPECT_EQ(received(second.get()), 1U);
    });
}

TEST(PublicPort, IsHeldByOneControllerOfTheHost) {
    const std::string refusal = inOwnNetwork([] {
        PublicPort held;
        EXPECT_EQ(held.take({"127.0.0.1", 4500}), 0);
        EXPECT_TRUE(held.held());
        UniqueFd other;
        EXPECT_EQ(bindSocket({"0.0.0.0", 4500}, other), -EADDRINUSE);
        PublicPort second;
        // The table has the port in its name, and not the address.
        EXPECT_EQ(second.take({"127.0.0.2", 4500}), -EBUSY);
        EXPECT_EQ(second.take({"127.0.0.1", 4600}), 0);
        held.release();
        EXPECT_EQ(second.take({"127.0.0.2", 4500}), 0);
        EXPECT_EQ(bindSocket({"127.0.0.1", 4600}, other), 0);
    });
    if (!refusal.empty()) {
        GTEST_SKIP() << refusal;
    }
}

TEST(PublicPort, ReportsAPortThatIsInUse) {
    const std::string refusal = inOwnNetwork([] {
        const UniqueFd taken = bound(4500);
        PublicPort port;
        EXPECT_EQ(port.take({"127.0.0.1", 4500}), -EADDRINUSE);
        EXPECT_FALSE(port.held());
        EXPECT_EQ(port.take({"192.0.2.1", 4500}), -EADDRNOTAVAIL);
    });
    if (!refusal.empty()) {
        GTEST_SKIP() << refusal;
    }
}

}  // namespace
}  // namespace vesk::controller
