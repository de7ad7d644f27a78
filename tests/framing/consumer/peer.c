/* A program in C that uses the installed library: prints a UDPv1 datagram with the given payload, then the same one
 * with another label and key. */
#include <stdio.h>
#include <string.h>
#include <vesk_framing.h>

static void print(const uint8_t *bytes, size_t length)
{
    for (size_t i = 0; i < length; i++) {
        printf("%02x", bytes[i]);
    }
    printf("\n");
}

static vesk_framing_key *key_of(vesk_framing_digest digest, const char *text)
{
    vesk_framing_key *key = NULL;
    const vesk_framing_result result = vesk_framing_key_new(digest, (const uint8_t *)text, strlen(text), &key);
    if (result != VESK_FRAMING_OK) {
        fprintf(stderr, "%s\n", vesk_framing_result_text(result));
    }
    return key;
}

int main(int argc, char **argv)
{
    uint8_t datagram[VESK_FRAMING_MAX_DATAGRAM];
    size_t length = 0;
    vesk_framing_fields fields;
    vesk_framing_key *key = key_of(VESK_FRAMING_SHA1, "first key");
    vesk_framing_key *other = key_of(VESK_FRAMING_SHA256, "second key");
    vesk_framing_content content = {0x10001, (const uint8_t *)"more", 4, NULL, 0};
    if (argc != 2) {
        return 2;
    }
    content.payload = (const uint8_t *)argv[1];
    content.payload_length = strlen(argv[1]);
    vesk_framing_result result =
        vesk_framing_make(VESK_FRAMING_UDPV1, &content, key, datagram, sizeof(datagram), &length);
    print(datagram, length);
    if (result == VESK_FRAMING_OK) {
        result = vesk_framing_check(VESK_FRAMING_UDPV1, datagram, length, key, NULL, &fields);
    }
    if (result == VESK_FRAMING_OK) {
        result = vesk_framing_relabel(VESK_FRAMING_UDPV1, datagram, length, fields.label + 1, other);
    }
    print(datagram, length);
    vesk_framing_key_free(key);
    vesk_framing_key_free(other);
    fprintf(stderr, "%s\n", vesk_framing_result_text(result));
    return result == VESK_FRAMING_OK ? 0 : 1;
}
