#include "steering/packet_filter.h"

#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <nftables/libnftables.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <memory>
#include <system_error>

#include "base/unique_fd.h"

namespace vesk::controller {

namespace {

struct FreeContext {
    void operator()(nft_ctx* context) const { nft_ctx_free(context); }
};
/// It holds a netlink socket, so one is made for each run and none is open while a child starts.
using Context = std::unique_ptr<nft_ctx, FreeContext>;

std::string systemText(int error) {
    return std::generic_category().message(error);
}

/// The request for the number of the present rules, the smallest that there is.
struct Request {
    nlmsghdr header;
    nfgenmsg filter;
};

/// The error in the kernel's answer, or 0.
int errorIn(int socket) {
    struct {
        nlmsghdr header;
        nlmsgerr refusal;
        std::array<char, 256> rest;
    } answer{};
    if (recv(socket, &answer, sizeof answer, 0) < 0) {
        return errno;
    }
    return answer.header.nlmsg_type == NLMSG_ERROR ? -answer.refusal.error : 0;
}

/// 0, or the reason why this process cannot use the packet filter. The library ends the process if
/// it has no netlink socket, and writes to standard error if it lacks the privilege.
int filterError() {
    const UniqueFd netlink(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER));
    if (!netlink) {
        return errno;
    }
    Request request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = (NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_GETGEN;
    request.header.nlmsg_flags = NLM_F_REQUEST;
    request.filter.version = NFNETLINK_V0;
    return send(netlink.get(), &request, sizeof request, 0) < 0 ? errno : errorIn(netlink.get());
}

/// The first line without the place, such as "/dev/stdin:1:7-10: ".
std::string firstComplaint(const std::string& text) {
    const std::string line = text.substr(0, text.find('\n'));
    const std::size_t complaint = line.find("Error: ");
    return complaint == std::string::npos ? line : line.substr(complaint + sizeof "Error: " - 1);
}

FilterAnswer answerOf(nft_ctx* context, int result) {
    FilterAnswer answer{nft_ctx_get_output_buffer(context), "", true};
    if (result != 0) {
        answer.error = firstComplaint(nft_ctx_get_error_buffer(context));
        answer.permitted = answer.error.find(systemText(EPERM)) == std::string::npos;
        if (answer.error.empty()) {
            answer.error = "the packet filter gave no reason";
        }
    }
    return answer;
}

FilterAnswer run(const std::string& commands, bool change) {
    if (const int error = filterError()) {
        return {"", systemText(error), error != EPERM};
    }
    const Context context(nft_ctx_new(NFT_CTX_DEFAULT));
    if (!context || nft_ctx_buffer_output(context.get()) != 0 ||
        nft_ctx_buffer_error(context.get()) != 0) {
        return {"", systemText(ENOMEM), true};
    }
    nft_ctx_set_dry_run(context.get(), !change);
    return answerOf(context.get(), nft_run_cmd_from_buffer(context.get(), commands.c_str()));
}

}  // namespace

FilterAnswer runFilterCommands(const std::string& commands) {
    return run(commands, true);
}

FilterAnswer checkFilterCommands(const std::string& commands) {
    return run(commands, false);
}

}  // namespace vesk::controller
