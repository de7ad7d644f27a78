// The flows of the file that have a `next`: while their peers move from the old label to the next
// one, both are declared, and the old one is deleted once it is silent. What was deleted is
// remembered as long as the controller runs and the file has both labels. Called by
// service/supervisor, in its one thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "config/configuration.h"
#include "metrics/rotation_exposition.h"
#include "service/rotation_traffic.h"

namespace vesk::controller {

/// An old label, and the next one of the same flow.
struct RotatedFlow {
    std::string name;
    std::uint32_t label = 0;
    std::uint32_t next = 0;
    bool operator==(const RotatedFlow&) const = default;
};

/// An old label that has been silent for long enough.
struct SilentLabel {
    RotatedFlow flow;
    std::chrono::seconds silence{0};  ///< as long as the file demands
};

class Rotations {
 public:
    using Clock = std::chrono::steady_clock;

    struct News {
        std::vector<std::string> begun;        ///< names of flows that have a new `next`
        std::vector<std::string> stillInFile;  ///< whose deleted label the file still has
    };

    /// Takes the configuration of the file, and removes from it the labels that were deleted.
    News take(Configuration& configuration, Clock::time_point now,
              std::chrono::system_clock::time_point today);

    /// What is known about the forwarder of a report.
    struct Reporter {
        /// The instance whose datagrams it gets; none if it drains or does not get them yet.
        std::optional<std::size_t> instance;
        /// Whether datagrams have reached it since its last report. If not, nothing is silent.
        bool reachable = true;
    };

    /// Takes what a report showed. Returns the flows whose next label is in use for the first time.
    std::vector<RotatedFlow> observe(const TrafficByLabel& traffic, const Reporter& reporter,
                                     Clock::time_point now);

    /// The old labels that have to be deleted now. They count as deleted from now on.
    std::vector<SilentLabel> takeSilent();

    std::vector<RotationFigures> figures() const;

 private:
    struct Rotation {
        RotationFigures figures;
        std::chrono::seconds silence{0};  // 0: the old label is not deleted
        /// The last report of each instance that has the old label; the epoch before the first one.
        std::map<std::size_t, Clock::time_point> reports;
        Clock::time_point lastUse;  // of the old label; before that, when the rotation began
        std::optional<Clock::time_point> firstUseOfNext;

        RotatedFlow flow() const { return {figures.name, figures.label, figures.nextLabel}; }
        bool isSilent() const;
    };

    static void followFile(Rotation& rotation, const Flow& flow, const Configuration& file);

    std::map<std::pair<std::uint32_t, std::uint32_t>, Rotation> rotations_;  // by both labels
};

}  // namespace vesk::controller
