#include <gtest/gtest.h>

#include <memory>

#include "flow/flow_desc.h"
#include "flow/hmac_info.h"
#include "support/object_room.h"

namespace vesk {
namespace {

const Bytes secret(32, 0xa7);

TEST(SecretKeysTest, AreWipedWithTheirRecord) {
    Room<HmacInfo> room;
    HmacInfo& info = room.make();
    info.setKey(secret);
    EXPECT_TRUE(room.holds(secret));
    std::destroy_at(&info);
    EXPECT_FALSE(room.holds(Bytes(4, 0xa7)));
}

TEST(SecretKeysTest, AreWipedWhenAShorterKeyReplacesThem) {
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

TEST(SecretKeysTest, AreWipedWithTheirFlow) {
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
