#include "net/endpoint_sockets.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "base/nonblocking.h"
#include "log/error_text.h"
#include "log/log.h"
#include "net/socket_options.h"

namespace vesk {

EndpointPtr makeEndpointSocket(const std::string& address, int port) {
    const int family = familyOfAddressText(address);
    logInfo("Making socket with family ", family, " address ", address, " port ", port);
    UniqueFd fd(socket(family, SOCK_DGRAM, IPPROTO_UDP));
    if (!fd) {
        logError("Failed socket syscall for endpoint: ", errorText(errno));
        return nullptr;
    }
    // Kept: both calls set the size of the receive buffer, and the second one decides.
    Vesk_setSocketBuf(fd.get(), SO_RCVBUF, 2 * receiveBufferSize);
    Vesk_setSocketBuf(fd.get(), SO_RCVBUF, receiveBufferSize);
    Vesk_requestLocalDestAddr(fd.get(), family);
    requestMergedDatagrams(fd.get());

    const IPAddrInfo local(address, static_cast<std::uint32_t>(port));
    if (bind(fd.get(), local.addr(), local.addrLen()) != 0) {
        logError("Failed bind syscall for endpoint socket: ", errorText(errno));
        return nullptr;
    }
    logInfo("Endpoint socket bound: ", address, "|", port, " (", fd.get(), ")");

    auto endpoint = std::make_unique<VeskEndpointDescriptor>(0, fd.get(), fd.get(), FlowDesc(),
                                                             closeEndpointSockets, local);
    if (!offersSegmentation(fd.get())) {
        endpoint->segmentLimit = 0;
    }
    fd.release();
    return endpoint;
}

EndpointPtr makeDownstreamEndpoint(const std::string& address, int port) {
    logInfo("Making downstream endpoint with address ", address, " port ", port);
    return makeEndpointSocket(address, port);
}

EndpointPtr makeLateralStreamEndpoint(const std::string& address, int port) {
    logInfo("Making lateral stream endpoint with address ", address, " port ", port);
    return makeEndpointSocket(address, port);
}

int makeEndpointSocketPair(int family, SocketPair& out) {
    UniqueFd fd(socket(family, SOCK_DGRAM, IPPROTO_UDP));
    if (!fd) {
        const int error = errno;
        logError("socket: new endpoint socket. Error: ", errorText(error));
        return -error;
    }
    setNonBlocking(fd.get());
    UniqueFd duplicate(dup(fd.get()));
    if (!duplicate) {
        const int error = errno;
        logError("Failed to dup sockfd ", fd.get(), " Error: ", errorText(error));
        return -error;
    }
    out = {std::move(fd), std::move(duplicate)};
    return 0;
}

void closeEndpointSockets(int rdsockfd, int wrsockfd) {
    if (rdsockfd != -1) {
        close(rdsockfd);
    }
    if (wrsockfd != -1) {
        close(wrsockfd);
    }
}

}  // namespace vesk
