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
    auto onAnswer = [weak = std::weak_ptr(state_), isResident,
                     onKey = std::move(onKey)](const platform::NotificationAnswer& answer) {
        if (const std::shared_ptr<State> state = weak.lock(); state && (answer.key.empty() || !isResident)) {
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
