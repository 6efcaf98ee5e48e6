#pragma once

#include "base/Progress.h"
#include "platform/JobViews.h"
#include "platform/Notifications.h"

#include <functional>
#include <memory>
#include <string>

namespace orlinth::host {

/// The view of a job, if the desktop has one, in place of a notification of progress.
///
/// Threading: on the home's executor.
class NoticeJob {
public:
    /// What takes long, beside what its notification says.
    struct Figures {
        Progress bytes = {}; ///< nothing of 0 if that is not known
        std::int64_t bytesPerSecond = 0;
        platform::Path folder = {}; ///< where it goes; "" if it goes to a phone, or that is not known
    };

    /// Shows what the notification would. Returns whether the desktop does so, or may yet: then there is no need for
    /// the notification. `jobs` may be null, and then a view that is there is taken away; it outlives this. `onCancel`
    /// outlives what it refers to.
    [[nodiscard]] bool show(platform::JobViews* jobs, const platform::Notification& progress, const Figures& figures,
                            std::function<void()> onCancel);
    /// Whether nobody knows yet: show() is to be called again soon.
    [[nodiscard]] bool isAsked() const noexcept { return view_ && view_->state() == platform::JobView::State::asked; }
    /// It has ended well, or was taken back.
    void end() noexcept { view_.reset(); }
    /// It has failed, for what these words say.
    void fail(const std::string& why);

private:
    std::unique_ptr<platform::JobView> view_;
};

} // namespace orlinth::host
