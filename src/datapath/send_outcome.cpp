#include "datapath/send_outcome.h"

#include <cerrno>

#include "datapath/system_calls.h"

namespace vesk {

SendOutcome outcomeOfError(int error) {
    switch (error) {
        case ECONNREFUSED:
            return SendOutcome::refused;
        case EAGAIN:
            return SendOutcome::noRoom;
        default:
            return SendOutcome::failed;
    }
}

SendResult sendMessage(const msghdr& message, int socket, int flags, std::size_t least) {
    const ssize_t sent = sendOneMessage(socket, message, flags);
    const int error = errno;
    if (sent == -1) {
        return {outcomeOfError(error), error};
    }
    const bool enough = static_cast<std::size_t>(sent) >= least;
    return {enough ? SendOutcome::sent : SendOutcome::failed, error};
}

}  // namespace vesk
