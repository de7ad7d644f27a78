// All fragments of a folder: reads those that have changed, puts them together, and keeps what a
// fragment with an error said before. Made by main, then called by service/supervisor, in its one
// thread.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "config/configuration_reader.h"
#include "config/file_state.h"
#include "config/fragments/fragment.h"
#include "config/fragments/fragment_merge.h"

namespace vesk::controller {

enum class FilesToRead {
    /// As `changed`, but key files are compared only if their folder has changed, as it does when
    /// one is replaced by a rename. Comparing 50,000 key files takes 75 ms.
    changedFolders,
    changed,  ///< fragments that differ from what was read, or of which a key file does
    all
};

/// The errors of a fragment that is not usable, or of the folder, as lines for the log.
struct FragmentErrors {
    std::vector<std::string> lines;
    std::string consequence;
};

struct FolderReading {
    bool changed = false;  ///< whether anything was read; otherwise the rest is empty
    /// The configuration to apply; none if the folder is not readable, or if there are no settings
    /// and never were.
    std::optional<Configuration> configuration;
    std::vector<FragmentErrors> errors;  ///< those that are new, or all if all files were read
    std::vector<std::string> mended;     ///< files that had errors and no longer have any
    bool complete = false;               ///< whether nothing has an error
};

class FragmentFolder {
 public:
    FragmentFolder(std::filesystem::path folder, ReadingRules rules);

    /// The first call reads all fragments.
    FolderReading read(FilesToRead files);

    /// Whether each fragment has an error at present, by file name.
    std::map<std::string, bool> fragments() const;

    const std::filesystem::path& path() const { return folder_; }

 private:
    struct Entry {
        std::string file;
        FileState state;
        std::shared_ptr<const Fragment> read;         // as the file is now
        std::shared_ptr<const Fragment> applied;      // as it was when it last had no error
        std::map<std::string, FileState> keyFolders;  // when they were last compared
        std::vector<std::string> errors;
        bool readAgain = false;

        /// What it contributes, unless it contradicts others.
        const Fragment& present() const {
            return read->problems.empty() || !applied ? *read : *applied;
        }
    };

    static bool keysChanged(Entry& entry, FilesToRead files);
    bool readFiles(const std::map<std::string, FileState>& found, FilesToRead files);
    FolderReading refuse(const std::string& problem, FilesToRead files);
    const Entry* settingsOwner() const;
    void merge(FolderReading& reading);
    static void judge(Entry& entry, FragmentMerge& merged, FolderReading& reading);
    static std::string consequenceOf(const Entry& entry, const FragmentMerge& merged);
    void applySettings(const Entry* owner, FolderReading& reading);

    std::filesystem::path folder_;
    ReadingRules rules_;
    std::map<std::string, Entry> entries_;   // by file name
    std::optional<Configuration> settings_;  // those that apply, without flows
    std::string problem_;                    // of the folder
};

}  // namespace vesk::controller
