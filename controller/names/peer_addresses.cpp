#include "names/peer_addresses.h"

#include <algorithm>
#include <utility>

#include "config/numeric_address.h"

namespace vesk::controller {

namespace {

/// The family of the addresses that the stream's own socket can send to.
bool listensOnIpv6(const Lateral& lateral) {
    return isIPv6(lateral.addresses.empty() ? lateral.listen.host : lateral.addresses.front());
}

std::string describePeer(std::uint32_t index, const std::string& name) {
    return "lateral peer " + std::to_string(index) + ", " + name + ", ";
}

}  // namespace

bool PeerAddresses::take(const std::optional<Lateral>& wanted,
                         const std::optional<Lateral>& running, Clock::time_point now) {
    const std::map<std::uint32_t, std::string> none;
    const std::map<std::uint32_t, std::string>& names = wanted ? wanted->peerNames : none;
    const bool ipv6 = wanted && listensOnIpv6(*wanted);
    pause_ = wanted ? wanted->resolve : pause_;
    const bool same =
        ipv6 == ipv6_ && std::ranges::equal(names, peers_, [](const auto& one, const auto& other) {
            return one.first == other.first && one.second == other.second.name;
        });
    if (same) {
        return false;
    }
    peers_.clear();
    ipv6_ = ipv6;
    for (const auto& [index, name] : names) {
        Peer& peer = peers_[index];
        peer.name = name;
        if (running && running->peers.contains(index) && isIPv6(running->peers.at(index)) == ipv6) {
            peer.address = running->peers.at(index);
        }
    }
    outstanding_ = 0;
    suspected_ = false;
    askAt_ = peers_.empty() ? std::nullopt : std::optional(now);
    return true;
}

void PeerAddresses::putInto(std::optional<Lateral>& lateral) const {
    if (!lateral) {
        return;
    }
    for (const auto& [index, peer] : peers_) {
        if (!peer.address.empty()) {
            lateral->peers[index] = peer.address;
        }
    }
}

std::optional<PeerAddresses::Clock::time_point> PeerAddresses::dueAt() const {
    return askAt_;
}

std::vector<NameQuestion> PeerAddresses::questions(Clock::time_point now) {
    std::vector<NameQuestion> questions;
    if (!askAt_ || now < *askAt_) {
        return questions;
    }
    askAt_.reset();
    suspected_ = false;
    outstanding_ = peers_.size();
    for (auto& [index, peer] : peers_) {
        peer.answered = false;
        questions.push_back({index, peer.name, ipv6_});
    }
    return questions;
}

std::optional<PeerNews> PeerAddresses::note(const NameAnswer& answer, Clock::time_point now) {
    const auto found = peers_.find(answer.index);
    if (found == peers_.end() || outstanding_ == 0 || std::exchange(found->second.answered, true)) {
        return std::nullopt;
    }
    if (--outstanding_ == 0) {
        askAt_ = suspected_ ? now : now + pause_;
    }
    Peer& peer = found->second;
    const std::optional<bool> before = std::exchange(peer.resolved, !answer.addresses.empty());
    if (answer.addresses.empty()) {
        return before == false ? std::nullopt
                               : std::optional(fail(answer.index, peer, answer.problem));
    }
    // A name with several addresses keeps the one that is in use, in whatever order they come.
    const bool kept = std::ranges::find(answer.addresses, peer.address) != answer.addresses.end();
    if (kept && before == true) {
        return std::nullopt;
    }
    return resolve(answer.index, peer, kept ? peer.address : answer.addresses.front());
}

PeerNews PeerAddresses::resolve(std::uint32_t index, Peer& peer, std::string address) const {
    const std::string previous = std::exchange(peer.address, std::move(address));
    const bool moved = !previous.empty() && previous != peer.address;
    return {false, describePeer(index, peer.name) + "has the address " + peer.address +
                       (moved ? ", before " + previous : "")};
}

PeerNews PeerAddresses::fail(std::uint32_t index, Peer& peer, const std::string& problem) const {
    return {true, describePeer(index, peer.name) + "cannot be resolved: " + problem +
                      (peer.address.empty() ? "; it has no address yet"
                                            : "; it keeps the address " + peer.address)};
}

void PeerAddresses::suspect(Clock::time_point now) {
    if (outstanding_ > 0) {
        suspected_ = true;
    } else if (askAt_) {
        askAt_ = std::min(*askAt_, now);
    }
}

std::map<std::uint32_t, bool> PeerAddresses::resolved() const {
    std::map<std::uint32_t, bool> resolved;
    for (const auto& [index, peer] : peers_) {
        resolved.emplace(index, peer.resolved.value_or(false));
    }
    return resolved;
}

}  // namespace vesk::controller
