#include "steering/packet_filter.h"

#include <linux/netlink.h>
#include <nftables/libnftables.h>
#include <sys/socket.h>

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

/// 0, or the error. The library ends the process if it cannot open this socket.
int netlinkError() {
    const UniqueFd trial(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER));
    return trial ? 0 : errno;
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
    if (const int error = netlinkError()) {
        return {"", systemText(error), error != EPERM && error != EACCES};
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
