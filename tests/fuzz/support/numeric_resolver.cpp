// The linker replaces the resolver with this one, which resolves numeric addresses only, so that
// names invented by the fuzzer cause no queries on the network.
#include <netdb.h>

// NOLINTBEGIN(bugprone-reserved-identifier): the names required by the linker's --wrap
extern "C" int __real_getaddrinfo(const char* host, const char* service, const addrinfo* hints,
                                  addrinfo** results);

extern "C" int __wrap_getaddrinfo(const char* host, const char* service, const addrinfo* hints,
                                  addrinfo** results) {
    addrinfo numeric = *hints;
    numeric.ai_flags |= AI_NUMERICHOST | AI_NUMERICSERV;
    return __real_getaddrinfo(host, service, &numeric, results);
}
// NOLINTEND(bugprone-reserved-identifier)
