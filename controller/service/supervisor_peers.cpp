// The lateral peers that the file gives by name: passes their addresses on to the instances. The
// loop is in supervisor.cpp.
#include <cstddef>
#include <vector>

#include "config/instance_configurations.h"
#include "service/supervisor.h"

namespace vesk::controller {

void Supervisor::handlePeers(std::span<const pollfd> watched) {
    for (const auto& instance : instances_) {
        if (instance->takeSuspicion()) {
            peers_.suspect();
        }
    }
    const std::vector<PeerNews> allNews = peers_.handle(watched);
    for (const PeerNews& news : allNews) {
        log_.say(news.failed ? LogLevel::warn : LogLevel::info, news.text);
    }
    if (!allNews.empty()) {
        publishPeers();
        followPeers();
    }
}

void Supervisor::publishPeers() {
    if (metrics_) {
        metrics_->setPeers(peers_.addresses().resolved());
    }
}

/// A new forwarder that waits for the address of the old one gets all addresses when it starts its
/// stream, and one that drains needs none.
void Supervisor::followPeers() {
    peers_.addresses().putInto(wanted_.lateral);
    if (draining_) {
        return;
    }
    const std::vector<Configuration> parts = instanceConfigurations(wanted_, ports_);
    for (std::size_t number = 0; number < instances_.size(); ++number) {
        if (!replacement_ || !replacement_->outgoing || replacement_->next != number) {
            instances_[number]->follow(parts[number].lateral);
        }
    }
}

}  // namespace vesk::controller
