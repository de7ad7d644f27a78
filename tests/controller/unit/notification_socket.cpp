#include "notification_socket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <utility>

namespace vesk::controller {

NotificationSocket::NotificationSocket(std::string name)
    : name_(std::move(name)), socket_(socket(AF_UNIX, SOCK_DGRAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name_.copy(address.sun_path, sizeof address.sun_path);
    if (name_.front() == '@') {
        address.sun_path[0] = '\0';
    }
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name_.size());
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
}

NotificationSocket::Message NotificationSocket::receive() const {
    Message message;
    std::array<char, 1000> text{};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    iovec bytes{text.data(), text.size()};
    msghdr whole{};
    whole.msg_iov = &bytes;
    whole.msg_iovlen = 1;
    whole.msg_control = control.data();
    whole.msg_controllen = control.size();
    const ssize_t got = recvmsg(socket_.get(), &whole, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (got < 0) {
        return message;
    }
    message.text.assign(text.data(), static_cast<std::size_t>(got));
    if (const cmsghdr* const rights = CMSG_FIRSTHDR(&whole); rights != nullptr) {
        int descriptor = -1;
        std::memcpy(&descriptor, CMSG_DATA(rights), sizeof descriptor);
        message.descriptor.reset(descriptor);
    }
    return message;
}

}  // namespace vesk::controller
