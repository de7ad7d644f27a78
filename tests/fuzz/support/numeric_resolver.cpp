// The linker puts this in the place of the resolver: names are not looked up, so that a fuzzer that
// makes some up sends nothing anywhere. Numeric addresses are read as ever.
#include <netdb.h>

// NOLINTBEGIN(bugprone-reserved-identifier): the names that the linker's --wrap asks for
extern "C" int __real_getaddrinfo(const char* host, const char* service, const addrinfo* hints,
                                  addrinfo** results);

extern "C" int __wrap_getaddrinfo(const char* host, const char* service, const addrinfo* hints,
                                  addrinfo** results) {
    addrinfo numeric = *hints;
    numeric.ai_flags |= AI_NUMERICHOST | AI_NUMERICSERV;
    return __real_getaddrinfo(host, service, &numeric, results);
}
// NOLINTEND(bugprone-reserved-identifier)
