/* Preloaded before the C library, makes one answer of the resolver empty: success without an
   address. VESK_EMPTY_ANSWER is the number of this answer. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <netdb.h>
#include <stdlib.h>

typedef int (*resolver)(const char*, const char*, const struct addrinfo*, struct addrinfo**);

int getaddrinfo(const char* host, const char* service, const struct addrinfo* hints,
                struct addrinfo** results) {
    /* Commands are executed by one thread. */
    static int answers;
    if (++answers == atoi(getenv("VESK_EMPTY_ANSWER"))) {
        *results = NULL;
        return 0;
    }
    return ((resolver)dlsym(RTLD_NEXT, "getaddrinfo"))(host, service, hints, results);
}
