// Keeps a running forwarder's descriptors with the service manager, so that the forwarder goes on
// when the controller is killed, and the next controller can take it over. Made by service/instance
// and service/adoption, on the main thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include "child/forwarder_session.h"
#include "service/service_notification.h"

namespace vesk::controller {

/// Which of the three descriptors of a forwarder.
enum class KeptPart { input, output, process };
inline constexpr std::array keptParts{KeptPart::process, KeptPart::output, KeptPart::input};

/// The instance that the forwarder belongs to, and the port on which it listens. No two forwarders
/// that run at the same time have the same.
struct KeptPlace {
    std::size_t number = 0;
    std::uint16_t port = 0;
    bool operator==(const KeptPlace&) const = default;
    bool operator<(const KeptPlace& other) const {
        return std::tie(number, port) < std::tie(other.number, other.port);
    }
};

struct KeptName {
    KeptPlace place;
    KeptPart part = KeptPart::input;
    bool operator==(const KeptName&) const = default;
};

/// "forwarder-0-4501-input".
std::string textOf(const KeptName& name);
/// None if the text is not exactly a name.
std::optional<KeptName> keptNameIn(std::string_view text);

/// Removes the descriptors of the forwarder from the store when it is destroyed. Without a service
/// manager nothing happens.
class KeptForwarder {
 public:
    /// Of a forwarder whose descriptors are in the store. `notification` must outlive it.
    KeptForwarder(const ServiceNotification& notification, KeptPlace place)
        : notification_(notification), place_(place) {}
    /// Puts the descriptors of the forwarder into the store.
    KeptForwarder(const ServiceNotification& notification, KeptPlace place,
                  const ForwarderSession& forwarder);
    ~KeptForwarder();

    KeptForwarder(const KeptForwarder&) = delete;
    KeptForwarder& operator=(const KeptForwarder&) = delete;

    /// The forwarder ends when its input is closed, which it is not while the store has it.
    void removeInput() const { remove(KeptPart::input); }

 private:
    void store(KeptPart part, int descriptor) const;
    void remove(KeptPart part) const;

    const ServiceNotification& notification_;
    const KeptPlace place_;
};

}  // namespace vesk::controller
