#include "platform/linux/DescriptorPassing.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <vector>

namespace orlinth::platform::detail {
namespace {

/// A message of one byte with room for one descriptor; not to be moved, as its parts point to each other.
class Envelope {
public:
    Envelope() noexcept {
        message_.msg_iov = &data_;
        message_.msg_iovlen = 1;
        message_.msg_control = control_.data();
        message_.msg_controllen = control_.size();
    }
    Envelope(const Envelope&) = delete;
    Envelope& operator=(const Envelope&) = delete;

    void put(int number) noexcept {
        cmsghdr* const header = CMSG_FIRSTHDR(&message_);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof number);
        std::memcpy(CMSG_DATA(header), &number, sizeof number);
    }

    /// All that came: the room of one holds two where it is rounded up.
    [[nodiscard]] std::vector<Descriptor> takeAll() {
        std::vector<Descriptor> descriptors;
        for (cmsghdr* header = CMSG_FIRSTHDR(&message_); header != nullptr; header = CMSG_NXTHDR(&message_, header)) {
            if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) {
                continue;
            }
            const std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (std::size_t i = 0; i < count; ++i) {
                int number = -1;
                std::memcpy(&number, CMSG_DATA(header) + i * sizeof number, sizeof number);
                descriptors.emplace_back(number);
            }
        }
        return descriptors;
    }

    [[nodiscard]] msghdr* message() noexcept { return &message_; }

private:
    std::byte mark_{};
    iovec data_{.iov_base = &mark_, .iov_len = 1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control_{};
    msghdr message_{};
};

bool wouldWait() noexcept {
    return errno == EAGAIN || errno == EWOULDBLOCK;
}

} // namespace

bool passDescriptor(int socket, int number) {
    Envelope envelope;
    envelope.put(number);
    if (retried([&] { return ::sendmsg(socket, envelope.message(), MSG_NOSIGNAL | MSG_DONTWAIT); }) >= 0) {
        return true;
    }
    if (wouldWait()) {
        return false;
    }
    throw SystemError::fromErrno();
}

std::optional<Descriptor> takeDescriptor(int socket) {
    Envelope envelope;
    const ssize_t count =
        retried([&] { return ::recvmsg(socket, envelope.message(), MSG_CMSG_CLOEXEC | MSG_DONTWAIT); });
    if (count < 0) {
        if (wouldWait()) {
            return std::nullopt;
        }
        throw SystemError::fromErrno();
    }
    std::vector<Descriptor> descriptors = envelope.takeAll();
    if (count == 0 || descriptors.size() != 1) {
        throw SystemError("no descriptor was passed");
    }
    return std::move(descriptors.front());
}

} // namespace orlinth::platform::detail
