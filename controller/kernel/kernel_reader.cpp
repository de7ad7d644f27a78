#include "kernel/kernel_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <optional>
#include <span>
#include <string_view>
#include <system_error>
#include <vector>

#include "base/unique_fd.h"
#include "kernel/port_range.h"
#include "kernel/process_limits.h"
#include "kernel/text_words.h"
#include "kernel/udp_errors.h"
#include "kernel/udp_table.h"

namespace vesk::controller {

namespace {

struct Descriptors {
    std::uint64_t count = 0;
    std::vector<OwnSocket> sockets;  ///< those that are sockets, by inode, each once
};

/// The whole text; none if it cannot be read.
std::optional<std::string> readText(const std::string& path) {
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) {
        return std::nullopt;
    }
    constexpr std::size_t piece = 65536;
    std::string text;
    for (std::size_t size = 0;;) {
        text.resize(size + piece);
        const ssize_t got = ::read(file.get(), text.data() + size, piece);
        if (got < 0) {
            return std::nullopt;
        }
        size += static_cast<std::size_t>(got);
        if (got == 0) {
            text.resize(size);
            return text;
        }
    }
}

/// The number in "socket:[NUMBER]"; none for other descriptors.
std::optional<std::uint64_t> socketInode(std::string_view link) {
    constexpr std::string_view begin = "socket:[";
    if (!link.starts_with(begin) || !link.ends_with(']')) {
        return std::nullopt;
    }
    return parseWord<std::uint64_t>(link.substr(begin.size(), link.size() - begin.size() - 1));
}

std::uint32_t labelOf(const std::string& descriptor, const FlowDescriptors& flows) {
    const auto flow = flows.find(parseWord<int>(descriptor).value_or(-1));
    return flow == flows.end() ? 0 : flow->second;
}

/// A flow has two descriptors of one socket.
void keepEachOnce(std::vector<OwnSocket>& sockets) {
    std::sort(sockets.begin(), sockets.end(),
              [](const OwnSocket& a, const OwnSocket& b) { return a.inode < b.inode; });
    const auto rest =
        std::unique(sockets.begin(), sockets.end(),
                    [](const OwnSocket& a, const OwnSocket& b) { return a.inode == b.inode; });
    sockets.erase(rest, sockets.end());
}

std::optional<Descriptors> readDescriptors(const std::string& path, const FlowDescriptors& flows) {
    std::error_code error;
    std::filesystem::directory_iterator entry(path, error);
    if (error) {
        return std::nullopt;
    }
    Descriptors found;
    std::array<char, 64> link{};
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const ssize_t size = readlink(entry->path().c_str(), link.data(), link.size());
        if (size < 0) {
            continue;  // closed in the meantime
        }
        ++found.count;
        if (const auto inode = socketInode({link.data(), static_cast<std::size_t>(size)})) {
            found.sockets.push_back({*inode, labelOf(entry->path().filename().string(), flows)});
        }
    }
    keepEachOnce(found.sockets);
    return found;
}

std::optional<Room> descriptorRoom(const std::optional<Descriptors>& descriptors,
                                   const std::string& limits) {
    const std::optional<std::uint64_t> limit = parseOpenFilesLimit(limits);
    if (!descriptors || !limit) {
        return std::nullopt;
    }
    // The limit may have been lowered below what is open.
    return Room{descriptors->count, *limit - std::min(*limit, descriptors->count)};
}

std::optional<Room> readPortRoom(const std::string& settings, std::span<const UdpSocket> sockets) {
    const auto range = parsePortRange(readText(settings + "ip_local_port_range").value_or(""));
    const auto reserved =
        parseReservedPorts(readText(settings + "ip_local_reserved_ports").value_or(""));
    if (!range || !reserved) {
        return std::nullopt;
    }
    PortSet taken;
    for (const UdpSocket& socket : sockets) {
        taken.set(socket.port);
    }
    return portRoom(*range, *reserved, taken);
}

std::optional<std::uint64_t> readNumber(const std::string& path) {
    const std::string text = readText(path).value_or("");
    std::string_view rest = text;
    return parseWord<std::uint64_t>(takeWord(rest));
}

std::optional<Conntrack> readConntrack(const std::string& settings) {
    const auto entries = readNumber(settings + "nf_conntrack_count");
    const auto limit = readNumber(settings + "nf_conntrack_max");
    return entries && limit ? std::optional(Conntrack{*entries, *limit}) : std::nullopt;
}

}  // namespace

KernelFigures KernelReader::read(const KernelTarget& target) {
    const std::string process = root_ + "/" + std::to_string(target.pid) + "/";
    KernelFigures figures;
    const std::optional<Descriptors> descriptors =
        readDescriptors(process + "fd", target.flows.value_or(FlowDescriptors()));
    figures.descriptors = descriptorRoom(descriptors, readText(process + "limits").value_or(""));
    const std::optional<std::string> ipv4 = readText(process + "net/udp");
    // A host without IPv6 has no second table.
    const std::string ipv6 = readText(process + "net/udp6").value_or("");
    if (ipv4) {
        std::vector<UdpSocket> sockets = parseUdpTable(*ipv4);
        const std::vector<UdpSocket> more = parseUdpTable(ipv6);
        sockets.insert(sockets.end(), more.begin(), more.end());
        figures.ports = readPortRoom(root_ + "/sys/net/ipv4/", sockets);
        if (descriptors) {
            totals_.add(sockets, descriptors->sockets, target.listeners);
            figures.sockets = totals_.present();
            if (target.flows) {
                figures.flows = totals_.flows();
            }
        }
    }
    figures.drops = totals_.drops();
    figures.conntrack = readConntrack(root_ + "/sys/net/netfilter/");
    figures.ipv4 = parseSnmp(readText(process + "net/snmp").value_or(""));
    figures.ipv6 = parseSnmp6(readText(process + "net/snmp6").value_or(""));
    return figures;
}

}  // namespace vesk::controller
