#include "OrlinthCore/Sending/ActiveTransfers.h"

#include <asio/this_coro.hpp>

#include <algorithm>
#include <atomic>
#include <limits>
#include <utility>

namespace orlinth {
namespace {

std::uint64_t nextIdentity() noexcept {
    static std::atomic<std::uint64_t> last = 0; // never used twice, where an object's address would be
    return ++last;
}

bool isSame(const TransferConnectionRef& one, const TransferConnectionRef& other) noexcept {
    return one->identity() == other->identity();
}

} // namespace

TransferConnection::TransferConnection(PeerKey peerKey, std::function<void()> cancel)
    : identity_(nextIdentity()), peerKey_(std::move(peerKey)), cancel_(std::move(cancel)) {}

ActiveTransfers& ActiveTransfers::shared() {
    static ActiveTransfers transfers;
    return transfers;
}

ActiveTransfers::Moment ActiveTransfers::now() const {
    const MutexLock guard(lock_);
    return lastClaim_;
}

TransferConnectionRef ActiveTransfers::claim(const TransferId& id, const TransferConnectionRef& connection) {
    const MutexLock guard(lock_);
    return claimLocked(id, connection);
}

TransferConnectionRef ActiveTransfers::claimLocked(const TransferId& id, const TransferConnectionRef& connection) {
    Owner before = std::exchange(owners_[id], {.connection = connection, .claimedAt = ++lastClaim_});
    tellWaiters();
    return before.connection && !isSame(before.connection, connection) ? std::move(before.connection) : nullptr;
}

void ActiveTransfers::release(const TransferId& id, const TransferConnectionRef& connection) {
    const MutexLock guard(lock_);
    releaseLocked(id, connection);
}

void ActiveTransfers::releaseLocked(const TransferId& id, const TransferConnectionRef& connection) {
    const auto owner = owners_.find(id);
    if (owner != owners_.end() && isSame(owner->second.connection, connection)) {
        owners_.erase(owner);
        tellWaiters();
    }
}

bool ActiveTransfers::isReleased(const TransferConnectionRef& connection) const {
    const MutexLock guard(lock_);
    return isReleasedLocked(connection);
}

bool ActiveTransfers::isReleasedLocked(const TransferConnectionRef& connection) const {
    const bool ownsNothing = std::none_of(
        owners_.begin(), owners_.end(), [&](const auto& entry) { return isSame(entry.second.connection, connection); });
    const auto firstDraining = draining_.lower_bound({connection->identity(), TransferId()});
    const bool drains = firstDraining != draining_.end() && firstDraining->first.first == connection->identity();
    return ownsNothing && !drains;
}

ActiveTransfers::Takeover ActiveTransfers::takeOver(const TransferId& id, const TransferConnectionRef& connection) {
    return takeOver(id, connection, std::numeric_limits<Moment>::max());
}

ActiveTransfers::Takeover ActiveTransfers::takeOver(const TransferId& id, const TransferConnectionRef& connection,
                                                    Moment offeredAt) {
    const MutexLock guard(lock_);
    const auto isForeign = [&](const TransferConnectionRef& other) {
        return other->peerKey() != connection->peerKey();
    };
    const auto owner = owners_.find(id);
    const bool isOwnedElsewhere = owner != owners_.end() && isForeign(owner->second.connection);
    const bool drainsElsewhere = std::any_of(draining_.begin(), draining_.end(), [&](const auto& entry) {
        return entry.first.second == id && isForeign(entry.second);
    });
    if (isOwnedElsewhere || drainsElsewhere) {
        return {.refusal = Takeover::Refusal::ofAnotherPhone, .displaced = nullptr};
    }
    if (owner != owners_.end() && owner->second.claimedAt > offeredAt) {
        return {.refusal = Takeover::Refusal::hasNewerOwner, .displaced = nullptr};
    }
    TransferConnectionRef before = claimLocked(id, connection);
    if (!before) {
        return {};
    }
    draining_.emplace(DrainingKey(before->identity(), id), before);
    return {.refusal = Takeover::Refusal::none, .displaced = std::move(before)};
}

bool ActiveTransfers::mayProceed(const TransferId& id, const TransferConnectionRef& connection) const {
    const MutexLock guard(lock_);
    const auto owner = owners_.find(id);
    const bool isOwner = owner != owners_.end() && isSame(owner->second.connection, connection);
    return isOwner && std::none_of(draining_.begin(), draining_.end(), [&](const auto& entry) {
               lock_.assertHeld();
               return entry.first.second == id && !isReleasedLocked(entry.second);
           });
}

void ActiveTransfers::finish(const TransferId& id, const TransferConnectionRef& connection) {
    const MutexLock guard(lock_);
    releaseLocked(id, connection);
    if (draining_.erase({connection->identity(), id}) > 0) {
        tellWaiters();
    }
}

/// Who owns what, or who winds down, has changed. The lock keeps those in the list alive.
void ActiveTransfers::tellWaiters() {
    for (platform::Event* const waiter : waiters_) {
        waiter->set();
    }
}

/// Somebody who is told of each change, on its own executor.
class ActiveTransfers::Waiter {
public:
    Waiter(ActiveTransfers& transfers, Executor executor) : transfers_(transfers), changed_(std::move(executor)) {
        const MutexLock guard(transfers_.lock_);
        place_ = transfers_.waiters_.insert(transfers_.waiters_.end(), &changed_);
    }
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;
    ~Waiter() {
        const MutexLock guard(transfers_.lock_);
        transfers_.waiters_.erase(place_);
    }
    [[nodiscard]] platform::Event& changed() noexcept { return changed_; }

private:
    ActiveTransfers& transfers_;
    platform::Event changed_;
    std::list<platform::Event*>::iterator place_;
};

Task<> ActiveTransfers::waitUntilDrained(TransferId id, TransferConnectionRef connection) {
    if (mayProceed(id, connection)) {
        co_return;
    }
    const Executor executor = co_await asio::this_coro::executor;
    Waiter waiter(*this, executor);
    while (!mayProceed(id, connection)) { // what changes from here on is told
        co_await waiter.changed().wait();
        waiter.changed().reset();
    }
}

std::size_t ActiveTransfers::ownerCount() const {
    const MutexLock guard(lock_);
    return owners_.size();
}

std::size_t ActiveTransfers::drainingCount() const {
    const MutexLock guard(lock_);
    return draining_.size();
}

} // namespace orlinth
