#include "OrlinthCore/Sending/ActiveTransfers.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <utility>

namespace orlinth {
namespace {

/// How often a waiting connection looks again. Short against a round trip through a phone's radio.
constexpr double secondsBetweenLooks = 0.01;

std::uint64_t nextIdentity() noexcept {
    static std::atomic<std::uint64_t> last = 0; // never used twice, where an object's address would be
    return ++last;
}

bool isSame(const TransferConnectionRef& one, const TransferConnectionRef& other) noexcept {
    return one->identity() == other->identity();
}

} // namespace

TransferConnection::TransferConnection(std::string peerPubkey, std::function<void()> cancel)
    : identity_(nextIdentity()), peerPubkey_(std::move(peerPubkey)), cancel_(std::move(cancel)) {}

ActiveTransfers& ActiveTransfers::shared() {
    static ActiveTransfers transfers;
    return transfers;
}

ActiveTransfers::Moment ActiveTransfers::now() const {
    const std::lock_guard guard(lock_);
    return lastClaim_;
}

TransferConnectionRef ActiveTransfers::claim(const std::string& key, const TransferConnectionRef& connection) {
    const std::lock_guard guard(lock_);
    return claimLocked(key, connection);
}

TransferConnectionRef ActiveTransfers::claimLocked(const std::string& key, const TransferConnectionRef& connection) {
    Owner before = std::exchange(owners_[key], {.connection = connection, .claimedAt = ++lastClaim_});
    return before.connection && !isSame(before.connection, connection) ? std::move(before.connection) : nullptr;
}

void ActiveTransfers::release(const std::string& key, const TransferConnectionRef& connection) {
    const std::lock_guard guard(lock_);
    releaseLocked(key, connection);
}

void ActiveTransfers::releaseLocked(const std::string& key, const TransferConnectionRef& connection) {
    const auto owner = owners_.find(key);
    if (owner != owners_.end() && isSame(owner->second.connection, connection)) {
        owners_.erase(owner);
    }
}

bool ActiveTransfers::isReleased(const TransferConnectionRef& connection) const {
    const std::lock_guard guard(lock_);
    return isReleasedLocked(connection);
}

bool ActiveTransfers::isReleasedLocked(const TransferConnectionRef& connection) const {
    const bool ownsNothing = std::none_of(
        owners_.begin(), owners_.end(), [&](const auto& entry) { return isSame(entry.second.connection, connection); });
    const auto firstDraining = draining_.lower_bound({connection->identity(), ""});
    const bool drains = firstDraining != draining_.end() && firstDraining->first.first == connection->identity();
    return ownsNothing && !drains;
}

ActiveTransfers::Takeover ActiveTransfers::takeOver(const std::string& key, const TransferConnectionRef& connection) {
    return takeOver(key, connection, std::numeric_limits<Moment>::max());
}

ActiveTransfers::Takeover ActiveTransfers::takeOver(const std::string& key, const TransferConnectionRef& connection,
                                                    Moment offeredAt) {
    const std::lock_guard guard(lock_);
    const auto isForeign = [&](const TransferConnectionRef& other) {
        return other->peerPubkey() != connection->peerPubkey();
    };
    const auto owner = owners_.find(key);
    const bool isOwnedElsewhere = owner != owners_.end() && isForeign(owner->second.connection);
    const bool drainsElsewhere = std::any_of(draining_.begin(), draining_.end(), [&](const auto& entry) {
        return entry.first.second == key && isForeign(entry.second);
    });
    if (isOwnedElsewhere || drainsElsewhere) {
        return {.refusal = Takeover::Refusal::ofAnotherPhone, .displaced = nullptr};
    }
    if (owner != owners_.end() && owner->second.claimedAt > offeredAt) {
        return {.refusal = Takeover::Refusal::hasNewerOwner, .displaced = nullptr};
    }
    TransferConnectionRef before = claimLocked(key, connection);
    if (!before) {
        return {};
    }
    draining_.emplace(DrainingKey(before->identity(), key), before);
    return {.refusal = Takeover::Refusal::none, .displaced = std::move(before)};
}

bool ActiveTransfers::mayProceed(const std::string& key, const TransferConnectionRef& connection) const {
    const std::lock_guard guard(lock_);
    const auto owner = owners_.find(key);
    const bool isOwner = owner != owners_.end() && isSame(owner->second.connection, connection);
    return isOwner && std::none_of(draining_.begin(), draining_.end(), [&](const auto& entry) {
               return entry.first.second == key && !isReleasedLocked(entry.second);
           });
}

void ActiveTransfers::finish(const std::string& key, const TransferConnectionRef& connection) {
    const std::lock_guard guard(lock_);
    releaseLocked(key, connection);
    draining_.erase({connection->identity(), key});
}

std::size_t ActiveTransfers::ownerCount() const {
    const std::lock_guard guard(lock_);
    return owners_.size();
}

std::size_t ActiveTransfers::drainingCount() const {
    const std::lock_guard guard(lock_);
    return draining_.size();
}

Task<> waitUntilDrained(const ActiveTransfers& transfers, platform::Clock& clock, std::string key,
                        TransferConnectionRef connection) {
    while (!transfers.mayProceed(key, connection)) {
        co_await clock.sleep(secondsBetweenLooks);
    }
}

} // namespace orlinth
