// The records of all labels, and the prefixes from which auxiliary flows are made. Part of the
// endpoint registry; guarded by the endpoint manager's lock.
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

/// The owner of a prefix of auxiliary labels, and the labels made from the prefix.
struct AuxPrefixEntry {
    /// The owner: it registered the prefix, and its record is the template.
    std::uint32_t baseLabel = 0;
    std::unordered_set<std::uint32_t> auxLabels;
    /// Those of `auxLabels` whose record outlived an endpoint. Such a record is not removed if the
    /// creation of a later endpoint is undone.
    std::unordered_set<std::uint32_t> lastingLabels;
};

class FlowRecords {
    using Map = std::pmr::map<std::uint32_t, FlowDesc>;

 public:
    /// Records taken out. The destruction of thousands of them, with their keys, takes
    /// milliseconds.
    using Taken = std::vector<Map::node_type>;

    FlowRecords() = default;
    FlowRecords(const FlowRecords&) = delete;
    FlowRecords& operator=(const FlowRecords&) = delete;

    /// Null when absent.
    const FlowDesc* find(std::uint32_t label) const;
    /// The record of the label; that of an auxiliary flow is made from its owner's if it does not
    /// exist. Null for a label that is neither declared nor covered by a prefix.
    const FlowDesc* findOrMake(std::uint32_t label);
    /// Whether the label is declared or covered by a prefix.
    bool knows(std::uint32_t label) const;
    bool isAux(std::uint32_t label) const;

    /// Stores the record in place of an older one, and registers its prefix. A prefix that has an
    /// owner keeps it, which is logged.
    void put(FlowDesc flow);

    /// Marks the record of an auxiliary flow as kept although its endpoint is removed. Does nothing
    /// for other labels.
    void keepAux(std::uint32_t label);
    /// Whether `keepAux` marked the record.
    bool isKept(std::uint32_t label) const;

    /// Takes out the record of an auxiliary flow. Does nothing for other labels.
    void takeAux(std::uint32_t label, Taken& taken);
    /// Takes out the label's record. If it owns a prefix, takes out the prefix and the records of
    /// its auxiliary flows too. Returns the prefix; without labels if there is none.
    AuxPrefixEntry take(std::uint32_t label, Taken& taken);

 private:
    void registerPrefix(const FlowDesc& flow);
    AuxPrefixEntry takePrefix(const FlowDesc& owner);
    void forgetAuxLabel(std::uint32_t label);

    /// The memory of the records, which is left out of core files since it contains keys.
    UndumpedPages pages_;
    /// Has its own lock, since records taken out are destroyed without the manager's lock. Reuses
    /// their memory.
    LockedPool pool_{&pages_};
    Map records_{&pool_};
    std::map<std::uint16_t, AuxPrefixEntry> prefixes_;
};

}  // namespace vesk
