#include "poll/poll_channel_fixture.h"

#include <cstring>
#include <numeric>

namespace vesk {

Bytes recordOf(const PollCtlMsg& message) {
    return toBytes(encodePollCtlMsg(message));
}

Bytes rowHeader(std::uint64_t count) {
    Bytes header{'R', 'o', 'w', 's', 0, 0, 0, 0};
    header.resize(16);
    std::memcpy(header.data() + 8, &count, sizeof(count));
    return header;
}

Bytes rowOf(const std::vector<int>& fds, const PollCtlMsg& model) {
    Bytes datagram = rowHeader(fds.size());
    for (const int fd : fds) {
        const Bytes record = recordOf({model.op, model.events, fd});
        datagram.insert(datagram.end(), record.begin(), record.end());
    }
    return datagram;
}

std::vector<int> descriptorsFrom(int first, std::size_t count) {
    std::vector<int> fds(count);
    std::iota(fds.begin(), fds.end(), first);
    return fds;
}

}  // namespace vesk
