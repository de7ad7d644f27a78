#include "datapath/receive_thread.h"

#include <cerrno>

#include "datapath/receive_batch.h"
#include "log/error_text.h"
#include "log/log.h"

namespace vesk {

namespace {

void reportFailure(std::string_view name, int error) {
    if (error != ECONNREFUSED) {
        logError("Forwarder ", name, " endpoint got error while receiving: errno = ", error, " (",
                 errorText(error), ").");
    }
}

void handleMessage(const ReceivedMessage& message, VeskEndpointDescriptor& endpoint,
                   const ReceiveThread& thread) {
    if (message.datagramCount() == 0) {
        // Kept: an empty datagram is reported as a failed call, with the errno of an earlier one.
        const int error = errno;
        thread.endBatch();
        reportFailure(thread.name, error);
    }
    for (std::size_t i = 0; i < message.datagramCount(); ++i) {
        endpoint.counters.rxDg.increment();
        thread.handle({endpoint,
                       message.datagram(i),
                       message.datagramLength(i),
                       message.sender(),
                       message.localDestination(),
                       {}});
    }
}

}  // namespace

void serveListener(VeskEndpointDescriptor& endpoint, const ReceiveThread& thread) {
    ReceiveBatch batch;
    while (true) {
        const int received = batch.await(endpoint.rdsockfd);
        if (received < 0) {
            reportFailure(thread.name, -received);
        }
        for (int i = 0; i < received; ++i) {
            handleMessage(batch.message(static_cast<std::size_t>(i), endpoint.family), endpoint,
                          thread);
        }
        thread.endBatch();
        batch.clear();
    }
}

}  // namespace vesk
