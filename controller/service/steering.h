// The steering of the public port to the instances: holds the port and keeps the rules of the
// packet filter. Called by service/supervisor, on the main thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config/configuration.h"
#include "steering/public_port.h"
#include "steering/steering_counters.h"

namespace vesk::controller {

class Steering {
 public:
    Steering() = default;
    /// Removes the rules.
    ~Steering() { end(); }

    Steering(const Steering&) = delete;
    Steering& operator=(const Steering&) = delete;

    /// Takes the public port and creates the rules, in place of any that a crash has left behind.
    /// `ports` are those of the instances. Empty; or why that failed, and nothing is steered.
    std::string begin(const Configuration& configuration, const std::vector<std::uint16_t>& ports);

    /// Sends the datagrams to other ports from now on. Empty; or why that failed, with nothing
    /// changed.
    std::string move(const std::vector<std::uint16_t>& ports) const;

    /// Whether the rules were created.
    bool active() const { return active_; }

    /// The counters of the rules; none if the rules are gone.
    std::optional<SteeringCounters> counters() const;

    /// Removes the rules and releases the port.
    void end();

 private:
    PublicPort port_;
    std::uint16_t number_ = 0;  // of the port
    bool active_ = false;
};

}  // namespace vesk::controller
