#include "service/listener_remedy.h"

#include <array>
#include <cerrno>
#include <system_error>

namespace vesk::controller {

namespace {

struct Remedy {
    int error;
    std::string_view text;
};

constexpr std::array<Remedy, 5> remedies{{
    {EADDRINUSE,
     "the port is in use; stop the process that \"ss -lunp\" shows, or change the file"},
    {EADDRNOTAVAIL,
     "this host does not have the address; add it, or use one that \"ip address\" lists"},
    {EACCES, "a port below 1024 requires CAP_NET_BIND_SERVICE; grant it, or change the file"},
    {EAFNOSUPPORT, "the kernel does not support IPv6; enable it, or change the file"},
    {EMFILE, noDescriptorsLeft},
}};

std::string valueOf(const Command& command, std::string_view attribute) {
    for (const auto& [name, value] : command.attributes) {
        if (name == attribute) {
            return value;
        }
    }
    return "";
}

}  // namespace

std::string cannotListen(const Command& start, std::string_view reason) {
    std::string where =
        "cannot listen on " + valueOf(start, "addr") + ", port " + valueOf(start, "port") + ": ";
    for (const Remedy& remedy : remedies) {
        if (reason.ends_with(std::generic_category().message(remedy.error))) {
            return where.append(remedy.text);
        }
    }
    return where + std::string(reason);
}

}  // namespace vesk::controller
