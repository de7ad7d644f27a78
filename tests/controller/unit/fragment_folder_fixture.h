// A folder of fragments for the tests of this folder.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "config/fragments/fragment_folder.h"
#include "temporary_folder.h"

namespace vesk::controller {

inline std::string flowTable(const std::string& name, int label, const std::string& more = "") {
    return "[flows." + name + "]\nlabel = " + std::to_string(label) +
           "\nupstream = \"127.0.0.1:1\"\n" + more;
}

/// A folder of fragments; the paths in its errors are relative to it.
class FragmentFolderTest : public testing::Test {
 protected:
    void write(const std::string& name, const std::string& text, mode_t mode = 0600) const {
        folder.write(name, text, mode);
    }
    void remove(const std::string& name) const { std::filesystem::remove(folder.path() / name); }

    /// The labels of all flows.
    std::vector<std::uint32_t> read(FilesToRead files = FilesToRead::changed) {
        reading = fragments.read(files);
        std::vector<std::uint32_t> labels;
        if (reading.configuration) {
            for (const auto& [label, flow] : reading.configuration->flows) {
                labels.push_back(label);
            }
        }
        return labels;
    }

    std::vector<std::string> errors() const {
        std::vector<std::string> lines;
        for (const FragmentErrors& it : reading.errors) {
            for (const std::string& line : it.lines) {
                lines.push_back(withoutFolder(line));
            }
        }
        return lines;
    }

    std::string withoutFolder(std::string text) const {
        const std::string path = folder.path().string() + "/";
        for (std::size_t at = text.find(path); at != std::string::npos; at = text.find(path)) {
            text.erase(at, path.size());
        }
        return text;
    }

    TemporaryFolder folder;
    FragmentFolder fragments{folder.path(), ReadingRules{}};
    FolderReading reading;
};

}  // namespace vesk::controller
