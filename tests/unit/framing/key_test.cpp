#include <gtest/gtest.h>

#include <array>
#include <set>
#include <string>

#include "support/library_key.h"

namespace vesk {
namespace {

const std::array<std::uint8_t, 129> someBytes{1, 2, 3};

vesk_framing_result makeKey(vesk_framing_digest digest, const std::uint8_t* bytes,
                            std::size_t length) {
    vesk_framing_key* key = nullptr;
    const vesk_framing_result result = vesk_framing_key_new(digest, bytes, length, &key);
    EXPECT_EQ(key != nullptr, result == VESK_FRAMING_OK);
    vesk_framing_key_free(key);
    return result;
}

TEST(FramingKeyTest, HasOneTo128Bytes) {
    EXPECT_EQ(makeKey(VESK_FRAMING_SHA256, someBytes.data(), 0), VESK_FRAMING_KEY_LENGTH);
    EXPECT_EQ(makeKey(VESK_FRAMING_SHA256, nullptr, 0), VESK_FRAMING_KEY_LENGTH);
    EXPECT_EQ(makeKey(VESK_FRAMING_SHA256, someBytes.data(), 1), VESK_FRAMING_OK);
    EXPECT_EQ(makeKey(VESK_FRAMING_SHA1, someBytes.data(), 128), VESK_FRAMING_OK);
    EXPECT_EQ(makeKey(VESK_FRAMING_SHA1, someBytes.data(), 129), VESK_FRAMING_KEY_LENGTH);
}

TEST(FramingKeyTest, RefusesUnknownDigestsAndNullPointers) {
    EXPECT_EQ(makeKey(static_cast<vesk_framing_digest>(0), someBytes.data(), 20),
              VESK_FRAMING_INVALID_ARGUMENT);
    EXPECT_EQ(makeKey(static_cast<vesk_framing_digest>(3), someBytes.data(), 20),
              VESK_FRAMING_INVALID_ARGUMENT);
    EXPECT_EQ(makeKey(VESK_FRAMING_SHA1, nullptr, 1), VESK_FRAMING_INVALID_ARGUMENT);
    EXPECT_EQ(vesk_framing_key_new(VESK_FRAMING_SHA1, someBytes.data(), 1, nullptr),
              VESK_FRAMING_INVALID_ARGUMENT);
    EXPECT_EQ(vesk_framing_key_new_empty(nullptr), VESK_FRAMING_INVALID_ARGUMENT);
}

TEST(FramingKeyTest, IsNullAfterAFailure) {
    const LibraryKey other = libraryKey({});
    vesk_framing_key* key = other.get();
    EXPECT_EQ(vesk_framing_key_new(VESK_FRAMING_SHA1, someBytes.data(), 0, &key),
              VESK_FRAMING_KEY_LENGTH);
    EXPECT_EQ(key, nullptr);
}

TEST(FramingKeyTest, NullIsFreedWithoutEffect) {
    vesk_framing_key_free(nullptr);
}

TEST(FramingResultTest, EachHasATextOfItsOwn) {
    std::set<std::string> texts;
    for (int result = VESK_FRAMING_OK; result <= VESK_FRAMING_CRYPTO; ++result) {
        texts.insert(vesk_framing_result_text(static_cast<vesk_framing_result>(result)));
    }
    EXPECT_EQ(texts.size(), 11U);
    EXPECT_EQ(texts.count("unknown result"), 0U);
    EXPECT_STREQ(vesk_framing_result_text(static_cast<vesk_framing_result>(11)), "unknown result");
    EXPECT_STREQ(vesk_framing_result_text(VESK_FRAMING_WRONG_HMAC),
                 "the HMAC of the datagram is wrong");
}

TEST(FramingVersionTest, IsThatOfTheProject) {
    EXPECT_STREQ(vesk_framing_library_version(), VESK_PROJECT_VERSION);
}

}  // namespace
}  // namespace vesk
