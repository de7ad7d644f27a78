// Watches a folder of fragments and applies its changes. The loop is in supervisor.cpp, the rest of
// a reload in supervisor_reload.cpp.
#include <string>
#include <utility>

#include "config/key_mask.h"
#include "service/supervisor.h"

namespace vesk::controller {

void Supervisor::watchFragments(FragmentFolder fragments) {
    fragments_.emplace(std::move(fragments));
    folderWatch_.emplace(fragments_->path());
    if (!folderWatch_->problem().empty()) {
        log_.say(LogLevel::warn, "changes in " + maskKeyDigits(fragments_->path().string()) +
                                     " are found within " +
                                     std::to_string(ChangeTimer::period.count()) +
                                     " s, not at once: " + folderWatch_->problem());
    }
}

void Supervisor::lookForChanges() {
    const bool thorough = folderWatch_->look();
    if (!running()) {
        return;
    }
    if (replacement_) {
        reloadWaits_ = true;
        return;
    }
    FolderReading reading =
        fragments_->read(thorough ? FilesToRead::changed : FilesToRead::changedFolders);
    if (reading.changed) {
        tellReloading();
        applyFragments(std::move(reading));
    }
}

/// What has no error applies, even if something else has.
void Supervisor::applyFragments(FolderReading reading) {
    countReload();
    publishFragments();
    for (const FragmentErrors& errors : reading.errors) {
        for (const std::string& line : errors.lines) {
            log_.say(LogLevel::error, line);
        }
        log_.say(LogLevel::error, errors.consequence);
    }
    for (const std::string& file : reading.mended) {
        log_.say(LogLevel::info, maskKeyDigits(file) + " is usable again");
    }
    if (reading.configuration) {
        applyReload(std::move(*reading.configuration),
                    reading.complete ? ReloadOutcome::done : ReloadOutcome::fileRefused);
    } else {
        refuseReload();
    }
}

void Supervisor::publishFragments() {
    if (metrics_ && fragments_) {
        metrics_->setFragmentErrors(fragments_->fragments());
    }
}

}  // namespace vesk::controller
