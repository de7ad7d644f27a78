#include "metrics/instance_figures.h"

#include <algorithm>

namespace vesk::controller {

namespace {

void add(DatagramCounters& sum, const DatagramCounters& more) {
    for (const auto field : datagramFields) {
        sum.*field += more.*field;
    }
}

void add(SocketFigures& sum, const SocketFigures& more) {
    sum.sockets += more.sockets;
    sum.receiveQueue += more.receiveQueue;
    sum.sendQueue += more.sendQueue;
}

void addFlow(FlowTotals& sum, const FlowTotals& more) {
    add(sum.counters, more.counters);
    add(sum.socket, more.socket);
    sum.kernelDrops += more.kernelDrops;
    if (sum.name.empty()) {
        sum.name = more.name;
    }
}

void addWorkers(std::vector<WorkerTotals>& sum, const std::vector<WorkerTotals>& more) {
    sum.resize(std::max(sum.size(), more.size()));
    for (std::size_t i = 0; i < more.size(); ++i) {
        sum[i].wakeUps += more[i].wakeUps;
        sum[i].queuedSockets += more[i].queuedSockets;
        sum[i].received += more[i].received;
    }
}

/// Everything but the flows and the present values.
void addCounters(Totals& sum, const Totals& more) {
    add(sum.downstream, more.downstream);
    add(sum.lateral, more.lateral);
    add(sum.upstream, more.upstream);
    sum.readEvents += more.readEvents;
    sum.writeEvents += more.writeEvents;
    sum.errorEvents += more.errorEvents;
    addWorkers(sum.workers, more.workers);
}

/// `runs`: whether the values of the last report are present ones.
void addChild(Totals& sum, const Totals& more, bool runs) {
    addCounters(sum, more);
    for (const auto& [label, flow] : more.flows) {
        addFlow(sum.flows[label], flow);
    }
    if (runs) {
        sum.armedSockets += more.armedSockets;
        sum.flowSockets += more.flowSockets;
    }
}

/// Of its flows only those that are still there, so that memory is bounded.
void addPast(Totals& sum, const Totals& past) {
    addCounters(sum, past);
    for (auto& [label, flow] : sum.flows) {
        const auto before = past.flows.find(label);
        if (before != past.flows.end()) {
            add(flow.counters, before->second.counters);
            flow.kernelDrops += before->second.kernelDrops;
        }
    }
}

void addCounts(ChildState& sum, const ChildState& more) {
    sum.restarts += more.restarts;
    for (std::size_t i = 0; i < sum.events.size(); ++i) {
        sum.events.at(i) += more.events.at(i);
    }
    for (std::size_t i = 0; i < sum.kernel.drops.size(); ++i) {
        sum.kernel.drops.at(i) += more.kernel.drops.at(i);
    }
}

void addSockets(KernelFigures& sum, const KernelFigures& more) {
    if (!more.sockets) {
        return;
    }
    if (!sum.sockets) {
        sum.sockets.emplace();
    }
    for (std::size_t side = 0; side < sides; ++side) {
        add(sum.sockets->at(side), more.sockets->at(side));
    }
}

/// Each instance has a limit of its own, and the one with the least room is shown. The figures of
/// the host are the same for all.
void addPresent(KernelFigures& sum, const KernelFigures& more) {
    addSockets(sum, more);
    if (sum.descriptors && more.descriptors) {
        sum.descriptors->used += more.descriptors->used;
        sum.descriptors->left = std::min(sum.descriptors->left, more.descriptors->left);
    }
    const auto takeIfNone = [&](auto KernelFigures::*figure) {
        if (!(sum.*figure)) {
            sum.*figure = more.*figure;
        }
    };
    takeIfNone(&KernelFigures::descriptors);
    takeIfNone(&KernelFigures::flows);
    takeIfNone(&KernelFigures::ports);
    takeIfNone(&KernelFigures::conntrack);
    takeIfNone(&KernelFigures::ipv4);
    takeIfNone(&KernelFigures::ipv6);
}

void addInstance(ChildState& sum, const ChildState& more) {
    addCounts(sum, more);
    sum.childUp = sum.childUp && more.childUp;
    sum.partlyUp = sum.partlyUp || more.childUp;
    sum.stage = std::max(sum.stage, more.stage);
    sum.flowsDeclared += more.flowsDeclared;
    sum.flowsActive += more.childUp ? more.flowsActive : 0;
    sum.listening = sum.listening && more.listening;
    if (more.lateralListening) {
        sum.lateralListening = sum.lateralListening.value_or(true) && *more.lateralListening;
    }
    // The oldest report shows that an instance does not answer.
    if (more.lastReport) {
        sum.lastReport = std::min(sum.lastReport.value_or(*more.lastReport), *more.lastReport);
    }
    addPresent(sum.kernel, more.kernel);
}

/// A flow that two instances have counts once, and as active if both have accepted it.
void countSharedFlowsOnce(ChildState& sum, const std::vector<InstanceFigures>& instances) {
    std::map<std::uint32_t, bool> active;
    for (const InstanceFigures& instance : instances) {
        for (const auto& [label, accepted] : instance.state.sharedFlows) {
            const bool activeHere = accepted && instance.state.childUp;
            sum.flowsActive -= activeHere ? 1 : 0;
            const auto [flow, isFirst] = active.emplace(label, activeHere);
            sum.flowsDeclared -= isFirst ? 0 : 1;
            flow->second = flow->second && activeHere;
        }
    }
    for (const auto& [label, isActive] : active) {
        sum.flowsActive += isActive ? 1 : 0;
    }
}

}  // namespace

InstanceFigures sumOf(const std::vector<InstanceFigures>& instances) {
    InstanceFigures sum;
    sum.state.childUp = true;
    sum.state.listening = true;
    sum.state.stage = Stage::settled;
    for (const InstanceFigures& instance : instances) {
        addChild(sum.totals, instance.totals, true);
        addInstance(sum.state, instance.state);
    }
    countSharedFlowsOnce(sum.state, instances);
    return sum;
}

Children::Children(bool perFlow) : perFlow_(perFlow) {
    makeCurrent(add(0));
}

ChildId Children::add(std::size_t instance) {
    children_.emplace(next_, Child{instance, ReportTotals(perFlow_), {}});
    return next_++;
}

void Children::makeCurrent(ChildId child) {
    slots_[children_.at(child).instance].current = child;
}

void Children::remove(ChildId child) {
    const Child& removed = children_.at(child);
    InstanceFigures& past = slots_[removed.instance].past;
    addChild(past.totals, removed.totals.totals(), false);
    addCounts(past.state, removed.state);
    const auto& present = children_.at(slots_[removed.instance].current).totals.totals().flows;
    const auto& latest = removed.totals.totals().flows;
    std::erase_if(past.totals.flows, [&](const auto& flow) {
        const bool declared = latest.contains(flow.first) && !flow.second.name.empty();
        return !declared && !present.contains(flow.first);
    });
    children_.erase(child);
}

const ReportTotals* Children::onlyTotals() const {
    return next_ == 1 ? &children_.at(0).totals : nullptr;
}

std::vector<ChildState> Children::states() const {
    std::vector<ChildState> all;
    all.reserve(slots_.size());
    for (const auto& [instance, slot] : slots_) {
        all.push_back(children_.at(slot.current).state);
    }
    return all;
}

InstanceFigures Children::figuresOf(std::size_t instance) const {
    const Slot& slot = slots_.at(instance);
    InstanceFigures figures{{}, children_.at(slot.current).state};
    for (const auto& [id, child] : children_) {
        if (child.instance == instance) {
            addChild(figures.totals, child.totals.totals(), child.state.childUp);
            if (id != slot.current) {
                addCounts(figures.state, child.state);
            }
        }
    }
    addPast(figures.totals, slot.past.totals);
    addCounts(figures.state, slot.past.state);
    return figures;
}

std::vector<InstanceFigures> Children::instances() const {
    std::vector<InstanceFigures> all;
    all.reserve(slots_.size());
    for (const auto& [instance, slot] : slots_) {
        all.push_back(figuresOf(instance));
    }
    return all;
}

}  // namespace vesk::controller
