#include "framing/vector_agreement.h"

#include <algorithm>
#include <map>
#include <span>

#include "support/library_key.h"

namespace vesk {

namespace {

vesk_framing_result checked(int version, const Bytes& datagram, const TestKey& key,
                            vesk_framing_fields& fields) {
    return vesk_framing_check(libraryVersion(version), datagram.data(), datagram.size(),
                              libraryKey(key).get(), nullptr, &fields);
}

bool opens(const DatagramVector& vector) {
    vesk_framing_fields fields{};
    return checked(vector.version, vector.datagram, vector.key, fields) == VESK_FRAMING_OK &&
           fields.label == vector.label && fields.match == VESK_FRAMING_MATCH_KEY &&
           fields.payload_offset == vector.headerLength &&
           fields.payload_length == vector.datagram.size() - vector.headerLength;
}

bool makes(const DatagramVector& vector) {
    const vesk_framing_content content{vector.label, vector.further.data(), vector.further.size(),
                                       vector.payload.data(), vector.payload.size()};
    Bytes made(vector.datagram.size(), 0xa5);
    std::size_t length = 0;
    return vesk_framing_make(libraryVersion(vector.version), &content, libraryKey(vector.key).get(),
                             made.data(), made.size(), &length) == VESK_FRAMING_OK &&
           length == made.size() && made == vector.datagram &&
           std::ranges::equal(std::span(made).first(vector.hmac.size()), vector.hmac);
}

}  // namespace

bool libraryAgrees(const DatagramVector& vector) {
    return opens(vector) && makes(vector);
}

bool libraryAgrees(const RelabelVector& vector) {
    vesk_framing_fields fields{};
    Bytes datagram = vector.in;
    return checked(vector.version, datagram, vector.from, fields) == VESK_FRAMING_OK &&
           vesk_framing_relabel(libraryVersion(vector.version), datagram.data(), datagram.size(),
                                vector.label, libraryKey(vector.to).get()) == VESK_FRAMING_OK &&
           datagram == vector.out;
}

std::string libraryReason(const Refusal& refusal) {
    static const std::map<vesk_framing_result, std::string> reasons{
        {VESK_FRAMING_OK, "accepted"},
        {VESK_FRAMING_TOO_LONG, "too_long"},
        {VESK_FRAMING_TOO_SHORT, "too_short"},
        {VESK_FRAMING_HEADER_LENGTH, "header_length"},
        {VESK_FRAMING_WRONG_HMAC, "hmac"}};
    vesk_framing_fields fields{};
    return reasons.at(checked(refusal.version, refusal.datagram, refusal.key, fields));
}

}  // namespace vesk
