// Adds the figures of several children up: of those that follow each other in one instance, and of
// all instances. Called by MetricsServer under its lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "metrics/child_state.h"
#include "metrics/report_totals.h"

namespace vesk::controller {

/// Identifies a child whose figures are kept.
using ChildId = std::uint32_t;

struct InstanceFigures {
    Totals totals;
    ChildState state;
};

/// Of all instances: the counters are sums, and a state holds if it holds for each instance.
InstanceFigures sumOf(const std::vector<InstanceFigures>& instances);

/// The children of all instances. An instance has one current child; while that one is replaced it
/// has a second child, whose counts are counted too. The counts of a child that was removed stay
/// with its instance.
class Children {
 public:
    /// Child 0 is the current one of instance 0 from the beginning.
    explicit Children(bool perFlow);

    ChildId add(std::size_t instance);
    /// Its instance's state is that of this child from now on.
    void makeCurrent(ChildId child);
    void remove(ChildId child);

    ReportTotals& totals(ChildId child) { return children_.at(child).totals; }
    ChildState& state(ChildId child) { return children_.at(child).state; }

    /// The only child that there has ever been, or null.
    const ReportTotals* onlyTotals() const;

    /// By instance.
    std::vector<InstanceFigures> instances() const;
    /// Those of the current children, by instance.
    std::vector<ChildState> states() const;

 private:
    struct Child {
        std::size_t instance;
        ReportTotals totals;
        ChildState state;
    };
    /// What one instance has besides its children.
    struct Slot {
        ChildId current = 0;
        InstanceFigures past;  ///< the counts of children that were removed
    };

    InstanceFigures figuresOf(std::size_t instance) const;

    bool perFlow_;
    ChildId next_ = 0;
    std::map<ChildId, Child> children_;
    std::map<std::size_t, Slot> slots_;
};

}  // namespace vesk::controller
