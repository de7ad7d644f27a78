// The system's text for an error number. Any thread.
#pragma once

#include <string>

namespace vesk {

/// As strerror has it, without its buffer that threads share.
std::string errorText(int error);

}  // namespace vesk
