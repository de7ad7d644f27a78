// The system's text for an error number. Any thread.
#pragma once

#include <string>

namespace vesk {

/// The text that strerror returns. Unlike strerror, safe to call from several threads.
std::string errorText(int error);

}  // namespace vesk
