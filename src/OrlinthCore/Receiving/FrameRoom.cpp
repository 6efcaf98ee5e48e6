#include "OrlinthCore/Receiving/FrameRoom.h"

#include "platform/Cancelled.h"

#include <asio/experimental/as_tuple.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>

#include <utility>

namespace orlinth {

/// Somebody in line. What has no other word is under the room's lock.
struct FrameRoom::Waiter {
    Waiter(const Executor& executor, std::string key, std::int64_t wanted, bool loose)
        : queue(executor),
          news(executor, asio::steady_timer::time_point::max()),
          phone(std::move(key)),
          bytes(wanted),
          isLoose(loose) {}

    const Executor queue;
    asio::steady_timer news; ///< never rings, is cancelled when there is room; on the queue
    const std::string phone;
    const std::int64_t bytes;
    const bool isLoose;
    bool isGranted = false;
};

/// Somebody's place in line; leaves it, and gives back what was granted, unless it is taken.
class FrameRoom::Place {
public:
    Place(FrameRoom& room, WaiterRef waiter) : room_(room), waiter_(std::move(waiter)) {}
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
    const Executor executor = co_await asio::this_coro::executor;
    const auto wanted = static_cast<std::int64_t>(bytes);
    const bool isLoose = !isInTransfer_ && wanted > limits::dataFrameBytes;
    const auto waiter = std::make_shared<Waiter>(executor, phone_, wanted, isLoose);
    {
        const std::lock_guard guard(room_.lock_);
        room_.line_.push_back(waiter);
        room_.serveLine();
    }
    Place place(room_, waiter);
    while (!room_.isGranted(*waiter)) {
        try {
            co_await waiter->news.async_wait(asio::experimental::as_tuple(asio::use_awaitable));
        } catch (const std::exception& error) {
            if (platform::isCancellation(error)) {
                throw platform::Cancelled(); // the task was cancelled before it came here
            }
            throw;
        }
        const asio::cancellation_state state = co_await asio::this_coro::cancellation_state;
        if (state.cancelled() != asio::cancellation_type::none) {
            throw platform::Cancelled();
        }
    }
    place.take();
    held_ = wanted;
    isHeldLoosely_ = isLoose;
}

void FrameRoom::Share::release() noexcept {
    if (held_ > 0) {
        const std::lock_guard guard(room_.lock_);
        room_.giveBackLocked(phone_, std::exchange(held_, 0), std::exchange(isHeldLoosely_, false));
    }
}

/// Grants what there is room for. Under the lock.
void FrameRoom::serveLine() {
    for (auto at = line_.begin(); at != line_.end();) {
        const WaiterRef waiter = *at;
        if (isHeldUpByItself(*waiter)) {
            ++at;
            continue;
        }
        if (held_ + waiter->bytes > limits::frameBytes) {
            return; // nobody overtakes it, or it would never get through
        }
        Phone& phone = phones_[waiter->phone];
        phone.held += waiter->bytes;
        phone.hasLoose = phone.hasLoose || waiter->isLoose;
        held_ += waiter->bytes;
        waiter->isGranted = true;
        at = line_.erase(at);
        asio::post(waiter->queue, [waiter] { waiter->news.cancel(); });
    }
}

bool FrameRoom::isHeldUpByItself(const Waiter& waiter) {
    const auto phone = phones_.find(waiter.phone);
    return phone != phones_.end() && (phone->second.held + waiter.bytes > limits::frameBytesOfOnePhone ||
                                      (waiter.isLoose && phone->second.hasLoose));
}

bool FrameRoom::isGranted(const Waiter& waiter) const {
    const std::lock_guard guard(lock_);
    return waiter.isGranted;
}

void FrameRoom::leave(const WaiterRef& waiter) noexcept {
    const std::lock_guard guard(lock_);
    if (waiter->isGranted) {
        giveBackLocked(waiter->phone, waiter->bytes, waiter->isLoose);
    } else {
        line_.remove(waiter);
        serveLine(); // it may have been in the way of others
    }
}

void FrameRoom::giveBackLocked(const std::string& phone, std::int64_t bytes, bool isLoose) noexcept {
    const auto at = phones_.find(phone);
    held_ -= bytes;
    at->second.held -= bytes;
    at->second.hasLoose = at->second.hasLoose && !isLoose;
    if (at->second.held == 0) {
        phones_.erase(at);
    }
    serveLine();
}

std::int64_t FrameRoom::heldBytes() const {
    const std::lock_guard guard(lock_);
    return held_;
}

std::size_t FrameRoom::waiting() const {
    const std::lock_guard guard(lock_);
    return line_.size();
}

} // namespace orlinth
