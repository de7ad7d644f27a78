#include "config/key_mask.h"

#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

TEST(KeyMask, MasksSixteenOrMoreDigits) {
    EXPECT_EQ(maskKeyDigits("0011223344556677"), "<key of 16 digits>");
    EXPECT_EQ(maskKeyDigits("flows.00112233445566778 is odd"), "flows.<key of 17 digits> is odd");
    EXPECT_EQ(maskKeyDigits("x0xAABBCCDDEEFF00112233x"), "x0x<key of 20 digits>x");
    EXPECT_EQ(maskKeyDigits("0123456789abcdef,fedcba9876543210"),
              "<key of 16 digits>,<key of 16 digits>");
}

TEST(KeyMask, MasksDigitsInGroups) {
    EXPECT_EQ(maskKeyDigits("00:11:22:33:44:55:66:77"), "<key of 16 digits>");
    EXPECT_EQ(maskKeyDigits("0011-2233-4455-6677."), "<key of 16 digits>.");
    EXPECT_EQ(maskKeyDigits("name 0011  2233\t4455 - 66_77 "), "nam<key of 17 digits> ");
    EXPECT_EQ(maskKeyDigits("0011\n2233\n4455\n6677"), "<key of 16 digits>");
}

TEST(KeyMask, LeavesOtherTextUnchanged) {
    for (const char* const text :
         {"", "flow alice", "0x10001", "label 0xffffffff/4294967295", "001122334455667",
          "192.168.100.101:50000", "must be an integer from 1 to 4294967295", "2024-05-01 10:00",
          "a bad face: fed-00"}) {
        EXPECT_EQ(maskKeyDigits(text), text);
    }
}

TEST(KeyMask, LeavesMaskedTextUnchanged) {
    const std::string masked = maskKeyDigits("a 00112233445566778899");
    EXPECT_EQ(maskKeyDigits(masked), masked);
}

TEST(KeyMask, DoesNotMaskAnAddressWithItsPort) {
    EXPECT_EQ(maskKeyDigits("192.168.100.101:50000"), "192.168.100.101:50000");
    EXPECT_TRUE(mayHoldKey("192.168.100.101:50000")) << "dots may group the digits in a name";
}

TEST(KeyMask, FindsKeysInNames) {
    for (const char* const text :
         {"0011223344556677", "x00112233445566778899", "0011.2233.4455.6677",
          "00:11-22_33 44\t55\n66.77", "001122334455667g0011223344556677"}) {
        EXPECT_TRUE(mayHoldKey(text)) << text;
    }
    for (const char* const text :
         {"", "alice", "001122334455667", "00112233g44556677", "........................"}) {
        EXPECT_FALSE(mayHoldKey(text)) << text;
    }
}

TEST(KeyMask, ShowsNamesWithoutKeysAndControlCharacters) {
    EXPECT_EQ(shownName("flows.alice"), "flows.alice");
    EXPECT_EQ(shownName("a\n\x7f\tb"), "a???b");
    EXPECT_EQ(shownName("flows.0011.2233.4455.6677"), "...");
}

}  // namespace
}  // namespace vesk::controller
