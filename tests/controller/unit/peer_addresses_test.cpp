#include "names/peer_addresses.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "configuration_text.h"

namespace vesk::controller {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

std::optional<Lateral> namedPeers(const std::string& address, const std::string& names,
                                  const std::string& more = "") {
    return listeningWith("[lateral]\naddress = \"" + address +
                         "\"\nport = 9\nindex = 1\ninstances = 3\n" + "peers_from = \"" + names +
                         ":9\"\n" + more)
        .lateral;
}

/// Peers 0 and 2, whose answers the test gives itself.
class PeerAddressesTest : public testing::Test {
 protected:
    PeerAddressesTest() {
        EXPECT_TRUE(peers_.take(wanted_, std::nullopt, now_));
        EXPECT_EQ(peers_.questions(now_).size(), 2U);
    }

    std::string news(std::uint32_t index, const std::vector<std::string>& addresses) {
        const std::optional<PeerNews> it =
            peers_.note({index, addresses, addresses.empty() ? "no reason" : ""}, now_);
        return !it ? "" : (it->failed ? "warn " : "info ") + it->text;
    }

    std::map<std::uint32_t, std::string> addresses() {
        std::optional<Lateral> lateral = wanted_;
        peers_.putInto(lateral);
        return lateral->peers;
    }

    /// Both answers of a round, then the questions of the next.
    void nextRound() {
        now_ += seconds(30);
        EXPECT_EQ(peers_.questions(now_).size(), 2U);
    }

    PeerAddresses::Clock::time_point now_ = PeerAddresses::Clock::now();
    std::optional<Lateral> wanted_ = namedPeers("127.0.0.1", "p{index}.example");
    PeerAddresses peers_;
};

TEST(PeerAddresses, AsksForTheNamesOfTheOtherInstancesAtOnce) {
    const auto now = PeerAddresses::Clock::now();
    for (const bool ipv6 : {false, true}) {
        PeerAddresses peers;
        EXPECT_TRUE(peers.take(namedPeers(ipv6 ? "::1" : "127.0.0.1", "p{index}.example"),
                               std::nullopt, now));
        EXPECT_THAT(peers.questions(now), ElementsAre(NameQuestion{0, "p0.example", ipv6},
                                                      NameQuestion{2, "p2.example", ipv6}));
        EXPECT_THAT(peers.resolved(), ElementsAre(Pair(0U, false), Pair(2U, false)));
    }
}

TEST(PeerAddresses, AsksNothingWithoutNames) {
    const auto now = PeerAddresses::Clock::now();
    PeerAddresses peers;
    EXPECT_FALSE(peers.take(std::nullopt, std::nullopt, now));
    EXPECT_FALSE(peers.dueAt());
    EXPECT_THAT(peers.questions(now), IsEmpty());
    peers.suspect(now);
    EXPECT_FALSE(peers.dueAt());
    EXPECT_THAT(peers.resolved(), IsEmpty());
}

TEST_F(PeerAddressesTest, TakesEachAddressAsSoonAsItIsKnown) {
    EXPECT_THAT(addresses(), IsEmpty());
    EXPECT_EQ(news(2, {"10.0.0.2"}), "info lateral peer 2, p2.example, has the address 10.0.0.2");
    EXPECT_THAT(addresses(), ElementsAre(Pair(2U, "10.0.0.2")));
    EXPECT_THAT(peers_.resolved(), ElementsAre(Pair(0U, false), Pair(2U, true)));
    EXPECT_FALSE(peers_.dueAt());
}

TEST_F(PeerAddressesTest, AsksAgainAfterThePauseSinceTheLastAnswer) {
    news(0, {"10.0.0.1"});
    now_ += seconds(5);
    news(2, {});
    EXPECT_EQ(peers_.dueAt(), now_ + seconds(30));
    EXPECT_THAT(peers_.questions(now_ + seconds(29)), IsEmpty());
    nextRound();
    EXPECT_FALSE(peers_.dueAt());
}

TEST_F(PeerAddressesTest, ReportsAChangedAddressOnce) {
    news(0, {"10.0.0.1"});
    news(2, {"10.0.0.2"});
    nextRound();
    EXPECT_EQ(news(0, {"10.0.0.1"}), "");
    EXPECT_EQ(news(2, {"10.0.0.7"}),
              "info lateral peer 2, p2.example, has the address 10.0.0.7, before 10.0.0.2");
    nextRound();
    EXPECT_EQ(news(2, {"10.0.0.7"}), "");
    EXPECT_THAT(addresses(), ElementsAre(Pair(0U, "10.0.0.1"), Pair(2U, "10.0.0.7")));
}

TEST_F(PeerAddressesTest, KeepsTheAddressInUseIfANameHasSeveral) {
    news(0, {"10.0.0.1", "10.0.0.3"});
    news(2, {});
    nextRound();
    EXPECT_EQ(news(0, {"10.0.0.3", "10.0.0.1"}), "");
    EXPECT_THAT(addresses(), ElementsAre(Pair(0U, "10.0.0.1")));
}

TEST_F(PeerAddressesTest, KeepsTheLastAddressOfANameThatIsGoneAndSaysSoOnce) {
    news(0, {"10.0.0.1"});
    EXPECT_EQ(news(2, {}),
              "warn lateral peer 2, p2.example, cannot be resolved: no reason; it has no "
              "address yet");
    nextRound();
    EXPECT_EQ(news(0, {}),
              "warn lateral peer 0, p0.example, cannot be resolved: no reason; it keeps "
              "the address 10.0.0.1");
    EXPECT_EQ(news(2, {}), "");
    EXPECT_THAT(addresses(), ElementsAre(Pair(0U, "10.0.0.1")));
    EXPECT_THAT(peers_.resolved(), ElementsAre(Pair(0U, false), Pair(2U, false)));
    nextRound();
    EXPECT_EQ(news(0, {"10.0.0.1"}), "info lateral peer 0, p0.example, has the address 10.0.0.1");
}

TEST_F(PeerAddressesTest, ASuspicionAsksAtOnce) {
    news(0, {"10.0.0.1"});
    peers_.suspect(now_);
    EXPECT_FALSE(peers_.dueAt()) << "an answer is outstanding";
    news(2, {});
    EXPECT_EQ(peers_.dueAt(), now_);
    EXPECT_EQ(peers_.questions(now_).size(), 2U);
    news(0, {});
    news(2, {});
    EXPECT_EQ(peers_.dueAt(), now_ + seconds(30));
    peers_.suspect(now_);
    EXPECT_EQ(peers_.dueAt(), now_);
}

TEST_F(PeerAddressesTest, AnAnswerThatNobodyAwaitsChangesNothing) {
    news(0, {"10.0.0.1"});
    EXPECT_EQ(news(0, {"10.0.0.9"}), "");
    EXPECT_EQ(news(1, {"10.0.0.9"}), "");
    EXPECT_THAT(addresses(), ElementsAre(Pair(0U, "10.0.0.1")));
}

TEST_F(PeerAddressesTest, AReloadWithTheSameNamesAsksNothing) {
    const auto again = namedPeers("127.0.0.1", "p{index}.example", "resolve_seconds = 7");
    EXPECT_FALSE(peers_.take(again, wanted_, now_));
    news(0, {"10.0.0.1"});
    news(2, {"10.0.0.2"});
    EXPECT_EQ(peers_.dueAt(), now_ + seconds(7));
}

TEST_F(PeerAddressesTest, OtherNamesKeepTheAddressesUntilTheyAreResolved) {
    news(0, {"10.0.0.1"});
    peers_.putInto(wanted_);
    EXPECT_TRUE(peers_.take(namedPeers("127.0.0.1", "q{index}.example"), wanted_, now_));
    EXPECT_THAT(addresses(), ElementsAre(Pair(0U, "10.0.0.1")));
    EXPECT_EQ(peers_.questions(now_).front(), (NameQuestion{0, "q0.example", false}));
    EXPECT_EQ(news(0, {"10.0.0.5"}),
              "info lateral peer 0, q0.example, has the address 10.0.0.5, before 10.0.0.1");
    EXPECT_TRUE(peers_.take(std::nullopt, wanted_, now_));
    EXPECT_FALSE(peers_.dueAt());
}

TEST_F(PeerAddressesTest, AnAddressOfTheOtherFamilyIsNotKept) {
    news(0, {"10.0.0.1"});
    peers_.putInto(wanted_);
    std::optional<Lateral> other = namedPeers("::1", "p{index}.example");
    EXPECT_TRUE(peers_.take(other, wanted_, now_));
    peers_.putInto(other);
    EXPECT_THAT(other->peers, IsEmpty());
}

}  // namespace
}  // namespace vesk::controller
