// Reads one file of a folder of fragments. Called by fragment_folder.
#pragma once

#include <filesystem>

#include "config/configuration_reader.h"
#include "config/fragments/fragment.h"

namespace vesk::controller {

/// Reads the file and the key files that it names.
Fragment readFragment(const std::filesystem::path& file, ReadingRules rules);

}  // namespace vesk::controller
