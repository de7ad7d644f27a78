#include "log/error_text.h"

#include <array>
#include <cstring>

namespace vesk {

std::string errorText(int error) {
    std::array<char, 128> buffer{};
    return strerror_r(error, buffer.data(), buffer.size());
}

}  // namespace vesk
