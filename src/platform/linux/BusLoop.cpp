#include "platform/linux/BusLoop.h"

#include "platform/linux/Descriptor.h"
#include "platform/linux/LinuxFile.h"

#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include <algorithm>
#include <cstdint>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <system_error>
#include <utility>

namespace orlinth::platform {
namespace {

using detail::Descriptor;
using SocketWatch = asio::posix::stream_descriptor;

FileStatus statusOf(int number) {
    struct stat found{};
    detail::checked([&] { return ::fstat(number, &found); });
    return detail::fromStat(found);
}

} // namespace

struct BusLoop::Connection : std::enable_shared_from_this<Connection> {
    /// The library's socket under a number of our own: the library closes its one when it likes, and may try several
    /// sockets before it has one that works.
    struct Socket {
        Socket(const Executor& executor, int number) : descriptor(executor), status(statusOf(number)) {
            Descriptor copy = Descriptor::require(::fcntl(number, F_DUPFD_CLOEXEC, 0));
            std::error_code code;
            static_cast<void>(descriptor.assign(copy.get(), code));
            if (code) {
                throw SystemError(code);
            }
            static_cast<void>(copy.release());
        }

        SocketWatch descriptor;
        FileStatus status;
        bool waitsToRead = false;
        bool waitsToWrite = false;
    };

    Connection(Executor where, SessionBusRef opened, std::chrono::microseconds answerLimit,
               std::shared_ptr<const std::function<void()>> onLoss)
        : executor(std::move(where)),
          alarm(executor),
          helloEnd(SteadyClock::now() + answerLimit),
          onLost(std::move(onLoss)),
          bus(std::move(opened)) {}

    // ---- waiting

    /// Waits for what the library waits for. Calls nobody back.
    void wait() {
        if (!bus || isAtWork) {
            return; // whoever is at work does this at the end
        }
        const int events = systemd().sd_bus_get_events(bus.get());
        std::uint64_t due = UINT64_MAX; // microseconds of CLOCK_MONOTONIC, which is the steady clock
        if (events < 0 || systemd().sd_bus_get_timeout(bus.get(), &due) < 0 || !watchSocket(events)) {
            isBroken = true;
            turnSoon();
            return;
        }
        setAlarm(due);
    }

    bool watchSocket(int events) {
        try {
            const int number = systemd().sd_bus_get_fd(bus.get());
            if (number < 0) {
                return false;
            }
            if (!isSocketFinal && (!socket || !isSameFile(socket->status, statusOf(number)))) {
                socket = std::make_shared<Socket>(executor, number);
            }
            isSocketFinal = systemd().sd_bus_is_ready(bus.get()) > 0;
        } catch (const std::exception&) {
            return false; // no descriptors left, most likely: the owner hears that the connection is lost
        }
        if ((events & POLLIN) != 0 && !std::exchange(socket->waitsToRead, true)) {
            startWait(SocketWatch::wait_read, &Socket::waitsToRead);
        }
        if ((events & POLLOUT) != 0 && !std::exchange(socket->waitsToWrite, true)) {
            startWait(SocketWatch::wait_write, &Socket::waitsToWrite);
        }
        return true;
    }

    void startWait(SocketWatch::wait_type kind, bool Socket::* waits) {
        socket->descriptor.async_wait(
            kind, [weak = weak_from_this(), weakSocket = std::weak_ptr(socket), waits](std::error_code code) {
                const std::shared_ptr<Connection> self = weak.lock();
                const std::shared_ptr<Socket> ready = weakSocket.lock();
                if (!self || !ready || self->socket != ready) {
                    return; // the library has another socket by now
                }
                (*ready).*waits = false;
                self->isBroken = self->isBroken || code;
                self->turn();
            });
    }

    void setAlarm(std::uint64_t dueMicroseconds) {
        constexpr auto furthest = std::chrono::hours(24); // more than the timer's nanoseconds hold may be asked for
        const SteadyClock::time_point now = SteadyClock::now();
        SteadyClock::time_point end = now + furthest;
        bool isWanted = false;
        if (dueMicroseconds != UINT64_MAX) {
            const auto left = std::chrono::microseconds(dueMicroseconds) - now.time_since_epoch();
            end = now + std::clamp<SteadyClock::duration>(left, SteadyClock::duration::zero(), furthest);
            isWanted = true;
        }
        if (systemd().sd_bus_is_ready(bus.get()) <= 0) {
            end = std::min(end, helloEnd);
            isWanted = true;
        }
        const std::uint64_t setting = ++alarmSetting;
        if (!isWanted) {
            alarm.cancel();
            return;
        }
        alarm.expires_at(end);
        alarm.async_wait([weak = weak_from_this(), setting](std::error_code code) {
            const std::shared_ptr<Connection> self = weak.lock();
            if (!code && self && self->alarmSetting == setting) {
                self->turn();
            }
        });
    }

    /// Behind whatever else is due on the executor.
    void turnSoon() {
        if (!std::exchange(isTurnPosted, true)) {
            asio::post(executor, [weak = weak_from_this()] {
                if (const std::shared_ptr<Connection> self = weak.lock()) {
                    self->isTurnPosted = false;
                    self->turn();
                }
            });
        }
    }

    // ---- working

    /// On the executor, with a hand on this object: a callback may let go of it.
    void turn() {
        const int result = work(maxMessagesPerTurn, [] { return false; });
        if (!bus) {
            return;
        }
        if (result > 0) {
            turnSoon();
        } else {
            wait();
        }
    }

    /// Takes up to so many messages, but none once this holds. Positive if there may be more, 0 if there are none now;
    /// negative if the connection has ended.
    int work(int most, const std::function<bool()>& isDone) {
        if (!bus || isAtWork) {
            return 0;
        }
        int result = 1;
        {
            const SdBusRef kept(systemd().sd_bus_ref(bus.get())); // a callback may close it
            isAtWork = true;
            for (int count = 0; result > 0 && count < most && bus && !isDone(); ++count) {
                result = systemd().sd_bus_process(kept.get(), nullptr);
            }
            isAtWork = false;
        }
        if (!bus) {
            return -1;
        }
        const bool isSilent = systemd().sd_bus_is_ready(bus.get()) <= 0 && SteadyClock::now() >= helloEnd;
        if (result < 0 || isBroken || isSilent || systemd().sd_bus_is_open(bus.get()) <= 0) {
            close();
            const std::shared_ptr<const std::function<void()>> call = onLost; // which may let go of this
            (*call)();
            return -1;
        }
        return result;
    }

    bool runUntil(const std::function<bool()>& isDone, SteadyClock::time_point end) {
        for (;;) {
            const int result = work(maxMessagesPerTurn, isDone);
            if (result < 0 || isDone() || SteadyClock::now() >= end) {
                break;
            }
            if (!bus) {
                break; // it was lost meanwhile
            }
            if (result == 0) {
                const bool isReady = systemd().sd_bus_is_ready(bus.get()) > 0;
                waitForSessionBus(bus.get(), isReady ? end : std::min(end, helloEnd));
            }
        }
        wait();
        return isDone();
    }

    void close() noexcept {
        ++alarmSetting;
        alarm.cancel();
        socket.reset();
        bus.reset();
    }

    using SdBusRef = std::unique_ptr<sd_bus, detail::Freer<detail::freeBus>>;

    const Executor executor;
    asio::steady_timer alarm;
    std::uint64_t alarmSetting = 0; ///< counts settings, so that a handler that is already queued knows it is stale
    std::shared_ptr<Socket> socket;
    bool isSocketFinal = false; ///< the bus has said hello on it
    bool isTurnPosted = false;
    bool isAtWork = false;
    bool isBroken = false; ///< nothing can be waited for
    const SteadyClock::time_point helloEnd;
    const std::shared_ptr<const std::function<void()>> onLost;
    SessionBusRef bus; ///< null once closed
};

BusLoop::BusLoop(Executor executor, BusEnvironment environment, std::chrono::microseconds answerLimit,
                 std::function<void()> onLost)
    : executor_(std::move(executor)),
      environment_(environment),
      answerLimit_(answerLimit),
      onLost_(std::make_shared<const std::function<void()>>(std::move(onLost))) {}

BusLoop::~BusLoop() {
    close();
}

bool BusLoop::open() {
    if (get() != nullptr) {
        return true;
    }
    SessionBusRef bus = openSessionBus(environment_, answerLimit_);
    if (!bus) {
        return false;
    }
    try {
        connection_ = std::make_shared<Connection>(executor_, std::move(bus), answerLimit_, onLost_);
    } catch (const std::system_error&) {
        return false; // no descriptors left for Asio itself
    }
    connection_->wait();
    return true;
}

void BusLoop::close() noexcept {
    if (const std::shared_ptr<Connection> closed = std::exchange(connection_, nullptr)) {
        closed->close();
    }
}

sd_bus* BusLoop::get() const noexcept {
    return connection_ ? connection_->bus.get() : nullptr;
}

void BusLoop::wake() {
    if (connection_) {
        connection_->wait();
    }
}

bool BusLoop::runUntil(const std::function<bool()>& isDone, SteadyClock::time_point end) {
    const std::shared_ptr<Connection> kept = connection_; // a callback may let go of it
    return kept ? kept->runUntil(isDone, end) : isDone();
}

} // namespace orlinth::platform
