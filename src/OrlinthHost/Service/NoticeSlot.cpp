#include "OrlinthHost/Service/NoticeSlot.h"

#include <utility>

namespace orlinth::host {

void NoticeSlot::show(platform::Notification notification, OnKey onKey) {
    if (!board_.isOn()) {
        close(); // it is not true any more
        state_ = std::make_shared<State>(State{.isThere = false});
        return;
    }
    if (!isShown()) {
        state_ = std::make_shared<State>(State{.tag = platform::Notifications::newTag()});
    }
    notification.tag = state_->tag;
    const bool isResident = notification.isResident;
    auto onAnswer = [weak = std::weak_ptr(state_), show = ++state_->shows, isResident,
                     onKey = std::move(onKey)](const platform::NotificationAnswer& answer) {
        const std::shared_ptr<State> state = weak.lock();
        const bool isLast = state && state->shows == show; // else it was on its way when something else was shown
        if (isLast && (answer.key.empty() || !isResident)) {
            state->isThere = false;
        }
        if (!answer.key.empty() && onKey) {
            onKey(answer);
        }
    };
    board_.home().system.notifications.show(std::move(notification), board_.home().executor, std::move(onAnswer));
}

void NoticeSlot::close() {
    if (isShown()) {
        board_.home().system.notifications.withdraw(state_->tag);
    }
    state_.reset();
}

} // namespace orlinth::host
