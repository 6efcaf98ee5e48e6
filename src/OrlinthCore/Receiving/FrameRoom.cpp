#include "OrlinthCore/Receiving/FrameRoom.h"

#include "platform/Event.h"

#include <asio/this_coro.hpp>

#include <utility>

namespace orlinth {
namespace {

bool isLarge(std::int64_t bytes) noexcept {
    return bytes > limits::dataFrameBytes;
}

} // namespace

/// Somebody in line.
struct FrameRoom::Waiter {
    Waiter(Executor executor, PeerKey whose, std::int64_t wanted, bool loose)
        : granted(std::move(executor)), peerKey(std::move(whose)), bytes(wanted), isLoose(loose) {}

    platform::Event granted; ///< set under the room's lock
    const PeerKey peerKey;
    const std::int64_t bytes;
    const bool isLoose;
};

/// Somebody's place in line; leaves it, and gives back what was granted, unless it is taken.
class FrameRoom::Place {
public:
    Place(FrameRoom& room, WaiterRef waiter) : room_(room), waiter_(std::move(waiter)) { room_.enter(waiter_); }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    ~Place() {
        if (waiter_) {
            room_.leave(waiter_);
        }
    }
    void take() noexcept { waiter_.reset(); }

private:
    FrameRoom& room_;
    WaiterRef waiter_;
};

Task<> FrameRoom::Share::claim(std::size_t bytes) {
    release();
    const auto wanted = static_cast<std::int64_t>(bytes);
    const bool isLoose = !isInTransfer_ && wanted > limits::dataFrameBytes;
    if (!room_.grantAtOnce(peerKey_, wanted, isLoose)) {
        const Executor executor = co_await asio::this_coro::executor;
        const auto waiter = std::make_shared<Waiter>(executor, peerKey_, wanted, isLoose);
        Place place(room_, waiter);
        co_await waiter->granted.wait();
        place.take();
    }
    held_ = wanted;
    isHeldLoosely_ = isLoose;
}

void FrameRoom::Share::release() noexcept {
    if (held_ > 0) {
        const MutexLock guard(room_.lock_);
        room_.giveBackLocked(peerKey_, std::exchange(held_, 0), std::exchange(isHeldLoosely_, false));
    }
}

/// What nearly every frame meets: nobody is in line, and there is room.
bool FrameRoom::grantAtOnce(const PeerKey& peerKey, std::int64_t bytes, bool isLoose) {
    const MutexLock guard(lock_);
    const bool mayHaveIt = line_.empty() && held_ + bytes <= limits::frameBytes && hasRoomForLarge(bytes) &&
                           !isHeldUpByItself(peerKey, bytes, isLoose);
    if (mayHaveIt) {
        grant(peerKey, bytes, isLoose);
    }
    return mayHaveIt;
}

void FrameRoom::enter(const WaiterRef& waiter) {
    const MutexLock guard(lock_);
    line_.push_back(waiter);
    serveLine();
}

/// Grants what there is room for.
void FrameRoom::serveLine() {
    bool isLargeHeldUp = false;
    for (auto at = line_.begin(); at != line_.end();) {
        const WaiterRef waiter = *at;
        if (isHeldUpByItself(waiter->peerKey, waiter->bytes, waiter->isLoose)) {
            ++at;
            continue;
        }
        if (isLarge(waiter->bytes) && (isLargeHeldUp || !hasRoomForLarge(waiter->bytes))) {
            isLargeHeldUp = true;
            ++at;
            continue;
        }
        if (held_ + waiter->bytes > limits::frameBytes) {
            return; // nobody overtakes it, or it would never get through
        }
        grant(waiter->peerKey, waiter->bytes, waiter->isLoose);
        at = line_.erase(at);
        waiter->granted.set();
    }
}

bool FrameRoom::isHeldUpByItself(const PeerKey& peerKey, std::int64_t bytes, bool isLoose) const {
    const auto known = phones_.find(peerKey);
    return known != phones_.end() &&
           (known->second.held + bytes > limits::frameBytesOfOnePhone || (isLoose && known->second.hasLoose));
}

/// True of any other frame, too.
bool FrameRoom::hasRoomForLarge(std::int64_t bytes) const {
    return !isLarge(bytes) || heldByLarge_ + bytes <= limits::largeFrameBytes;
}

void FrameRoom::grant(const PeerKey& peerKey, std::int64_t bytes, bool isLoose) {
    Phone& known = phones_[peerKey];
    known.held += bytes;
    known.hasLoose = known.hasLoose || isLoose;
    held_ += bytes;
    heldByLarge_ += isLarge(bytes) ? bytes : 0;
}

void FrameRoom::leave(const WaiterRef& waiter) noexcept {
    const MutexLock guard(lock_);
    if (waiter->granted.isSet()) {
        giveBackLocked(waiter->peerKey, waiter->bytes, waiter->isLoose);
    } else {
        line_.remove(waiter);
        serveLine(); // it may have been in the way of others
    }
}

void FrameRoom::giveBackLocked(const PeerKey& peerKey, std::int64_t bytes, bool isLoose) noexcept {
    const auto at = phones_.find(peerKey);
    held_ -= bytes;
    heldByLarge_ -= isLarge(bytes) ? bytes : 0;
    at->second.held -= bytes;
    at->second.hasLoose = at->second.hasLoose && !isLoose;
    if (at->second.held == 0) {
        phones_.erase(at);
    }
    serveLine();
}

std::int64_t FrameRoom::heldBytes() const {
    const MutexLock guard(lock_);
    return held_;
}

std::size_t FrameRoom::waiting() const {
    const MutexLock guard(lock_);
    return line_.size();
}

} // namespace orlinth
