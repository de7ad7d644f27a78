// Makes random keys for operators. Called by main for --new-key.
#pragma once

#include <filesystem>
#include <string>

namespace vesk::controller {

/// 32 random bytes as hex digits, and a newline. Throws std::system_error if the kernel returns no
/// random bytes.
std::string newKeyLine();

/// Creates the file, readable only by its owner, with a new key in it. An existing file is not
/// changed. Returns the problem; empty on success.
std::string writeNewKey(const std::filesystem::path& path);

}  // namespace vesk::controller
