// Reads addresses, ports and indices of the configuration file. Called by the other readers in
// config/.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "config/configuration.h"
#include "config/table_reader.h"

namespace vesk::controller {

inline constexpr std::int64_t greatestPort = 65535;
inline constexpr std::int64_t greatestNumber = std::numeric_limits<std::uint32_t>::max();

/// A numeric address, or "" after a problem was added or if the key is missing.
std::string readAddress(TableReader& table, std::string_view key);

/// A port, or 0.
std::uint16_t readPort(TableReader& table, std::string_view key);

/// A number that the table must have, or 0.
std::uint32_t readNumber(TableReader& table, std::string_view key, std::int64_t least,
                         std::int64_t greatest);

/// The keys address and port, which the table must have.
HostPort readListen(TableReader& table);

}  // namespace vesk::controller
