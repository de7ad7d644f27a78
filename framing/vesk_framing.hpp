// Makes, checks and relabels the datagrams that a Vesk forwarder accepts and sends. For peers and
// upstream services in C++20: a thin layer of inline functions over vesk_framing.h, which describes
// each function and its errors. It allocates nothing and throws nothing.
//
// A Key belongs to one thread at a time; everything else may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "vesk_framing.h"

namespace vesk::framing {

enum class Version : int { udpv1 = VESK_FRAMING_UDPV1, udpv2 = VESK_FRAMING_UDPV2 };
enum class Digest : int { sha1 = VESK_FRAMING_SHA1, sha256 = VESK_FRAMING_SHA256 };
enum class Ip : int { v4 = VESK_FRAMING_IPV4, v6 = VESK_FRAMING_IPV6 };
enum class Match : int {
    none = VESK_FRAMING_MATCH_NONE,
    key = VESK_FRAMING_MATCH_KEY,
    oldKey = VESK_FRAMING_MATCH_OLD_KEY
};
enum class Result : int {
    ok = VESK_FRAMING_OK,
    tooLong = VESK_FRAMING_TOO_LONG,
    tooShort = VESK_FRAMING_TOO_SHORT,
    headerLength = VESK_FRAMING_HEADER_LENGTH,
    wrongHmac = VESK_FRAMING_WRONG_HMAC,
    invalidArgument = VESK_FRAMING_INVALID_ARGUMENT,
    keyLength = VESK_FRAMING_KEY_LENGTH,
    noRoom = VESK_FRAMING_NO_ROOM,
    noPayload = VESK_FRAMING_NO_PAYLOAD,
    noMemory = VESK_FRAMING_NO_MEMORY,
    crypto = VESK_FRAMING_CRYPTO
};

inline constexpr std::size_t maxDatagram = VESK_FRAMING_MAX_DATAGRAM;
inline constexpr std::size_t maxKey = VESK_FRAMING_MAX_KEY;

inline const char* text(Result result) {
    return vesk_framing_result_text(static_cast<vesk_framing_result>(result));
}

/// A value, and whether there is one.
template <typename Value>
struct [[nodiscard]] Outcome {
    Result result = Result::ok;
    /// The value, or what the C function leaves in its place.
    Value value{};

    explicit operator bool() const { return result == Result::ok; }
};

/// A key with its digest. It can be moved; after that it is null, and functions refuse it with
/// `invalidArgument`.
class Key {
 public:
    /// A null key.
    Key() = default;

    /// A key of 1 to 128 bytes.
    static Outcome<Key> make(Digest digest, std::span<const std::uint8_t> bytes) {
        vesk_framing_key* made = nullptr;
        const auto result = vesk_framing_key_new(static_cast<vesk_framing_digest>(digest),
                                                 bytes.data(), bytes.size(), &made);
        return {static_cast<Result>(result), Key(made)};
    }

    /// For a flow without a key: nothing is authenticated.
    static Outcome<Key> makeEmpty() {
        vesk_framing_key* made = nullptr;
        const auto result = vesk_framing_key_new_empty(&made);
        return {static_cast<Result>(result), Key(made)};
    }

    /// For functions of vesk_framing.h. The key stays owned by this object.
    vesk_framing_key* get() const { return owned_.get(); }
    explicit operator bool() const { return owned_ != nullptr; }

 private:
    struct Free {
        void operator()(vesk_framing_key* key) const { vesk_framing_key_free(key); }
    };

    explicit Key(vesk_framing_key* made) : owned_(made) {}

    std::unique_ptr<vesk_framing_key, Free> owned_;
};

struct Content {
    std::uint32_t label = 0;
    std::span<const std::uint8_t> payload;
    /// UDPv1 only.
    std::span<const std::uint8_t> further;
};

struct Fields {
    std::uint32_t label = 0;
    Match match = Match::none;
    /// A part of the datagram.
    std::span<const std::uint8_t> payload;
};

namespace detail {

inline Outcome<Fields> fieldsOf(vesk_framing_result result, const vesk_framing_fields& fields,
                                std::span<const std::uint8_t> datagram) {
    return {static_cast<Result>(result),
            {fields.label, static_cast<Match>(fields.match),
             datagram.subspan(fields.payload_offset, fields.payload_length)}};
}

}  // namespace detail

/// Writes a signed datagram to the buffer. The value is its length.
inline Outcome<std::size_t> make(Version version, const Content& content, Key& key,
                                 std::span<std::uint8_t> buffer) {
    const vesk_framing_content parts{content.label, content.further.data(), content.further.size(),
                                     content.payload.data(), content.payload.size()};
    std::size_t length = 0;
    const auto result = vesk_framing_make(static_cast<vesk_framing_version>(version), &parts,
                                          key.get(), buffer.data(), buffer.size(), &length);
    return {static_cast<Result>(result), length};
}

/// Reads the fields without checking the HMAC.
inline Outcome<Fields> parse(Version version, std::span<const std::uint8_t> datagram) {
    vesk_framing_fields fields{};
    const auto result = vesk_framing_parse(static_cast<vesk_framing_version>(version),
                                           datagram.data(), datagram.size(), &fields);
    return detail::fieldsOf(result, fields, datagram);
}

/// Reads the fields and checks the HMAC. `oldKey` is accepted too, unless it is null.
inline Outcome<Fields> check(Version version, std::span<const std::uint8_t> datagram, Key& key,
                             Key* oldKey = nullptr) {
    vesk_framing_fields fields{};
    const auto result = vesk_framing_check(static_cast<vesk_framing_version>(version),
                                           datagram.data(), datagram.size(), key.get(),
                                           oldKey == nullptr ? nullptr : oldKey->get(), &fields);
    return detail::fieldsOf(result, fields, datagram);
}

/// Writes another label and signs with this key, in place, without checking the HMAC.
[[nodiscard]] inline Result relabel(Version version, std::span<std::uint8_t> datagram,
                                    std::uint32_t label, Key& key) {
    return static_cast<Result>(vesk_framing_relabel(static_cast<vesk_framing_version>(version),
                                                    datagram.data(), datagram.size(), label,
                                                    key.get()));
}

/// The offset of the payload.
inline std::size_t headerLength(Version version, std::size_t furtherLength = 0) {
    return vesk_framing_header_length(static_cast<vesk_framing_version>(version), furtherLength);
}

/// The longest payload for packets of at most `mtu` bytes.
inline Outcome<std::size_t> largestPayload(Version version, Ip ip, std::size_t mtu,
                                           std::size_t furtherLength = 0) {
    std::size_t length = 0;
    const auto result =
        vesk_framing_largest_payload(static_cast<vesk_framing_version>(version),
                                     static_cast<vesk_framing_ip>(ip), mtu, furtherLength, &length);
    return {static_cast<Result>(result), length};
}

}  // namespace vesk::framing
