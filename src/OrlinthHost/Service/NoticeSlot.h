#pragma once

#include "OrlinthHost/Service/NoticeBoard.h"
#include "platform/Notifications.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

namespace orlinth::host {

/// A place on the desktop for one notification, which says one thing after the other. What it says stays when this
/// goes, and can still be answered.
///
/// Threading: on the home's executor.
class NoticeSlot {
public:
    /// Gets every key that somebody presses, as long as it is there.
    using OnKey = std::function<void(const platform::NotificationAnswer&)>;

    /// What `board` refers to outlives this.
    explicit NoticeSlot(NoticeBoard board) : board_(std::move(board)) {}

    /// Says this from now on; anew if somebody has closed what it said. The tag is set here. If nobody wants
    /// notifications just now, what it said is taken away, and that is as if somebody had closed it.
    void show(platform::Notification notification, OnKey onKey);
    /// Takes it away.
    void close();
    /// It is on the desktop, as far as that tells.
    [[nodiscard]] bool isShown() const noexcept { return state_ && state_->isThere; }
    /// Somebody has closed or answered what was shown last, or it could not be shown.
    [[nodiscard]] bool isDismissed() const noexcept { return state_ && !state_->isThere; }

private:
    struct State {
        std::uint64_t tag = 0;
        bool isThere = true;
        std::uint64_t shows = 0; ///< how often something was shown
    };

    NoticeBoard board_;
    std::shared_ptr<State> state_; ///< null before something is shown, and when it was taken away
};

} // namespace orlinth::host
