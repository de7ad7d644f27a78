#include "app/environment.h"

#include <cstdlib>
#include <string_view>

namespace vesk {

Ipv4Source ipv4SourceFromEnvironment() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread runs yet.
    const char* const value = std::getenv("VESK_IPV4_SOURCE");
    return value != nullptr && std::string_view(value) == "arrival" ? Ipv4Source::arrival
                                                                    : Ipv4Source::kernel;
}

}  // namespace vesk
