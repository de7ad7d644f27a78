/* Lets the resolver's n-th answer be empty: success, without an address. Loaded in front of the C
   library; VESK_EMPTY_ANSWER says which. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <netdb.h>
#include <stdlib.h>

typedef int (*resolver)(const char*, const char*, const struct addrinfo*, struct addrinfo**);

int getaddrinfo(const char* host, const char* service, const struct addrinfo* hints,
                struct addrinfo** results) {
    /* Commands are carried out by one thread. */
    static int answers;
    if (++answers == atoi(getenv("VESK_EMPTY_ANSWER"))) {
        *results = NULL;
        return 0;
    }
    return ((resolver)dlsym(RTLD_NEXT, "getaddrinfo"))(host, service, hints, results);
}
