#include "config/label_text.h"

#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

TEST(LabelText, IsHexadecimal) {
    EXPECT_EQ(labelText(1), "0x1");
    EXPECT_EQ(labelText(0x10001), "0x10001");
    EXPECT_EQ(labelText(0xffffffff), "0xffffffff");
}

TEST(LabelText, HasTheDecimalNumberInBothForms) {
    EXPECT_EQ(labelInBothForms(0x10001), "0x10001/65537");
    EXPECT_EQ(labelInBothForms(0xffffffff), "0xffffffff/4294967295");
}

}  // namespace
}  // namespace vesk::controller
