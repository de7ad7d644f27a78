#include "config/fragments/fragment_folder.h"

#include <algorithm>
#include <iterator>
#include <system_error>
#include <utility>

#include "config/fragments/fragment_reader.h"
#include "config/key_mask.h"
#include "config/problem.h"

namespace vesk::controller {

namespace {

bool isFragmentName(const std::string& name) {
    return !name.starts_with('.') && name.ends_with(".toml");
}

/// The fragments with their states; directories are left out.
std::map<std::string, FileState> listFragments(const std::filesystem::path& folder,
                                               std::error_code& error) {
    std::map<std::string, FileState> found;
    std::filesystem::directory_iterator entry(folder, error);
    while (!error && entry != std::filesystem::directory_iterator()) {
        const std::string name = entry->path().filename().string();
        if (isFragmentName(name)) {
            const FileState state = stateOf(entry->path());
            if (!state.directory) {
                found.emplace(name, state);
            }
        }
        entry.increment(error);
    }
    return found;
}

/// Whether any has changed. They are compared with their present state the next time.
bool foldersChanged(std::map<std::string, FileState>& folders) {
    bool changed = false;
    for (auto& [path, state] : folders) {
        const FileState present = stateOf(path);
        changed = changed || state != present;
        state = present;
    }
    return changed;
}

std::string unusable(const std::string& file, const std::string& consequence) {
    return maskKeyDigits(file) + " is not usable: " + consequence;
}

}  // namespace

FragmentFolder::FragmentFolder(std::filesystem::path folder, ReadingRules rules)
    : folder_(std::move(folder)), rules_(rules) {}

FolderReading FragmentFolder::read(FilesToRead files) {
    std::error_code error;
    const std::map<std::string, FileState> found = listFragments(folder_, error);
    if (error) {
        return refuse("cannot be read: " + error.message(), files);
    }
    const bool readable = std::exchange(problem_, "").empty();
    FolderReading reading;
    reading.changed = readFiles(found, files) || !readable || files == FilesToRead::all;
    if (reading.changed) {
        merge(reading);
    }
    return reading;
}

FolderReading FragmentFolder::refuse(const std::string& problem, FilesToRead files) {
    FolderReading reading;
    reading.changed = std::exchange(problem_, problem) != problem || files == FilesToRead::all;
    if (reading.changed) {
        reading.errors.push_back(
            {{describe({0, problem}, folder_.string())},
             unusable(folder_.string(), "the running configuration is unchanged")});
    }
    return reading;
}

bool FragmentFolder::keysChanged(Entry& entry, FilesToRead files) {
    if (files == FilesToRead::changedFolders && !foldersChanged(entry.keyFolders)) {
        return false;
    }
    return std::ranges::any_of(entry.read->keyFiles,
                               [](const KeyFile& it) { return stateOf(it.path) != it.state; });
}

/// False if no file was read and none has vanished.
bool FragmentFolder::readFiles(const std::map<std::string, FileState>& found, FilesToRead files) {
    bool changed =
        std::erase_if(entries_, [&](const auto& it) { return !found.contains(it.first); }) != 0;
    for (const auto& [name, state] : found) {
        Entry& entry = entries_[name];
        entry.readAgain = !entry.read || files == FilesToRead::all || entry.state != state ||
                          keysChanged(entry, files);
        if (entry.readAgain) {
            entry.file = (folder_ / name).string();
            entry.state = state;
            entry.read = std::make_shared<const Fragment>(readFragment(entry.file, rules_));
            entry.keyFolders = entry.read->keyFolders;
            changed = true;
        }
    }
    return changed;
}

/// The first fragment that has [downstream].
const FragmentFolder::Entry* FragmentFolder::settingsOwner() const {
    const auto owner = std::ranges::find_if(
        entries_, [](const auto& it) { return it.second.present().hasDownstream; });
    return owner == entries_.end() ? nullptr : &owner->second;
}

void FragmentFolder::merge(FolderReading& reading) {
    const Entry* const owner = settingsOwner();
    const bool readable = owner != nullptr && owner->present().settings;
    FragmentMerge merged(readable ? &owner->present() : nullptr, owner ? owner->file : problem_);
    reading.complete = true;
    for (auto& [name, entry] : entries_) {
        judge(entry, merged, reading);
        if (entry.applied) {
            merged.add(*entry.applied, entry.file);
        }
    }
    applySettings(owner, reading);
    if (settings_) {
        reading.configuration = settings_;
        reading.configuration->flows = merged.flows();
    }
}

/// Decides whether the fragment applies as it was read.
void FragmentFolder::judge(Entry& entry, FragmentMerge& merged, FolderReading& reading) {
    Problems problems = entry.read->problems;
    std::ranges::copy(merged.problemsWith(*entry.read, entry.file), std::back_inserter(problems));
    std::ranges::stable_sort(problems, {}, &Problem::line);
    std::vector<std::string> errors;
    for (const Problem& problem : problems) {
        errors.push_back(describe(problem, entry.file));
    }
    if (errors.empty()) {
        entry.applied = entry.read;
        if (!entry.errors.empty()) {
            reading.mended.push_back(entry.file);
        }
    } else {
        reading.complete = false;
        if (entry.readAgain || errors != entry.errors) {
            reading.errors.push_back({errors, unusable(entry.file, consequenceOf(entry, merged))});
        }
    }
    entry.errors = std::move(errors);
}

std::string FragmentFolder::consequenceOf(const Entry& entry, const FragmentMerge& merged) {
    if (!entry.applied) {
        return "its flows are not served";
    }
    return merged.areFree(*entry.applied)
               ? "its flows are unchanged"
               : "its flows are unchanged, except those that an earlier fragment replaces";
}

/// At the start the settings of a fragment apply even if its flows have an error.
void FragmentFolder::applySettings(const Entry* owner, FolderReading& reading) {
    if (owner != nullptr && owner->applied && owner->applied->settings) {
        settings_ = owner->applied->settings;
    } else if (owner != nullptr && !settings_) {
        settings_ = owner->read->settings;
    } else if (owner == nullptr) {
        reading.complete = false;
        reading.errors.push_back({{describe({0, "downstream is missing"}, folder_.string())},
                                  unusable(folder_.string(), "the settings are unchanged")});
    }
}

std::map<std::string, bool> FragmentFolder::fragments() const {
    std::map<std::string, bool> result;
    for (const auto& [name, entry] : entries_) {
        result.emplace(name, !entry.errors.empty());
    }
    return result;
}

}  // namespace vesk::controller
