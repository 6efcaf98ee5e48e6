#pragma once

#include "platform/Clock.h"

#include <cstddef>
#include <optional>

namespace orlinth::host {

/// When a phone is tried again after a failure: after pauses that grow, and at once when there is reason to hope.
///
///                 began()                    reasonToHope()
///      idle ──────────────────▶ sending ──────────────────────▶ hopeful
///       ▲ ▲                      │   │                           │  │
///       │ └── ended(), the last ─┴───┼───────────────────────────┘  │
///       │                            │ ended(failed)                │ ended(failed): once at once, the next
///       │ pauseIsOver(), or          ▼                              │ time as from sending
///       └── reason to hope, if ── pausing ◀─────────────────────────┘
///           nothing is under way
///
/// An attempt that is made at once, out of its turn, is not followed by another such one: if each of them is a push
/// that makes the phone call, and so a reason to hope, that would go on for ever.
///
/// Plain values: an event and the time in, what to do out. Several attempts may be under way.
class RetryPolicy {
public:
    using Instant = platform::Clock::Instant;

    /// How long a pause has lasted after which being heard of is not taken for an answer to our own push.
    static constexpr Seconds echoTime = 60s;
    /// Within this time a phone that comes and goes in the network is tried once for that.
    static constexpr Seconds returnInterval = 600s;
    /// The pause from the n-th failure in a row, counted from 1, to the next attempt.
    [[nodiscard]] static Seconds pauseAfter(int failures) noexcept;

    enum class State {
        idle,    ///< nothing is under way; whatever comes may begin
        sending, ///< attempts are under way, and more may begin
        hopeful, ///< the same, and since the first began there has been reason to hope that the next one succeeds
        pausing  ///< nothing may begin until the pause is over; what is under way goes on
    };

    /// How an attempt ended.
    enum class Outcome {
        delivered, ///< the phone has a file
        answered,  ///< it has not, but the phone was there
        moved,     ///< the connection broke, and the phone has got more of a file than the time before
        failed,    ///< and it has not
        nothing    ///< which says nothing about the phone: the attempt had company, or was called off
    };

    [[nodiscard]] State state() const noexcept { return state_; }
    /// In a row, up to now.
    [[nodiscard]] int failures() const noexcept { return failures_; }
    [[nodiscard]] bool mayBegin() const noexcept { return state_ != State::pausing; }

    /// An attempt begins. The policy permits it.
    void began() noexcept;
    /// One that had begun is over. Returns how long to pause, from now, if a pause begins.
    [[nodiscard]] std::optional<Seconds> ended(Outcome outcome, Instant now) noexcept;
    /// A failure before anything could begin, or one after which the phone is to be left alone for a while. Returns how
    /// long to pause.
    [[nodiscard]] Seconds pause(Instant now) noexcept;
    /// The time has passed.
    void pauseIsOver() noexcept;
    /// Somebody asks for the phone, its address has changed, or there is something new for it. What was failed before
    /// does not count any more. Returns whether to try now, and a pause is over by that; while something is under way
    /// it goes on.
    [[nodiscard]] bool reasonToHope() noexcept;
    /// The phone was heard of, which may be the answer to the push of an attempt that has failed all the same; the next
    /// one would fail so too, and push. Returns whether to try now, as reasonToHope().
    [[nodiscard]] bool heard(Instant now) noexcept;
    /// Its device seems to be in the network again. That is less than being heard of: a phone that dozes comes and goes
    /// each minute, and each attempt may push. So failures before still count, and what is under way goes on without
    /// hope. Returns whether to try now, and a pause is over by that: at most once in returnInterval.
    [[nodiscard]] bool returned(Instant now) noexcept;

private:
    void hopeForTheNext() noexcept;
    void settle() noexcept;

    State state_ = State::idle;
    std::size_t underWay_ = 0;
    int failures_ = 0;                  ///< in a row
    Instant pausedAt_{};                ///< while pausing
    std::optional<Instant> returnedAt_; ///< when it was last tried for that
    bool isOutOfTurn_ = false;          ///< the attempt under way, or the last, was made at once for hope
};

} // namespace orlinth::host
