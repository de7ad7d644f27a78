// Keys of the framing library that free themselves, made from keys of the tests. For unit tests and
// fuzz targets that link the library.
#pragma once

#include <memory>
#include <stdexcept>

#include "support/framed.h"
#include "vesk_framing.h"

namespace vesk {

struct LibraryKeyDeleter {
    void operator()(vesk_framing_key* key) const { vesk_framing_key_free(key); }
};
using LibraryKey = std::unique_ptr<vesk_framing_key, LibraryKeyDeleter>;

inline vesk_framing_digest libraryDigest(const TestKey& key) {
    return key.digest == "sha1" ? VESK_FRAMING_SHA1 : VESK_FRAMING_SHA256;
}

/// An empty key if the test's key has no bytes. Throws if it cannot be made.
inline LibraryKey libraryKey(const TestKey& key) {
    vesk_framing_key* made = nullptr;
    const vesk_framing_result result =
        key.bytes.empty()
            ? vesk_framing_key_new_empty(&made)
            : vesk_framing_key_new(libraryDigest(key), key.bytes.data(), key.bytes.size(), &made);
    if (result != VESK_FRAMING_OK) {
        throw std::runtime_error(vesk_framing_result_text(result));
    }
    return LibraryKey(made);
}

inline vesk_framing_version libraryVersion(int version) {
    return version == 1 ? VESK_FRAMING_UDPV1 : VESK_FRAMING_UDPV2;
}

}  // namespace vesk
