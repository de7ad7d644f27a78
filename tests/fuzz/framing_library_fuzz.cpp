// The framing library. The first byte of the input chooses the framing version, the rest is the
// datagram, in a buffer of exactly its size.
#include "support/byte_reader.h"
#include "support/keys.h"
#include "support/library_key.h"
#include "support/require.h"
#include "vesk_framing.h"

namespace vesk::fuzz {
namespace {

/// The header bytes between the label and the payload.
View furtherOf(int version, const Bytes& datagram, std::size_t headerLength) {
    const std::size_t from = vesk_framing_header_length(libraryVersion(version), 0);
    return View(datagram).subspan(from, headerLength - from);
}

void checkByEachKey(int version, const Bytes& datagram) {
    for (const TestKey& key : someKeys()) {
        const TestKey& other = someKeys()[&key == &someKeys()[0] ? 1 : 0];
        vesk_framing_fields fields{};
        const auto result =
            vesk_framing_check(libraryVersion(version), datagram.data(), datagram.size(),
                               libraryKey(key).get(), libraryKey(other).get(), &fields);
        const bool byKey = datagram == signedWith(version, datagram, key);
        const bool byOther = datagram == signedWith(version, datagram, other);
        require((result == VESK_FRAMING_OK) == (byKey || byOther),
                "a datagram passes if its tag is that of one of the keys");
        require(fields.match == (byKey     ? VESK_FRAMING_MATCH_KEY
                                 : byOther ? VESK_FRAMING_MATCH_OLD_KEY
                                           : VESK_FRAMING_MATCH_NONE),
                "the key that matched is named");
    }
}

void remake(int version, const Bytes& datagram, const FramedHeader& header) {
    const View further = furtherOf(version, datagram, header.length);
    const View payload = View(datagram).subspan(header.length);
    for (const TestKey& key : someKeys()) {
        const LibraryKey libraryKeyOf = libraryKey(key);
        const vesk_framing_content content{~header.label, further.data(), further.size(),
                                           payload.data(), payload.size()};
        Bytes made(datagram.size());
        std::size_t length = 0;
        require(vesk_framing_make(libraryVersion(version), &content, libraryKeyOf.get(),
                                  made.data(), made.size(), &length) == VESK_FRAMING_OK,
                "the parts of a datagram make a datagram");
        const Bytes expected =
            signedWith(version, relabelled(version, datagram, ~header.label), key);
        require(made == expected, "it has the right bytes");
        Bytes changed = datagram;
        require(vesk_framing_relabel(libraryVersion(version), changed.data(), changed.size(),
                                     ~header.label, libraryKeyOf.get()) == VESK_FRAMING_OK,
                "a datagram gets another label");
        require(changed == expected, "a new label and tag change nothing else");
    }
}

void handle(int version, const Bytes& datagram) {
    vesk_framing_fields fields{};
    const auto result =
        vesk_framing_parse(libraryVersion(version), datagram.data(), datagram.size(), &fields);
    const auto expected = readFramed(version, datagram);
    if (datagram.size() > VESK_FRAMING_MAX_DATAGRAM) {
        require(result == VESK_FRAMING_TOO_LONG, "too long a datagram is refused");
        return;
    }
    require((result == VESK_FRAMING_OK) == expected.has_value(),
            "just the right datagrams are accepted");
    if (!expected) {
        require(fields.payload_offset == 0 && fields.label == 0, "nothing is read of others");
        return;
    }
    require(fields.label == expected->label, "the label is read");
    require(fields.payload_offset == expected->length &&
                fields.payload_offset + fields.payload_length == datagram.size(),
            "the payload is found");
    checkByEachKey(version, datagram);
    remake(version, datagram, *expected);
}

}  // namespace
}  // namespace vesk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vesk;
    using namespace vesk::fuzz;
    if (size > 0) {
        handle(data[0] % 2 == 0 ? 2 : 1, toBytes(View(data, size).subspan(1)));
    }
    return 0;
}
