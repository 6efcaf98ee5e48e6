#include "platform/linux/PassedFile.h"

#include "platform/SystemError.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace orlinth::platform {
namespace {

using SteadyClock = std::chrono::steady_clock;

/// Reads with `readAt(buffer, offset)`, which returns 0 at the end, until then.
template <typename Read>
SecretBytes readAll(std::size_t expected, std::size_t maxBytes, Read readAt) {
    SecretBytes bytes(std::min(expected, maxBytes) + 1); // one more shows the end
    std::size_t size = 0;
    for (;;) {
        if (size == bytes.size()) {
            if (size > maxBytes) {
                throw SystemError::fromErrno(EMSGSIZE);
            }
            SecretBytes larger(std::min(2 * size, maxBytes + 1));
            std::ranges::copy(bytes.reveal(), larger.revealMutable().begin());
            bytes = std::move(larger);
        }
        const std::size_t count = readAt(bytes.revealMutable().subspan(size), size);
        if (count == 0) {
            return SecretBytes(bytes.reveal().first(size));
        }
        size += count;
    }
}

SecretBytes readRegularFile(const Descriptor& file, std::size_t size, std::size_t maxBytes) {
    if (size > maxBytes) {
        throw SystemError::fromErrno(EMSGSIZE);
    }
    return readAll(size, maxBytes, [&file](MutableBytes buffer, std::size_t offset) {
        return static_cast<std::size_t>(detail::checked(
            [&] { return ::pread(file.get(), buffer.data(), buffer.size(), static_cast<off_t>(offset)); }));
    });
}

/// The same pipe, opened anew: whether reading waits is a property of the opening, and the other one is shared with
/// whoever has passed it.
Descriptor reopenWithoutWaiting(const Descriptor& pipe) {
    const std::string path = "/proc/self/fd/" + std::to_string(pipe.get());
    return Descriptor::require(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

SecretBytes readPipe(const Descriptor& passed, std::size_t maxBytes, SteadyClock::time_point end) {
    constexpr std::size_t usual = 65536;
    const Descriptor pipe = reopenWithoutWaiting(passed);
    return readAll(usual, maxBytes, [&pipe, end](MutableBytes buffer, std::size_t) {
        for (;;) {
            const auto count = detail::retried([&] { return ::read(pipe.get(), buffer.data(), buffer.size()); });
            if (count >= 0) {
                return static_cast<std::size_t>(count);
            }
            if (errno != EAGAIN) {
                throw SystemError::fromErrno();
            }
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - SteadyClock::now());
            if (left.count() <= 0) {
                throw SystemError::fromErrno(ETIMEDOUT);
            }
            pollfd ready{pipe.get(), POLLIN, 0};
            static_cast<void>(::poll(&ready, 1, static_cast<int>(left.count())));
        }
    });
}

} // namespace

Descriptor sameFile(int number) {
    return Descriptor::require(::fcntl(number, F_DUPFD_CLOEXEC, 0));
}

SecretBytes readPassedFile(const Descriptor& file, std::size_t maxBytes, std::chrono::milliseconds patience) {
    struct stat status{};
    detail::checked([&] { return ::fstat(file.get(), &status); });
    if (S_ISREG(status.st_mode)) {
        return readRegularFile(file, static_cast<std::size_t>(status.st_size), maxBytes);
    }
    if (S_ISFIFO(status.st_mode)) {
        return readPipe(file, maxBytes, SteadyClock::now() + patience);
    }
    throw SystemError("neither a file nor a pipe was passed");
}

} // namespace orlinth::platform
