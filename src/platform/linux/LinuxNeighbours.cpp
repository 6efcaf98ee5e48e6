#include "platform/linux/LinuxNeighbours.h"

#include "platform/SystemError.h"
#include "platform/linux/NetlinkSocket.h"

#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <asio/system_error.hpp>

#include <cerrno>
#include <chrono>
#include <linux/rtnetlink.h>
#include <map>
#include <system_error>
#include <utility>

namespace orlinth::platform {
namespace {

/// How often the table is listed before a list that may have gaps is taken, or a failure is final.
constexpr int listAttempts = 3;
/// How soon the table is listed again after that failed.
constexpr auto listAgainAfter = 2s;
/// Datagrams that are taken before others have their turn.
constexpr int maxDatagrams = 64;

/// Names the interfaces of entries, each interface once.
class InterfaceNames {
public:
    [[nodiscard]] Neighbour named(Neighbour entry) {
        const auto [place, isNew] = names_.try_emplace(entry.interfaceIndex);
        if (isNew) {
            place->second = interfaceName(entry.interfaceIndex);
        }
        entry.interface = place->second;
        entry.address = withZone(std::move(entry.address), entry.interface);
        return entry;
    }

private:
    std::map<std::uint32_t, std::string> names_;
};

NetlinkAnswer listOnce() {
    constexpr std::uint32_t sequence = 1;
    NetlinkAnswer answer = askKernel(neighbourListRequest(sequence), sequence);
    if (answer.errorNumber != 0) {
        throw SystemError::fromErrno(answer.errorNumber);
    }
    return answer;
}

std::vector<Neighbour> entriesOf(NetlinkAnswer answer) {
    std::vector<Neighbour> entries;
    InterfaceNames names;
    for (NetlinkMessage& message : answer.messages) {
        auto* const neighbour = std::get_if<NetlinkNeighbour>(&message.body);
        if (neighbour != nullptr && !neighbour->isGone) {
            entries.push_back(names.named(std::move(neighbour->entry)));
        }
    }
    return entries;
}

std::vector<Neighbour> listNeighbours() {
    for (int attempt = 1;; ++attempt) {
        try {
            NetlinkAnswer answer = listOnce();
            if (!answer.isInterrupted || attempt == listAttempts) {
                return entriesOf(std::move(answer));
            }
        } catch (const SystemError& error) {
            if (error.code().value() != ENOBUFS || attempt == listAttempts) {
                throw;
            }
        }
    }
}

/// The inside of a watch. The waits that are under way find it gone once the watch has ended.
class Table : public std::enable_shared_from_this<Table> {
public:
    Table(const Executor& executor, std::function<void(const NeighbourEvent&)> onEvent)
        : onEvent_(std::move(onEvent)), socket_(RTMGRP_NEIGH), wait_(executor), listAgain_(executor) {
        socket_.lendTo(wait_);
    }

    void awaitEvents() {
        wait_.async_wait(asio::posix::stream_descriptor::wait_read, [weak = weak_from_this()](std::error_code code) {
            const std::shared_ptr<Table> self = weak.lock();
            if (self && !code) {
                self->onReadable();
            }
        });
    }

    /// Nothing is told any more, also if a call is under way.
    void end() noexcept { hasEnded_ = true; }

private:
    void onReadable() {
        std::vector<NeighbourEvent> events;
        const bool isDrained = takeEvents(events);
        awaitEvents();
        if (!isLost_) {
            tell(events);
        } else if (isDrained) {
            // Not before: until its queue is empty the kernel drops further events without a word.
            isLost_ = false;
            listAnew();
        }
    }

    void tell(const std::vector<NeighbourEvent>& events) {
        for (const NeighbourEvent& event : events) {
            if (hasEnded_) {
                return;
            }
            onEvent_(event);
        }
    }

    /// Takes what the kernel has to tell; returns whether that was all.
    bool takeEvents(std::vector<NeighbourEvent>& events) {
        InterfaceNames names;
        for (int reads = 0; reads < maxDatagrams; ++reads) {
            try {
                std::optional<NetlinkDatagram> datagram = socket_.receive();
                if (!datagram) {
                    return true;
                }
                isLost_ = isLost_ || datagram->isDamaged;
                for (NetlinkMessage& message : datagram->messages) {
                    isLost_ = isLost_ || std::holds_alternative<NetlinkOverrun>(message.body);
                    if (auto* const neighbour = std::get_if<NetlinkNeighbour>(&message.body)) {
                        events.push_back(eventOf(names, std::move(*neighbour)));
                    }
                }
            } catch (const SystemError&) { // ENOBUFS or the like
                isLost_ = true;
            }
        }
        return false;
    }

    static NeighbourEvent eventOf(InterfaceNames& names, NetlinkNeighbour neighbour) {
        Neighbour entry = names.named(std::move(neighbour.entry));
        if (neighbour.isGone) {
            return NeighbourGone{.last = std::move(entry)};
        }
        return NeighbourChanged{.now = std::move(entry)};
    }

    void listAnew() {
        if (hasEnded_) {
            return;
        }
        std::vector<NeighbourEvent> events;
        try {
            events.emplace_back(NeighboursAnew{.now = listNeighbours()});
        } catch (const SystemError&) { // no descriptors left, for example: that passes
            listLater();
            return;
        }
        tell(events);
    }

    void listLater() {
        listAgain_.expires_after(listAgainAfter);
        listAgain_.async_wait([weak = weak_from_this()](std::error_code code) {
            const std::shared_ptr<Table> self = weak.lock();
            if (self && !code) {
                self->listAnew();
            }
        });
    }

    const std::function<void(const NeighbourEvent&)> onEvent_;
    NetlinkSocket socket_;
    asio::posix::stream_descriptor wait_; ///< for the socket
    asio::steady_timer listAgain_;
    bool isLost_ = false; ///< events are: the table is listed instead of telling what is left of them
    bool hasEnded_ = false;
};

class LinuxNeighbourWatch final : public NeighbourWatch {
public:
    LinuxNeighbourWatch(const Executor& executor, std::function<void(const NeighbourEvent&)> onEvent)
        : table_(std::make_shared<Table>(executor, std::move(onEvent))) {
        table_->awaitEvents();
    }
    ~LinuxNeighbourWatch() override { table_->end(); }
    LinuxNeighbourWatch(const LinuxNeighbourWatch&) = delete;
    LinuxNeighbourWatch& operator=(const LinuxNeighbourWatch&) = delete;

private:
    std::shared_ptr<Table> table_; ///< a call that is under way holds it too
};

} // namespace

std::vector<Neighbour> LinuxNeighbours::list() const {
    return listNeighbours();
}

std::unique_ptr<NeighbourWatch> LinuxNeighbours::watch(Executor executor,
                                                       std::function<void(const NeighbourEvent&)> onEvent) {
    try {
        return std::make_unique<LinuxNeighbourWatch>(executor, std::move(onEvent));
    } catch (const asio::system_error& error) { // no descriptors left for Asio itself
        throw SystemError(error.code());
    }
}

} // namespace orlinth::platform
