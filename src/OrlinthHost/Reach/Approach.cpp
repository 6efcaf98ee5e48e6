#include "OrlinthHost/Reach/Approach.h"

#include "OrlinthHost/Phones/MetPhones.h"
#include "OrlinthHost/Reach/Refusal.h"
#include "platform/Cancelled.h"

namespace orlinth::host {

Approach::Approach(Finder* finder, PeerRecord phone, MaySweep maySweep, std::function<void(const PeerRecord&)> onMoved)
    : finder_(finder), phone_(std::move(phone)), maySweep_(maySweep), onMoved_(std::move(onMoved)) {}

void Approach::begin() {
    isConnected_ = false;
    isProved_ = false;
    isAsleep_ = false;
    if (finder_ != nullptr && mayMove_) {
        search_ = finder_->begin(phone_, maySweep_);
    }
}

void Approach::onUnreached(const std::exception& error) {
    if (!search_) {
        return;
    }
    isAsleep_ = isRefusal(error) && !isAtAnothersAddress(finder_->home(), phone_);
    if (isAsleep_) {
        search_->giveUp();
    } else {
        search_->hurry();
    }
}

void Approach::onConnected() {
    isConnected_ = true;
}

void Approach::onWaking() {
    if (search_) {
        search_->wokenUp();
    }
}

void Approach::onProved() {
    isProved_ = true;
    search_.reset();
}

/// Returns when the phone was found elsewhere and there is no connection, or when it is cancelled.
Task<> Approach::untilCalledOff() {
    try {
        co_await search_->untilFound([this] { return !isConnected_ && !isProved_; });
    } catch (const std::exception& error) {
        if (!platform::isCancellation(error)) {
            throw;
        }
    }
}

Task<> Approach::untilSearched(std::exception_ptr error) {
    if (!search_) {
        co_return;
    }
    const bool isPhoneAsleep = isRefusal(error); // onUnreached() has seen it, and decided
    if (!isPhoneAsleep) {
        search_->hurry();
    }
    co_await search_->untilOver();
}

bool Approach::move() {
    const std::optional<HostAddress> found = search_ ? search_->found() : std::nullopt;
    search_.reset();
    if (!found || !mayMove_) {
        return false;
    }
    mayMove_ = false;
    finder_->learnMoved(phone_, *found);
    phone_.peer_ip = found->literal();
    if (onMoved_) {
        onMoved_(phone_);
    }
    return true;
}

void Approach::end(bool hasFailed) {
    search_.reset();
    if (finder_ == nullptr) {
        return;
    }
    if (isProved_) {
        finder_->learnReached(phone_);
    } else if (hasFailed && !isAsleep_) {
        finder_->learnFailed(phone_);
    }
}

} // namespace orlinth::host
