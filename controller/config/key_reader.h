// Keys, from the configuration file itself or from files of their own. What it says about a bad key
// never shows a digit of it, nor a path that leads nowhere and may be a key in the wrong place.
// Called by config/flow_reader.
#pragma once

#include <filesystem>
#include <string>

namespace vesk::controller {

/// A key's digits, in lower case, or what is wrong with it.
struct KeyReading {
    std::string digits;
    std::string problem;
};

/// 2 to 256 hex digits, an even number.
KeyReading readKey(const std::string& text);

/// The same from a file, white space left out. A file that others may read is refused unless
/// `allowReadable`.
KeyReading readKeyFile(const std::filesystem::path& path, bool allowReadable);

}  // namespace vesk::controller
