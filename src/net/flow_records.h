// The records of all labels, and the prefixes that auxiliary flows are made from. Without a lock of
// its own: part of the endpoint registry, which the endpoint manager's lock guards.
#pragma once

#include <cstdint>
#include <map>
#include <memory_resource>
#include <unordered_set>
#include <vector>

#include "base/locked_pool.h"
#include "base/undumped_pages.h"
#include "flow/flow_desc.h"

namespace vesk {

/// Who owns a prefix of auxiliary labels, and which labels were made from it.
struct AuxPrefixEntry {
    /// The flow that registered the prefix and whose record is the template.
    std::uint32_t baseLabel = 0;
    std::unordered_set<std::uint32_t> auxLabels;
    /// Those of them whose record has outlived an endpoint, and is not undone with a later one.
    std::unordered_set<std::uint32_t> lastingLabels;
};

class FlowRecords {
    using Map = std::pmr::map<std::uint32_t, FlowDesc>;

 public:
    /// Records taken out. Destroying thousands of them, with their keys, takes milliseconds.
    using Taken = std::vector<Map::node_type>;

    FlowRecords() = default;
    FlowRecords(const FlowRecords&) = delete;
    FlowRecords& operator=(const FlowRecords&) = delete;

    /// Null when absent.
    const FlowDesc* find(std::uint32_t label) const;
    /// Makes the record of an auxiliary flow from its owner's. Null for a label that is neither
    /// declared nor covered by a prefix.
    const FlowDesc* findOrMake(std::uint32_t label);
    /// Whether the label is declared or covered by a prefix.
    bool knows(std::uint32_t label) const;
    bool isAux(std::uint32_t label) const;

    /// Files the record, in the place of an older one, and registers its prefix. A prefix that has
    /// an owner keeps it, which is logged.
    void put(FlowDesc flow);

    /// Notes that the record of an auxiliary flow stays although its endpoint goes; does nothing
    /// for other labels.
    void keepAux(std::uint32_t label);
    /// Whether that was noted.
    bool isKept(std::uint32_t label) const;

    /// Takes out the record of an auxiliary flow; does nothing for other labels.
    void takeAux(std::uint32_t label, Taken& taken);
    /// Takes out the label's record and, with an owner's, its prefix and the records of its
    /// auxiliary flows. Returns the prefix, without labels where there is none.
    AuxPrefixEntry take(std::uint32_t label, Taken& taken);

 private:
    void registerPrefix(const FlowDesc& flow);
    AuxPrefixEntry takePrefix(const FlowDesc& owner);
    void forgetAuxLabel(std::uint32_t label);

    /// Where the records are, since they hold keys. What is taken out is used again.
    UndumpedPages pages_;
    /// With a lock of its own: records that were taken out are destroyed without the manager's.
    LockedPool pool_{&pages_};
    Map records_{&pool_};
    std::map<std::uint16_t, AuxPrefixEntry> prefixes_;
};

}  // namespace vesk
