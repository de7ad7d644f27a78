/*
 * Makes, checks and relabels the datagrams that a Vesk forwarder accepts and sends: UDPv1 and
 * UDPv2, as docs/wire-format.md describes them. For peers and upstream services in C;
 * vesk_framing.hpp is for C++.
 *
 * Threads: no function has a state of its own, so any number of threads may call them. A key
 * belongs to one thread at a time; a thread that works beside others makes keys of its own.
 *
 * Memory: only vesk_framing_key_new and vesk_framing_key_new_empty allocate. In FIPS mode libcrypto
 * may allocate for each HMAC.
 *
 * Lengths and offsets are in bytes. Labels are in host byte order here, and big-endian in the
 * datagrams.
 */
#ifndef VESK_FRAMING_H
#define VESK_FRAMING_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    /* The longest datagram, its header included. */
    VESK_FRAMING_MAX_DATAGRAM = 2048,
    /* The longest key. */
    VESK_FRAMING_MAX_KEY = 128
};

/* The framing of the forwarder, which its command line chooses. */
typedef enum vesk_framing_version {
    VESK_FRAMING_UDPV1 = 1,
    VESK_FRAMING_UDPV2 = 2
} vesk_framing_version;

typedef enum vesk_framing_digest {
    VESK_FRAMING_SHA1 = 1,
    VESK_FRAMING_SHA256 = 2
} vesk_framing_digest;

typedef enum vesk_framing_ip { VESK_FRAMING_IPV4 = 4, VESK_FRAMING_IPV6 = 6 } vesk_framing_ip;

/* What a function returns. Values may be added; none changes. */
typedef enum vesk_framing_result {
    VESK_FRAMING_OK = 0,

    /* A datagram is refused. The first reason that applies, in this order, is returned. */

    /* Longer than 2,048 bytes; also of a datagram that is to be made. */
    VESK_FRAMING_TOO_LONG = 1,
    /* Shorter than the header: 38 bytes in UDPv1, 20 bytes in UDPv2. */
    VESK_FRAMING_TOO_SHORT = 2,
    /* UDPv1: the header length is below 38, or leaves no payload. */
    VESK_FRAMING_HEADER_LENGTH = 3,
    /* The HMAC is not that of an accepted key; with an empty key, it is not zero. */
    VESK_FRAMING_WRONG_HMAC = 4,

    /* The caller made a mistake. */

    /* A null pointer, an unknown framing, digest or IP version, or further header bytes for UDPv2.
     */
    VESK_FRAMING_INVALID_ARGUMENT = 5,
    /* A key has 1 to 128 bytes. */
    VESK_FRAMING_KEY_LENGTH = 6,
    /* The buffer is too small for the datagram, or the MTU for the smallest one. */
    VESK_FRAMING_NO_ROOM = 7,
    /* UDPv1 needs at least one byte of payload. */
    VESK_FRAMING_NO_PAYLOAD = 8,

    /* The environment failed. */

    VESK_FRAMING_NO_MEMORY = 9,
    /* libcrypto failed; in FIPS mode, it may not offer the digest. */
    VESK_FRAMING_CRYPTO = 10
} vesk_framing_result;

/* A short text in English for a result, without a full stop. Never null. */
const char* vesk_framing_result_text(vesk_framing_result result);

/* The version of the library that is loaded, such as "1.0.0". */
const char* vesk_framing_library_version(void);

/* A key with its digest, prepared for many HMACs. */
typedef struct vesk_framing_key vesk_framing_key;

/*
 * Makes a key of 1 to 128 bytes. The bytes are copied only as far as HMACs need them, and are wiped
 * with the key. On failure `*key` is null. Errors: INVALID_ARGUMENT, KEY_LENGTH, NO_MEMORY, CRYPTO.
 */
vesk_framing_result vesk_framing_key_new(vesk_framing_digest digest, const uint8_t* bytes,
                                         size_t length, vesk_framing_key** key);

/*
 * Makes a key without bytes, for a flow without a key: HMACs are zeros, and nothing is
 * authenticated. On failure
 * `*key` is null. Errors: INVALID_ARGUMENT, NO_MEMORY.
 */
vesk_framing_result vesk_framing_key_new_empty(vesk_framing_key** key);

/* Wipes and frees a key. A null pointer is ignored. */
void vesk_framing_key_free(vesk_framing_key* key);

/* What a datagram is made of. */
typedef struct vesk_framing_content {
    uint32_t label;
    /* UDPv1: header bytes behind the label, which forwarders pass on unchanged. None if the length
     * is 0. */
    const uint8_t* further;
    size_t further_length;
    /* At least one byte in UDPv1. None if the length is 0. */
    const uint8_t* payload;
    size_t payload_length;
} vesk_framing_content;

/*
 * Writes a signed datagram to `buffer`, which has room for `capacity` bytes, and its length to
 * `*length`. The payload may overlap the buffer, and is not copied if it is already in its place
 * (see vesk_framing_header_length); the further header bytes must not overlap it. If the result is
 * NO_ROOM, `*length` is the room that is needed, and the buffer is unchanged; after other errors
 * `*length` is 0. Errors: INVALID_ARGUMENT, NO_PAYLOAD, TOO_LONG, NO_ROOM, CRYPTO.
 */
vesk_framing_result vesk_framing_make(vesk_framing_version version,
                                      const vesk_framing_content* content, vesk_framing_key* key,
                                      uint8_t* buffer, size_t capacity, size_t* length);

/* Which of two keys a datagram is signed with. */
typedef enum vesk_framing_match {
    VESK_FRAMING_MATCH_NONE = 0,
    VESK_FRAMING_MATCH_KEY = 1,
    VESK_FRAMING_MATCH_OLD_KEY = 2
} vesk_framing_match;

/* The fields of a datagram. */
typedef struct vesk_framing_fields {
    uint32_t label;
    vesk_framing_match match;
    size_t payload_offset;
    size_t payload_length;
} vesk_framing_fields;

/*
 * Reads the fields of a datagram without checking its HMAC, so that the key can be chosen by the
 * label. The further header bytes of UDPv1 are those from 38 to the payload. On failure all fields
 * are 0. Errors: INVALID_ARGUMENT, TOO_LONG, TOO_SHORT, HEADER_LENGTH.
 */
vesk_framing_result vesk_framing_parse(vesk_framing_version version, const uint8_t* datagram,
                                       size_t length, vesk_framing_fields* fields);

/*
 * Reads the fields of a datagram and checks its HMAC, which is compared in constant time. While
 * keys are changed, `old_key` is the second key that is accepted; null if there is none. If the
 * result is WRONG_HMAC, the fields are those that anybody could have written, and `match` is NONE;
 * after other errors all fields are 0. Errors: those of vesk_framing_parse, WRONG_HMAC, CRYPTO.
 */
vesk_framing_result vesk_framing_check(vesk_framing_version version, const uint8_t* datagram,
                                       size_t length, vesk_framing_key* key,
                                       vesk_framing_key* old_key, vesk_framing_fields* fields);

/*
 * Writes another label into a datagram and signs it with this key, in place. Does not check the
 * HMAC that it replaces: call vesk_framing_check first. After an error other than CRYPTO the
 * datagram is unchanged; after CRYPTO it must not be sent. Errors: INVALID_ARGUMENT, TOO_LONG,
 * TOO_SHORT, HEADER_LENGTH, CRYPTO.
 */
vesk_framing_result vesk_framing_relabel(vesk_framing_version version, uint8_t* datagram,
                                         size_t length, uint32_t label, vesk_framing_key* key);

/* The offset of the payload behind this many further header bytes; 0 for an unknown framing. */
size_t vesk_framing_header_length(vesk_framing_version version, size_t further_length);

/*
 * The longest payload of a datagram that is not fragmented where packets have at most `mtu` bytes,
 * IP header included, without IP options; never more than fits into 2,048 bytes. On failure
 * `*payload_length` is 0. Errors: INVALID_ARGUMENT, NO_ROOM if not even the shortest payload fits.
 */
vesk_framing_result vesk_framing_largest_payload(vesk_framing_version version, vesk_framing_ip ip,
                                                 size_t mtu, size_t further_length,
                                                 size_t* payload_length);

#ifdef __cplusplus
}
#endif

#endif
