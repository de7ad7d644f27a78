#include "service/environment.h"

#include <charconv>
#include <cstdlib>
#include <system_error>

namespace vesk::controller {

std::optional<std::string> variable(const char* name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no thread changes the environment.
    const char* const value = std::getenv(name);
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

std::optional<std::int64_t> numberIn(const char* name) {
    const std::optional<std::string> text = variable(name);
    std::int64_t value = 0;
    if (!text) {
        return std::nullopt;
    }
    const char* const end = text->data() + text->size();
    const auto [stopped, error] = std::from_chars(text->data(), end, value);
    return error == std::errc() && stopped == end && value > 0 ? std::optional(value)
                                                               : std::nullopt;
}

}  // namespace vesk::controller
