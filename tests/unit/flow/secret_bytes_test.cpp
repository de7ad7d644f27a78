#include "base/secret_bytes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <new>

#include "flow/flow_desc.h"
#include "support/bytes.h"

namespace vesk {
namespace {

/// Room for one object, to be looked at after the object has gone.
template <typename Object>
class Room {
 public:
    template <typename... Arguments>
    Object& make(const Arguments&... arguments) {
        return *new (bytes_) Object(arguments...);
    }

    Bytes contents() const {
        // Not by the compiler's own knowledge of what a destructor leaves.
        const volatile unsigned char* const bytes = bytes_;
        return {bytes, bytes + sizeof(bytes_)};
    }

    bool holds(const Bytes& secret) const {
        const Bytes all = contents();
        return std::ranges::search(all, secret).begin() != all.end();
    }

 private:
    alignas(Object) unsigned char bytes_[sizeof(Object)]{};
};

const Bytes secret(32, 0xa7);

TEST(SecretBytesTest, AreWipedWhenTheyGo) {
    Room<SecretBytes<32>> room;
    SecretBytes<32>& bytes = room.make();
    std::ranges::copy(secret, bytes.begin());
    EXPECT_TRUE(room.holds(secret));
    std::destroy_at(&bytes);
    EXPECT_THAT(room.contents(), testing::Each(0));
}

TEST(SecretBytesTest, AreWipedInCopiesToo) {
    SecretBytes<32> original;
    std::ranges::copy(secret, original.begin());
    Room<SecretBytes<32>> room;
    SecretBytes<32>& copy = room.make(original);
    EXPECT_EQ(copy, original);
    std::destroy_at(&copy);
    EXPECT_THAT(room.contents(), testing::Each(0));
    EXPECT_THAT(original, testing::ElementsAreArray(secret));
}

TEST(SecretBytesTest, MakeTheKeyOfARecord) {
    Room<HmacInfo> room;
    HmacInfo& info = room.make();
    info.setKey(secret);
    EXPECT_TRUE(room.holds(secret));
    std::destroy_at(&info);
    EXPECT_FALSE(room.holds(Bytes(4, 0xa7)));
}

TEST(SecretBytesTest, LeaveNothingOfALongerKeyThatWasReplaced) {
    HmacInfo shorter;
    shorter.setKey(Bytes(4, 0x11));
    Room<HmacInfo> room;
    HmacInfo& info = room.make();
    info.setKey(secret);
    info.copyKeyFrom(shorter);
    EXPECT_FALSE(room.holds(Bytes(4, 0xa7)));
    info.setKey(secret);
    info = shorter;
    EXPECT_FALSE(room.holds(Bytes(4, 0xa7)));
    std::destroy_at(&info);
}

TEST(SecretBytesTest, MakeEveryKeyOfAFlow) {
    Room<FlowDesc> room;
    FlowDesc& flow = room.make();
    for (HmacInfo* const info :
         {&flow.down.inHmac, &flow.down.outHmac, &flow.up.inHmac, &flow.up.outHmac}) {
        info->setKey(secret);
    }
    std::destroy_at(&flow);
    EXPECT_FALSE(room.holds(Bytes(4, 0xa7)));
}

}  // namespace
}  // namespace vesk
