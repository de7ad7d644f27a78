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
#include "steering/steering_map.h"
#include "steering/steering_rules.h"

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

    /// The same where a crash has left these rules behind with these ports. They stay, so that no
    /// datagram is lost, except that labels no longer stay with another port.
    std::string goOn(const Configuration& configuration, const std::vector<std::uint16_t>& ports);

    /// Where the rules that a crash has left behind send the datagrams. Empty if there are none, or
    /// other ones than begin() would create.
    static SteeringMap left(const Configuration& configuration);

    /// Removes rules for this port that a crash has left behind; the rules of a controller that
    /// runs stay. None if there are none, or none that this process may see; otherwise empty, or
    /// why they could not be removed.
    static std::optional<std::string> removeLeft(std::uint16_t publicPort);

    /// Sends the datagrams to other ports from now on, but those of `staying` to this port until
    /// they follow. Empty; or why that failed, with nothing changed.
    std::string move(const std::vector<std::uint16_t>& ports, std::uint16_t formerPort,
                     const std::vector<std::uint32_t>& staying) const;

    /// Sends the datagrams of a label that stayed to the port of its instance, too. Empty; or why
    /// that failed.
    std::string follow(std::uint32_t label) const;

    /// Sends the datagrams of all labels that stayed to the port of their instance. Empty; or why
    /// that failed.
    std::string followAll() const;

    /// Whether the rules were created.
    bool active() const { return active_; }

    /// The counters of the rules; none if the rules are gone.
    std::optional<SteeringCounters> counters() const;

    /// Removes the rules and releases the port.
    void end();

 private:
    static std::string change(std::uint16_t publicPort, const std::string& commands);
    std::string takePort(const HostPort& address);

    PublicPort port_;
    SteeringPlan plan_;  // its ports are those of the start
    bool active_ = false;
};

}  // namespace vesk::controller
