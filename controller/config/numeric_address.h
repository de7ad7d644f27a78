// Parses addresses of the configuration file. Host names are not accepted: the forwarder ends if it
// cannot resolve one. Any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "config/configuration.h"

namespace vesk::controller {

bool isIPv4(const std::string& host);
bool isIPv6(const std::string& host);
bool isNumericHost(const std::string& host);

/// "127.0.0.1:5000" or "[::1]:5000"; none for any other text.
std::optional<HostPort> parseHostPort(std::string_view text);

}  // namespace vesk::controller
