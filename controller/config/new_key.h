// New random keys, for operators to put into files. Called by main for --new-key.
#pragma once

#include <filesystem>
#include <string>

namespace vesk::controller {

/// 32 random bytes as hex digits, and a line feed. Throws std::system_error where the kernel has no
/// random bytes to give.
std::string newKeyLine();

/// Makes the file, which only its owner may read, with a new key in it. A file of that name is left
/// as it is. Returns what was wrong; empty where nothing was.
std::string writeNewKey(const std::filesystem::path& path);

}  // namespace vesk::controller
