#include "config/flow_reader.h"

#include <optional>
#include <string>
#include <utility>

#include "config/key_mask.h"
#include "config/next_reader.h"

namespace vesk::controller {

namespace {

Flow readFlow(TableReader& table, std::string name, KeySources& keys) {
    Flow flow;
    flow.name = std::move(name);
    table.require("label");
    table.require("upstream");
    flow.label = readLabel(table, "label").value_or(0);
    flow.upstream = readHostPort(table, "upstream").value_or(HostPort{});
    flow.source = readHostPort(table, "source");
    flow.peer = readHostPort(table, "peer");
    flow.multiplex = table.boolean("multiplex").value_or(false);
    flow.fromPeer = readLeg(table, "from_peer", Direction::arriving, keys);
    flow.toUpstream = readLeg(table, "to_upstream", Direction::leaving, keys);
    flow.fromUpstream = readLeg(table, "from_upstream", Direction::arriving, keys);
    flow.toPeer = readLeg(table, "to_peer", Direction::leaving, keys);
    flow.auxiliary = readAuxiliary(table);
    checkSource(table, flow);
    return flow;
}

/// Names appear in log lines and metrics.
bool isPlainName(std::string_view name) {
    for (const char c : name) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            return false;
        }
    }
    return !name.empty();
}

/// The numbers of one kind that are in use, and how to report one that is used twice.
struct Owners {
    std::string_view key;
    std::string_view fault;                       ///< followed by the place of the first user
    std::map<std::uint32_t, std::string> places;  ///< of the first users, by number
};

/// Enters the number of the flow at `place`; 0 means a number that could not be read.
void claim(Owners& owners, std::uint32_t number, const std::string& place, TableReader& table) {
    if (number == 0) {
        return;
    }
    const auto [owner, added] = owners.places.emplace(number, place);
    if (!added) {
        table.complain(owners.key, std::string(owners.fault) + owner->second);
    }
}

/// The flows that have been read, and the numbers that they use.
class FlowsRead {
 public:
    /// Reads a flow, and its `next` if it has one.
    void add(TableReader& table, std::string name, KeySources& keys) {
        Flow flow = readFlow(table, std::move(name), keys);
        std::optional<TableReader> nextTable = table.table("next");
        table.refuseUnknown();
        std::optional<Flow> next;
        if (nextTable) {
            next = readNext(*nextTable, flow, keys);
        }
        enter(std::move(flow), table);
        if (next) {
            enter(std::move(*next), *nextTable);
        }
    }

    std::map<std::uint32_t, Flow> take() { return std::move(flows_); }

 private:
    void enter(Flow flow, TableReader& table) {
        claim(labels_, flow.label, table.place(), table);
        if (flow.auxiliary) {
            claim(prefixes_, flow.auxiliary->prefix, table.place(), table);
        }
        flows_.try_emplace(flow.label, std::move(flow));
    }

    std::map<std::uint32_t, Flow> flows_;
    Owners labels_{"label", "is already used by ", {}};
    Owners prefixes_{"auxiliary", "has the same prefix as ", {}};
};

}  // namespace

std::map<std::uint32_t, Flow> readFlows(TableReader& flows, KeySources& keys) {
    FlowsRead result;
    for (const auto& [key, node] : flows.raw()) {
        std::optional<TableReader> table = flows.table(key.str());
        if (!isPlainName(key.str())) {
            flows.complain(key.str(), "is not a valid name: it is empty or has control characters");
        }
        if (table) {
            result.add(*table, maskKeyDigits(key.str()), keys);
        }
    }
    return result.take();
}

void refuseReadableKey(const KeySources& keys, bool readableByOthers, Problems& problems) {
    if (keys.firstInlineKey && readableByOthers && !keys.allowReadable) {
        problems.push_back({*keys.firstInlineKey,
                            "the file contains a key and is readable by others: run chmod go-r on "
                            "it, or use --allow-readable-keys"});
    }
}

}  // namespace vesk::controller
