// The library agrees with the test vectors, and with no changed copy of them.
#include "support/vectors.h"

#include <gtest/gtest.h>

#include <vector>

#include "framing/vector_agreement.h"
#include "support/library_key.h"

namespace vesk {
namespace {

template <typename Vector>
void expectLibraryAgreement(const std::vector<Vector>& vectors) {
    for (const Vector& vector : vectors) {
        EXPECT_TRUE(libraryAgrees(vector)) << vector.id;
        for (const Vector& copy : changedCopies(vector)) {
            EXPECT_FALSE(libraryAgrees(copy)) << "a changed copy of " << vector.id;
        }
    }
}

TEST(FramingVectorsTest, EachDatagramAgreesAndNoChangedCopyDoes) {
    expectLibraryAgreement(datagramVectors());
}

TEST(FramingVectorsTest, EachRelabelledDatagramAgreesAndNoChangedCopyDoes) {
    expectLibraryAgreement(relabelVectors());
}

TEST(FramingVectorsTest, EachRefusedDatagramIsRefusedForItsReason) {
    for (const Refusal& refusal : refusals("datagram")) {
        EXPECT_EQ(libraryReason(refusal), refusal.reason) << refusal.id;
    }
}

TEST(FramingVectorsTest, EachRefusedKeyIsRefused) {
    for (const Refusal& refusal : refusals("key")) {
        vesk_framing_key* key = nullptr;
        EXPECT_EQ(vesk_framing_key_new(libraryDigest(refusal.key), refusal.key.bytes.data(),
                                       refusal.key.bytes.size(), &key),
                  VESK_FRAMING_KEY_LENGTH)
            << refusal.id;
        EXPECT_EQ(key, nullptr);
    }
}

/// Each accepted datagram with one bit changed, at every byte. Without a key only the HMAC field
/// and the header length are protected.
TEST(FramingVectorsTest, EachChangedBitOfAShortDatagramIsNoticed) {
    for (const DatagramVector& vector : datagramVectors()) {
        if (vector.key.bytes.empty() || vector.datagram.size() > 50) {
            continue;
        }
        for (std::size_t place = 0; place < vector.datagram.size(); ++place) {
            Refusal changed{vector.id, "", vector.version, vector.key, vector.datagram};
            changed.datagram[place] ^= static_cast<std::uint8_t>(1U << place % 8);
            EXPECT_NE(libraryReason(changed), "accepted") << vector.id << " at " << place;
        }
    }
}

}  // namespace
}  // namespace vesk
