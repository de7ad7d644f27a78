// The test vectors of vectors/, for unit tests and fuzz targets. docs/vectors.md describes their
// fields.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "support/framed.h"

namespace vesk {

/// A datagram that is accepted with its key.
struct DatagramVector {
    std::string id;
    /// The framing version, 1 or 2.
    int version = 0;
    TestKey key;
    std::uint32_t label = 0;
    Bytes further;
    Bytes payload;
    std::size_t headerLength = 0;
    Bytes hmac;
    Bytes datagram;
};

/// A datagram before and after it gets another label and HMAC.
struct RelabelVector {
    std::string id;
    int version = 0;
    TestKey from;
    Bytes in;
    TestKey to;
    std::uint32_t label = 0;
    Bytes out;
};

/// A datagram between two instances. The address is in the layout of a little-endian host.
struct LateralVector {
    std::string id;
    std::uint8_t type = 0;
    std::string host;
    std::uint16_t port = 0;
    Bytes address;
    TestKey key;
    Bytes returnInformation;
    Bytes framed;
    Bytes datagram;
};

/// A key or a datagram that is refused.
struct Refusal {
    std::string id;
    std::string reason;
    int version = 0;
    TestKey key;
    Bytes datagram;
};

// Each returns the vectors of all files of the kind; there is at least one.

std::vector<DatagramVector> datagramVectors();
std::vector<RelabelVector> relabelVectors();
std::vector<LateralVector> lateralVectors();
/// The operation is "key", "datagram" or "lateral".
std::vector<Refusal> refusals(std::string_view operation);

/// Copies of the vector in which one bit of one field is changed; no program agrees with any of
/// them. Of each field the first, the middle and the last byte are changed.
std::vector<DatagramVector> changedCopies(const DatagramVector& vector);
std::vector<RelabelVector> changedCopies(const RelabelVector& vector);
std::vector<LateralVector> changedCopies(const LateralVector& vector);

}  // namespace vesk
