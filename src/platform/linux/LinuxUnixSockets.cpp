#include "platform/linux/LinuxUnixSockets.h"

#include "platform/Cancelled.h"
#include "platform/SystemError.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/DescriptorPassing.h"
#include "platform/linux/LinuxFile.h"
#include "platform/linux/SealedMemory.h"
#include "platform/linux/SocketStream.h"
#include "platform/linux/TcpListener.h"

#include <asio/local/stream_protocol.hpp>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <string>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace orlinth::platform {
namespace {

using detail::Descriptor;

using Local = asio::local::stream_protocol;

/// Connections that may wait to be accepted.
constexpr int backlog = 32;

/// The name of a socket for the kernel, which takes about a hundred bytes: by way of its folder's descriptor a path of
/// any length fits.
class SocketName {
public:
    /// @throws SystemError if there is no such folder
    explicit SocketName(const Path& path)
        : folder_(
              ::open(path.parent_path().empty() ? "." : path.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)),
          name_(path.filename()) {
        const std::string text = path.native().size() < sizeof address_.sun_path
                                     ? path.native()
                                     : "/proc/self/fd/" + std::to_string(folder_.get()) + "/" + name_;
        if (name_.empty() || text.size() >= sizeof address_.sun_path) {
            throw SystemError::fromErrno(ENAMETOOLONG);
        }
        address_.sun_family = AF_UNIX;
        std::memcpy(address_.sun_path, text.data(), text.size());
    }

    [[nodiscard]] const sockaddr* address() const noexcept { return reinterpret_cast<const sockaddr*>(&address_); }
    [[nodiscard]] static constexpr socklen_t size() noexcept { return sizeof(sockaddr_un); }
    [[nodiscard]] int folder() const noexcept { return folder_.get(); }
    [[nodiscard]] const std::string& name() const noexcept { return name_; }

private:
    Descriptor folder_;
    std::string name_;
    sockaddr_un address_{};
};

int newSocket() noexcept {
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

/// 0, or the errno of a connection to this name.
int tryConnect(int socket, const SocketName& name) noexcept {
    for (;;) {
        if (::connect(socket, name.address(), SocketName::size()) == 0) {
            return 0;
        }
        if (errno != EINTR) {
            return errno;
        }
    }
}

class UnixStream final : public SocketStream<Local::socket> {
public:
    explicit UnixStream(Local::socket socket) : SocketStream(std::move(socket), "this computer") {}

    [[nodiscard]] std::string localAddress() const override { return {}; }

    [[nodiscard]] Task<> sendDescriptor(int number) {
        while (!detail::passDescriptor(openSocket(), number)) {
            co_await waitUntilReady(socket(), Local::socket::wait_write, "connection");
        }
    }

    [[nodiscard]] Task<Descriptor> receiveDescriptor() {
        for (;;) {
            if (std::optional<Descriptor> taken = detail::takeDescriptor(openSocket())) {
                co_return std::move(*taken);
            }
            co_await waitUntilReady(socket(), Local::socket::wait_read, "connection");
        }
    }

private:
    [[nodiscard]] int openSocket() {
        if (!socket().is_open()) {
            throw SystemError("connection cancelled");
        }
        return socket().native_handle();
    }
};

class UnixListener final : public Listener {
public:
    UnixListener(const Path& path, const Executor& executor) : name_(path), acceptor_(executor) {
        // Two that start at once would both find a dead socket, and the slower one would remove the other's.
        const Descriptor lock(::openat(name_.folder(), (name_.name() + ".lock").c_str(),
                                       O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
        if (lock.get() == -1 || ::fchmod(lock.get(), S_IRUSR | S_IWUSR) != 0) { // whatever the umask is
            throw SystemError::fromErrno();
        }
        while (::flock(lock.get(), LOCK_EX) != 0) {
            if (errno != EINTR) {
                throw SystemError::fromErrno();
            }
        }
        removeDeadSocket();
        Descriptor socket(newSocket());
        // before it has a name: the kernel gives the file these permissions, so that nobody else ever gets in
        struct stat status{};
        if (::fchmod(socket.get(), S_IRUSR | S_IWUSR) != 0 ||
            ::bind(socket.get(), name_.address(), SocketName::size()) != 0 || ::listen(socket.get(), backlog) != 0 ||
            ::fstatat(name_.folder(), name_.name().c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            throw SystemError::fromErrno();
        }
        const mode_t owners = S_IRUSR | S_IWUSR; // the kernel has taken the umask off them
        if ((status.st_mode & owners) != owners && ::fchmodat(name_.folder(), name_.name().c_str(), owners, 0) != 0) {
            throw SystemError::fromErrno();
        }
        bound_ = detail::fromStat(status);
        std::error_code code;
        static_cast<void>(acceptor_.assign(Local(), socket.get(), code));
        if (code) {
            throw SystemError(code);
        }
        static_cast<void>(socket.release());
    }

    ~UnixListener() override { UnixListener::close(); }
    UnixListener(const UnixListener&) = delete;
    UnixListener& operator=(const UnixListener&) = delete;

    Task<std::unique_ptr<Stream>> accept(Executor executor) override {
        for (;;) {
            if (closed_) {
                throw SystemError("listener cancelled");
            }
            const int number = ::accept4(acceptor_.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (number != -1) {
                Descriptor accepted(number);
                Local::socket socket(executor);
                std::error_code code;
                static_cast<void>(socket.assign(Local(), accepted.get(), code));
                if (code) {
                    throw SystemError(code);
                }
                static_cast<void>(accepted.release());
                co_return std::make_unique<UnixStream>(std::move(socket));
            }
            if (errno == EAGAIN) {
                co_await waitUntilReady(acceptor_, Local::acceptor::wait_read, "listener");
            } else if (errno != EINTR && errno != ECONNABORTED) {
                throw SystemError::fromErrno();
            }
        }
    }

    std::uint16_t port() const noexcept override { return 0; }

    void close() noexcept override {
        if (closed_) {
            return;
        }
        closed_ = true;
        // The name first: as long as we answer, nobody takes it over. Somebody may have removed it, though.
        struct stat status{};
        if (::fstatat(name_.folder(), name_.name().c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            isSameFile(detail::fromStat(status), bound_)) {
            ::unlinkat(name_.folder(), name_.name().c_str(), 0); // a name that stays is replaced by the next listener
        }
        std::error_code ignored; // the socket is closed in any case
        static_cast<void>(acceptor_.close(ignored));
    }

private:
    void removeDeadSocket() {
        const Descriptor probe(newSocket());
        switch (const int code = tryConnect(probe.get(), name_)) {
        case ENOENT:
            return;
        case ECONNREFUSED: // also what a file of another kind answers, which bind() then refuses to replace
            removeSocket();
            return;
        case 0:
        case EAGAIN: // somebody listens, who has much to do
            throw SystemError::fromErrno(EADDRINUSE);
        default:
            throw SystemError::fromErrno(code);
        }
    }

    void removeSocket() {
        struct stat status{};
        if (::fstatat(name_.folder(), name_.name().c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISSOCK(status.st_mode) && ::unlinkat(name_.folder(), name_.name().c_str(), 0) != 0 && errno != ENOENT) {
            throw SystemError::fromErrno();
        }
    }

    SocketName name_;
    Local::acceptor acceptor_;
    FileStatus bound_; ///< of the socket under its name
    bool closed_ = false;
};

/// Streams and listeners of other kinds have no descriptor to pass.
template <typename Wanted, typename Given>
Wanted& requireKind(Given& given) {
    auto* wanted = dynamic_cast<Wanted*>(&given);
    if (wanted == nullptr) {
        throw SystemError::fromErrno(EOPNOTSUPP);
    }
    return *wanted;
}

} // namespace

std::unique_ptr<Listener> LinuxUnixSockets::listen(const Path& path, Executor executor) {
    return std::make_unique<UnixListener>(path, executor);
}

Task<std::unique_ptr<Stream>> LinuxUnixSockets::connect(Path path, Executor executor) {
    const SocketName name(path);
    Descriptor descriptor(newSocket());
    const int failure = tryConnect(descriptor.get(), name); // never waits
    if (failure != 0) {
        throw SystemError::fromErrno(failure);
    }
    Local::socket socket(executor);
    std::error_code code;
    static_cast<void>(socket.assign(Local(), descriptor.get(), code));
    if (code) {
        throw SystemError(code);
    }
    static_cast<void>(descriptor.release());
    co_return std::make_unique<UnixStream>(std::move(socket));
}

Task<> LinuxUnixSockets::sendPort(Stream& stream, const Listener& port) {
    const int descriptor = requireKind<const TcpListener>(port).descriptor();
    co_await requireKind<UnixStream>(stream).sendDescriptor(descriptor);
}

Task<std::unique_ptr<Listener>> LinuxUnixSockets::receivePort(Stream& stream, Executor executor) {
    Descriptor descriptor = co_await requireKind<UnixStream>(stream).receiveDescriptor();
    co_return std::make_unique<TcpListener>(std::move(descriptor), std::nullopt, executor);
}

Task<> LinuxUnixSockets::sendSecret(Stream& stream, ByteView bytes) {
    const Descriptor file = detail::sealedMemory(bytes);
    co_await requireKind<UnixStream>(stream).sendDescriptor(file.get());
}

Task<SecretBytes> LinuxUnixSockets::receiveSecret(Stream& stream, std::size_t maxBytes) {
    const Descriptor file = co_await requireKind<UnixStream>(stream).receiveDescriptor();
    co_return detail::readSealedMemory(file, maxBytes);
}

} // namespace orlinth::platform
