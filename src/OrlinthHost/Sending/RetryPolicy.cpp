#include "OrlinthHost/Sending/RetryPolicy.h"

#include <array>

namespace orlinth::host {

Seconds RetryPolicy::pauseAfter(int failures) noexcept {
    constexpr std::array<Seconds, 6> pauses{5s, 15s, 1min, 5min, 15min, 1h};
    const std::size_t step = failures < 1 ? 0 : static_cast<std::size_t>(failures) - 1;
    return step < pauses.size() ? pauses.at(step) : pauses.back();
}

void RetryPolicy::began() noexcept {
    if (underWay_++ == 0) {
        state_ = State::sending;
    }
}

std::optional<Seconds> RetryPolicy::ended(Outcome outcome, Instant now) noexcept {
    --underWay_;
    std::optional<Seconds> pauseNow;
    switch (outcome) {
    case Outcome::delivered:
        failures_ = 0;
        isOutOfTurn_ = false;
        break;
    case Outcome::answered:
        failures_ = 0;
        break;
    case Outcome::moved:
        failures_ = 0;
        [[fallthrough]];
    case Outcome::failed:
        if (state_ == State::hopeful && !isOutOfTurn_) {
            isOutOfTurn_ = true;
            state_ = State::sending;
        } else {
            pauseNow = pause(now);
        }
        break;
    case Outcome::nothing:
        break;
    }
    settle();
    return pauseNow;
}

Seconds RetryPolicy::pause(Instant now) noexcept {
    state_ = State::pausing;
    pausedAt_ = now;
    return pauseAfter(++failures_);
}

void RetryPolicy::pauseIsOver() noexcept {
    isOutOfTurn_ = false;
    state_ = underWay_ > 0 ? State::sending : State::idle;
}

bool RetryPolicy::reasonToHope() noexcept {
    failures_ = 0;
    if (underWay_ > 0) {
        hopeForTheNext();
        return false;
    }
    isOutOfTurn_ = false;
    state_ = State::idle;
    return true;
}

bool RetryPolicy::heard(Instant now) noexcept {
    if (underWay_ > 0) {
        hopeForTheNext();
        return false;
    }
    const bool isEcho = state_ == State::pausing && now - pausedAt_ < echoTime;
    if (isEcho && isOutOfTurn_) {
        return false;
    }
    if (!isEcho) {
        failures_ = 0;
    }
    isOutOfTurn_ = true;
    state_ = State::idle;
    return true;
}

bool RetryPolicy::returned(Instant now) noexcept {
    const bool isTooSoon = returnedAt_ && now - *returnedAt_ < returnInterval;
    if (state_ != State::pausing || underWay_ > 0 || isTooSoon) {
        return false;
    }
    returnedAt_ = now;
    isOutOfTurn_ = false; // a phone that calls because of this attempt's push may get another one
    state_ = State::idle;
    return true;
}

/// A pause goes on: it has its reason, and what is under way shows whether the phone is there.
void RetryPolicy::hopeForTheNext() noexcept {
    if (state_ == State::sending) {
        state_ = State::hopeful;
    }
}

void RetryPolicy::settle() noexcept {
    if (underWay_ == 0 && state_ != State::pausing) {
        state_ = State::idle;
    }
}

} // namespace orlinth::host
