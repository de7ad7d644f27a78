#include "vesk_framing.h"

#include <algorithm>
#include <cstring>
#include <span>

#include "framed_bytes.h"
#include "framing_key.h"

namespace vesk {

namespace {

static_assert(VESK_FRAMING_MAX_DATAGRAM == maxDatagramSize);

/// Whether the bytes can be read.
bool isRegion(const void* bytes, std::size_t length) {
    return bytes != nullptr || length == 0;
}

/// The room that a datagram with these contents needs.
vesk_framing_result lengthOf(const FramingDescriptor& framing, const vesk_framing_content& content,
                             std::size_t& length) {
    if (framing.headerLengthSize == 0 && content.further_length != 0) {
        return VESK_FRAMING_INVALID_ARGUMENT;
    }
    if (framing.headerLengthSize != 0 && content.payload_length == 0) {
        return VESK_FRAMING_NO_PAYLOAD;
    }
    // Each by itself first, because the sum may overflow.
    if (content.further_length > maxDatagramSize || content.payload_length > maxDatagramSize) {
        return VESK_FRAMING_TOO_LONG;
    }
    length = framing.minHeaderSize + content.further_length + content.payload_length;
    return length > maxDatagramSize ? VESK_FRAMING_TOO_LONG : VESK_FRAMING_OK;
}

/// Writes everything but the HMAC. The payload first, because it may lie where the header will be.
void writeContent(const FramingDescriptor& framing, const vesk_framing_content& content,
                  std::span<std::uint8_t> datagram) {
    const std::size_t headerLength = framing.minHeaderSize + content.further_length;
    std::uint8_t* const payload = datagram.data() + headerLength;
    if (content.payload_length != 0 && content.payload != payload) {
        std::memmove(payload, content.payload, content.payload_length);
    }
    std::copy_n(content.further, content.further_length, datagram.begin() + framing.minHeaderSize);
    writeHeader(framing, datagram, headerLength, content.label);
}

/// The length of the IP and UDP headers.
std::size_t headersBelow(vesk_framing_ip ip) {
    constexpr std::size_t udp = 8;
    switch (ip) {
        case VESK_FRAMING_IPV4:
            return 20 + udp;
        case VESK_FRAMING_IPV6:
            return 40 + udp;
        default:
            return 0;
    }
}

}  // namespace

}  // namespace vesk

using namespace vesk;

extern "C" {

const char* vesk_framing_result_text(vesk_framing_result result) {
    switch (result) {
        case VESK_FRAMING_OK:
            return "success";
        case VESK_FRAMING_TOO_LONG:
            return "the datagram is longer than 2,048 bytes";
        case VESK_FRAMING_TOO_SHORT:
            return "the datagram is shorter than its header";
        case VESK_FRAMING_HEADER_LENGTH:
            return "the header length of the datagram is out of range";
        case VESK_FRAMING_WRONG_HMAC:
            return "the HMAC of the datagram is wrong";
        case VESK_FRAMING_INVALID_ARGUMENT:
            return "an argument is invalid";
        case VESK_FRAMING_KEY_LENGTH:
            return "the key does not have 1 to 128 bytes";
        case VESK_FRAMING_NO_ROOM:
            return "the datagram does not fit";
        case VESK_FRAMING_NO_PAYLOAD:
            return "a UDPv1 datagram needs a payload";
        case VESK_FRAMING_NO_MEMORY:
            return "out of memory";
        case VESK_FRAMING_CRYPTO:
            return "libcrypto failed";
    }
    return "unknown result";
}

const char* vesk_framing_library_version(void) {
    return VESK_FRAMING_LIBRARY_VERSION;
}

vesk_framing_result vesk_framing_make(vesk_framing_version version,
                                      const vesk_framing_content* content, vesk_framing_key* key,
                                      uint8_t* buffer, size_t capacity, size_t* length) {
    if (length == nullptr) {
        return VESK_FRAMING_INVALID_ARGUMENT;
    }
    *length = 0;
    const FramingDescriptor* const framing = framingFor(version);
    if (framing == nullptr || content == nullptr || key == nullptr || !isRegion(buffer, capacity) ||
        !isRegion(content->further, content->further_length) ||
        !isRegion(content->payload, content->payload_length)) {
        return VESK_FRAMING_INVALID_ARGUMENT;
    }
    std::size_t needed = 0;
    const vesk_framing_result fits = lengthOf(*framing, *content, needed);
    if (fits != VESK_FRAMING_OK) {
        return fits;
    }
    if (needed > capacity) {
        *length = needed;
        return VESK_FRAMING_NO_ROOM;
    }
    const std::span datagram(buffer, needed);
    writeContent(*framing, *content, datagram);
    const vesk_framing_result result =
        signWith(*key, *framing, datagram, framing->minHeaderSize + content->further_length);
    *length = result == VESK_FRAMING_OK ? needed : 0;
    return result;
}

vesk_framing_result vesk_framing_parse(vesk_framing_version version, const uint8_t* datagram,
                                       size_t length, vesk_framing_fields* fields) {
    if (fields == nullptr) {
        return VESK_FRAMING_INVALID_ARGUMENT;
    }
    *fields = {};
    const FramingDescriptor* const framing = framingFor(version);
    if (framing == nullptr || !isRegion(datagram, length)) {
        return VESK_FRAMING_INVALID_ARGUMENT;
    }
    return readFields(*framing, std::span(datagram, length), *fields);
}

vesk_framing_result vesk_framing_check(vesk_framing_version version, const uint8_t* datagram,
                                       size_t length, vesk_framing_key* key,
                                       vesk_framing_key* old_key, vesk_framing_fields* fields) {
    vesk_framing_result result = vesk_framing_parse(version, datagram, length, fields);
    if (key == nullptr && fields != nullptr) {
        *fields = {};
        return VESK_FRAMING_INVALID_ARGUMENT;
    }
    if (result != VESK_FRAMING_OK) {
        return result;
    }
    const FramingDescriptor& framing = *framingFor(version);
    const std::span bytes(datagram, length);
    vesk_framing_match match = VESK_FRAMING_MATCH_KEY;
    result = checkWith(*key, framing, bytes, fields->payload_offset);
    if (result == VESK_FRAMING_WRONG_HMAC && old_key != nullptr) {
        match = VESK_FRAMING_MATCH_OLD_KEY;
        result = checkWith(*old_key, framing, bytes, fields->payload_offset);
    }
    if (result == VESK_FRAMING_OK) {
        fields->match = match;
    } else if (result == VESK_FRAMING_CRYPTO) {
        *fields = {};
    }
    return result;
}

vesk_framing_result vesk_framing_relabel(vesk_framing_version version, uint8_t* datagram,
                                         size_t length, uint32_t label, vesk_framing_key* key) {
    if (key == nullptr) {
        return VESK_FRAMING_INVALID_ARGUMENT;
    }
    vesk_framing_fields fields;
    const vesk_framing_result result = vesk_framing_parse(version, datagram, length, &fields);
    if (result != VESK_FRAMING_OK) {
        return result;
    }
    const FramingDescriptor& framing = *framingFor(version);
    const std::span bytes(datagram, length);
    writeLabel(framing, bytes, label);
    return signWith(*key, framing, bytes, fields.payload_offset);
}

size_t vesk_framing_header_length(vesk_framing_version version, size_t further_length) {
    const FramingDescriptor* const framing = framingFor(version);
    return framing == nullptr ? 0 : framing->minHeaderSize + further_length;
}

vesk_framing_result vesk_framing_largest_payload(vesk_framing_version version, vesk_framing_ip ip,
                                                 size_t mtu, size_t further_length,
                                                 size_t* payload_length) {
    if (payload_length == nullptr) {
        return VESK_FRAMING_INVALID_ARGUMENT;
    }
    *payload_length = 0;
    const FramingDescriptor* const framing = framingFor(version);
    const std::size_t below = headersBelow(ip);
    if (framing == nullptr || below == 0 ||
        (framing->headerLengthSize == 0 && further_length != 0)) {
        return VESK_FRAMING_INVALID_ARGUMENT;
    }
    const std::size_t smallestPayload = framing->headerLengthSize == 0 ? 0 : 1;
    const std::size_t room = std::min(mtu < below ? 0 : mtu - below, maxDatagramSize);
    if (room < framing->minHeaderSize + smallestPayload ||
        further_length > room - framing->minHeaderSize - smallestPayload) {
        return VESK_FRAMING_NO_ROOM;
    }
    *payload_length = room - framing->minHeaderSize - further_length;
    return VESK_FRAMING_OK;
}

}  // extern "C"
