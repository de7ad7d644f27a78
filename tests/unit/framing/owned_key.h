// A key of the framing library that frees itself, made from a key of the tests.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "support/framed.h"
#include "vesk_framing.h"

namespace vesk {

struct FreeKey {
    void operator()(vesk_framing_key* key) const { vesk_framing_key_free(key); }
};
using OwnedKey = std::unique_ptr<vesk_framing_key, FreeKey>;

inline vesk_framing_digest digestOf(const TestKey& key) {
    return key.digest == "sha1" ? VESK_FRAMING_SHA1 : VESK_FRAMING_SHA256;
}

/// An empty key if the test's key has no bytes.
inline OwnedKey ownedKey(const TestKey& key) {
    vesk_framing_key* made = nullptr;
    const vesk_framing_result result =
        key.bytes.empty()
            ? vesk_framing_key_new_empty(&made)
            : vesk_framing_key_new(digestOf(key), key.bytes.data(), key.bytes.size(), &made);
    EXPECT_EQ(result, VESK_FRAMING_OK);
    return OwnedKey(made);
}

inline vesk_framing_version versionOf(int version) {
    return version == 1 ? VESK_FRAMING_UDPV1 : VESK_FRAMING_UDPV2;
}

}  // namespace vesk
