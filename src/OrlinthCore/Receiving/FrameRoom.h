#pragma once

#include "OrlinthCore/Receiving/ReceivingLimits.h"
#include "base/Mutex.h"
#include "base/StrongText.h"

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>

namespace orlinth {

/// The memory of large frames on their way in, shared by all phones: limits::frameBytes together, and
/// limits::frameBytesOfOnePhone each. Who finds no room waits in line and is not read meanwhile; nobody is refused.
///
///     frame is announced ── up to freeBytes are read ── claim() ──room, or waiting in line──▶ the rest is read ──
///     release()
///
/// A whole frame is granted or nothing of it, so those who hold room never wait for more. The line goes in order, but
/// for those who wait only because of what their own phone holds, and for frames larger than those of data: they share
/// limits::largeFrameBytes, in an order of their own.
///
/// Threading: any thread; a share belongs to its connection's executor.
class FrameRoom {
public:
    FrameRoom() = default;
    FrameRoom(const FrameRoom&) = delete;
    FrameRoom& operator=(const FrameRoom&) = delete;

    /// What one connection holds; given back with the object.
    class Share final : public FrameGate {
    public:
        /// `room` outlives the share.
        Share(FrameRoom& room, PeerKey peerKey) : room_(room), peerKey_(std::move(peerKey)) {}
        ~Share() override { release(); }
        Share(const Share&) = delete;
        Share& operator=(const Share&) = delete;

        [[nodiscard]] std::size_t freeBytes() const noexcept override { return limits::freeFrameBytes; }
        [[nodiscard]] Task<> claim(std::size_t bytes) override;
        /// The frame has been used, and its memory may go to others.
        void release() noexcept;
        /// From now on its frames are the data of a file that was accepted: several large ones at once are fine.
        void beginTransfer() noexcept { isInTransfer_ = true; }

    private:
        FrameRoom& room_;
        PeerKey peerKey_;
        bool isInTransfer_ = false;
        std::int64_t held_ = 0;
        bool isHeldLoosely_ = false; ///< as the one large frame outside a transfer
    };

    /// For diagnostics and tests.
    [[nodiscard]] std::int64_t heldBytes() const;
    [[nodiscard]] std::size_t waiting() const;

private:
    struct Waiter;
    class Place;
    using WaiterRef = std::shared_ptr<Waiter>;
    struct Phone {
        std::int64_t held = 0;
        bool hasLoose = false;
    };

    [[nodiscard]] bool grantAtOnce(const PeerKey& peerKey, std::int64_t bytes, bool isLoose);
    void enter(const WaiterRef& waiter);
    void serveLine() ORLINTH_REQUIRES(lock_);
    [[nodiscard]] bool isHeldUpByItself(const PeerKey& peerKey, std::int64_t bytes, bool isLoose) const
        ORLINTH_REQUIRES(lock_);
    [[nodiscard]] bool hasRoomForLarge(std::int64_t bytes) const ORLINTH_REQUIRES(lock_);
    void grant(const PeerKey& peerKey, std::int64_t bytes, bool isLoose) ORLINTH_REQUIRES(lock_);
    void leave(const WaiterRef& waiter) noexcept;
    void giveBackLocked(const PeerKey& peerKey, std::int64_t bytes, bool isLoose) noexcept ORLINTH_REQUIRES(lock_);

    mutable Mutex lock_;
    std::int64_t held_ ORLINTH_GUARDED_BY(lock_) = 0;
    std::int64_t heldByLarge_ ORLINTH_GUARDED_BY(lock_) = 0;    ///< of that, by frames larger than those of data
    std::map<PeerKey, Phone> phones_ ORLINTH_GUARDED_BY(lock_); ///< those that hold something
    std::list<WaiterRef> line_ ORLINTH_GUARDED_BY(lock_);
};

} // namespace orlinth
