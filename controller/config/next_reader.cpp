#include "config/next_reader.h"

#include <chrono>
#include <optional>
#include <string_view>

namespace vesk::controller {

namespace {

/// Whether the leg's key can be inherited: not if the peers have it, since it would be valid for
/// the new label too.
enum class KeyHolder { peer, upstream };

bool givesKey(const TableReader& table, std::string_view leg) {
    const auto signature = table.raw()[leg];
    return static_cast<bool>(signature["key"]) || static_cast<bool>(signature["key_file"]);
}

/// Completes a leg of `next` by that of the flow.
void inherit(TableReader& table, std::string_view key, KeyHolder holder, const Leg& from,
             Leg& leg) {
    leg.label = leg.label ? leg.label : from.label;
    leg.dscp = leg.dscp ? leg.dscp : from.dscp;
    if (!from.signature || givesKey(table, key)) {
        return;
    }
    if (holder == KeyHolder::peer) {
        table.complain(key, "has no key, but the flow has one, which is not inherited");
        return;
    }
    leg.signature = from.signature;
    leg.inheritedKey = true;
}

void readLegs(TableReader& table, const Flow& flow, Flow& next, KeySources& keys) {
    next.fromPeer = readLeg(table, "from_peer", Direction::arriving, keys);
    next.toUpstream = readLeg(table, "to_upstream", Direction::leaving, keys);
    next.fromUpstream = readLeg(table, "from_upstream", Direction::arriving, keys);
    next.toPeer = readLeg(table, "to_peer", Direction::leaving, keys);
    if (flow.multiplex &&
        (!next.toUpstream.label || next.toUpstream.label == flow.toUpstream.label)) {
        table.complain("to_upstream",
                       "needs a label that differs from that of the flow: with multiplex the label "
                       "of a reply selects its flow");
    }
    inherit(table, "from_peer", KeyHolder::peer, flow.fromPeer, next.fromPeer);
    inherit(table, "to_upstream", KeyHolder::upstream, flow.toUpstream, next.toUpstream);
    inherit(table, "from_upstream", KeyHolder::upstream, flow.fromUpstream, next.fromUpstream);
    inherit(table, "to_peer", KeyHolder::peer, flow.toPeer, next.toPeer);
}

/// Only multiplexed flows can be bound to one address.
void readSource(TableReader& table, const Flow& flow, Flow& next) {
    const bool given = table.has("source");
    const std::optional<HostPort> source = readHostPort(table, "source");
    if (given) {
        next.source = source;
    }
    if (flow.source && !flow.multiplex && (!given || source == flow.source)) {
        table.complain("source",
                       "is needed and must differ from that of the flow: only with multiplex two "
                       "labels can share it");
    }
}

void readPrefix(TableReader& table, const Flow& flow, Flow& next) {
    next.auxiliary = readAuxiliary(table);
    if (flow.auxiliary && !table.has("auxiliary")) {
        table.complain("auxiliary",
                       "is missing: a prefix belongs to one label, so that of the "
                       "flow is not inherited");
    }
    if (flow.auxiliary && next.auxiliary && !next.auxiliary->upstream) {
        next.auxiliary->upstream = flow.auxiliary->upstream;
    }
}

}  // namespace

Flow readNext(TableReader& table, Flow& flow, KeySources& keys) {
    Flow next = flow;
    next.isNext = true;
    table.require("label");
    next.label = readLabel(table, "label").value_or(0);
    readLegs(table, flow, next, keys);
    readSource(table, flow, next);
    readPrefix(table, flow, next);
    checkSource(table, next);
    flow.next = NextLabel{next.label, std::nullopt};
    if (const auto seconds = table.integer("rotate_seconds", 0, longestRotation)) {
        flow.next->rotate = std::chrono::seconds(*seconds);
    }
    table.refuseUnknown();
    return next;
}

}  // namespace vesk::controller
