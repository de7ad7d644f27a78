// Reads keys from the configuration file or from key files. A message about a bad key never
// contains a digit of it, nor a path that does not exist and may itself be a key. Called by
// config/flow_reader.
#pragma once

#include <filesystem>
#include <string>

namespace vesk::controller {

/// The digits of a key in lower case, or what is wrong with it.
struct KeyReading {
    std::string digits;
    std::string problem;
};

/// 2 to 256 hex digits, an even number.
KeyReading readKey(const std::string& text);

/// The same from a file; white space is ignored. A file that others can read is refused unless
/// `allowReadable`.
KeyReading readKeyFile(const std::filesystem::path& path, bool allowReadable);

}  // namespace vesk::controller
