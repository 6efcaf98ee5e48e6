#pragma once

#include "base/Mutex.h"
#include "base/StrongText.h"
#include "platform/Event.h"

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <utility>

namespace orlinth {

/// One connection as the registry knows it: an identity that no other connection has had or will have, whose phone it
/// is, and a way to end it.
class TransferConnection {
public:
    /// `peerKey` is the phone's key. `cancel` ends the connection soon after; it may be called on any
    /// thread, more than once, and after the connection has ended.
    TransferConnection(PeerKey peerKey, std::function<void()> cancel);

    [[nodiscard]] std::uint64_t identity() const noexcept { return identity_; }
    [[nodiscard]] const PeerKey& peerKey() const noexcept { return peerKey_; }
    void cancel() const { cancel_(); }

private:
    std::uint64_t identity_;
    PeerKey peerKey_;
    std::function<void()> cancel_;
};

using TransferConnectionRef = std::shared_ptr<const TransferConnection>;

/// Which connection owns a transfer, by its id; and which ones were displaced and are still winding down.
///
/// A phone that reconnects takes its transfer over from the connection that it has given up, and waits until that one
/// has finished, so that two never write the same file:
///
///     claim ──▶ owner ──displaced by takeOver──▶ draining ──finish──▶ gone
///                 └───────────────finish──────────────────────────────▶ gone
///
/// Threading: any thread; every call is one step under a lock and never blocks for anything else.
class ActiveTransfers {
public:
    ActiveTransfers() = default;
    ActiveTransfers(const ActiveTransfers&) = delete;
    ActiveTransfers& operator=(const ActiveTransfers&) = delete;

    /// The one of this process.
    [[nodiscard]] static ActiveTransfers& shared();

    /// A point in the order of claims.
    using Moment = std::uint64_t;
    /// Later than every claim so far, and earlier than every one to come.
    [[nodiscard]] Moment now() const;

    /// Makes `connection` the owner, unconditionally. Returns the owner before, if that was another one.
    TransferConnectionRef claim(const TransferId& id, const TransferConnectionRef& connection);
    /// Takes the transfer back, if `connection` still owns it.
    void release(const TransferId& id, const TransferConnectionRef& connection);
    /// Whether the connection owns nothing and is not winding down either.
    [[nodiscard]] bool isReleased(const TransferConnectionRef& connection) const;

    /// What became of takeOver().
    struct Takeover {
        /// Why nothing has changed.
        enum class Refusal {
            none,           ///< it has
            ofAnotherPhone, ///< the transfer is, or was until it winds down, active under another phone's key
            hasNewerOwner,  ///< another connection has claimed it since the moment that was given
        };
        Refusal refusal = Refusal::none;
        [[nodiscard]] bool isRefused() const noexcept { return refusal != Refusal::none; }
        TransferConnectionRef displaced; ///< who was the owner, now winding down; to be cancelled by the caller
    };
    /// claim() for a connection that will wait for its predecessors: a displaced owner enters the draining ones in the
    /// same step, so that it cannot finish in between.
    [[nodiscard]] Takeover takeOver(const TransferId& id, const TransferConnectionRef& connection);
    /// The same for an offer that came at the moment `offeredAt` and had to wait for a person: refused if a newer offer
    /// of the same transfer was quicker.
    [[nodiscard]] Takeover takeOver(const TransferId& id, const TransferConnectionRef& connection, Moment offeredAt);
    /// Whether `connection` may touch what the id stands for: it is the owner, and no earlier one of this id, however
    /// far back in a chain of takeovers, is still winding down.
    [[nodiscard]] bool mayProceed(const TransferId& id, const TransferConnectionRef& connection) const;
    /// Waits until it may. @throws Cancelled
    [[nodiscard]] Task<> waitUntilDrained(TransferId id, TransferConnectionRef connection);
    /// The last step of a connection with this transfer, in every case: release(), and it no longer drains from it.
    void finish(const TransferId& id, const TransferConnectionRef& connection);

    /// For diagnostics and tests.
    [[nodiscard]] std::size_t ownerCount() const;
    [[nodiscard]] std::size_t drainingCount() const;

private:
    /// A displaced connection's identity, and what it was displaced from.
    using DrainingKey = std::pair<std::uint64_t, TransferId>;

    struct Owner {
        TransferConnectionRef connection;
        Moment claimedAt = 0;
    };

    // what the public operations of these names do, for callers that hold the lock
    [[nodiscard]] TransferConnectionRef claimLocked(const TransferId& id, const TransferConnectionRef& connection)
        ORLINTH_REQUIRES(lock_);
    void releaseLocked(const TransferId& id, const TransferConnectionRef& connection) ORLINTH_REQUIRES(lock_);
    [[nodiscard]] bool isReleasedLocked(const TransferConnectionRef& connection) const ORLINTH_REQUIRES(lock_);
    void tellWaiters() ORLINTH_REQUIRES(lock_);

    class Waiter;

    mutable Mutex lock_;
    Moment lastClaim_ ORLINTH_GUARDED_BY(lock_) = 0;
    std::map<TransferId, Owner> owners_ ORLINTH_GUARDED_BY(lock_);
    std::map<DrainingKey, TransferConnectionRef> draining_ ORLINTH_GUARDED_BY(lock_);
    std::list<platform::Event*> waiters_ ORLINTH_GUARDED_BY(lock_); ///< set at each change
};

} // namespace orlinth
