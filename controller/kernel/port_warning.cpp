#include "kernel/port_warning.h"

namespace vesk::controller {

std::optional<std::string> PortWarning::check(const Room& ports) {
    const std::uint64_t all = ports.used + ports.left;
    if (ports.left * 5 >= all) {
        warned_ = false;
    }
    if (warned_ || ports.left * 10 > all) {
        return std::nullopt;
    }
    warned_ = true;
    return "ephemeral ports are running out: " + std::to_string(ports.left) + " of " +
           std::to_string(all) +
           " are left; a flow that opens its socket when none is left drops its datagrams; "
           "widen net.ipv4.ip_local_port_range, or list the users with ss -uanp";
}

}  // namespace vesk::controller
