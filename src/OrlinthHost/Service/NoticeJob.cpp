#include "OrlinthHost/Service/NoticeJob.h"

#include <utility>

namespace orlinth::host {

bool NoticeJob::show(platform::JobViews* jobs, const platform::Notification& progress, const Figures& figures,
                     std::function<void()> onCancel) {
    if (jobs == nullptr) {
        view_.reset(); // there may have been some before
        return false;
    }
    platform::Job job{.title = progress.title,
                      .percent = progress.percent.value_or(0),
                      .bytes = figures.bytes,
                      .bytesPerSecond = figures.bytesPerSecond,
                      .folder = figures.folder};
    if (view_) {
        view_->update(job);
    } else {
        view_ = jobs->show(std::move(job), std::move(onCancel));
    }
    return view_->state() != platform::JobView::State::refused;
}

void NoticeJob::fail(const std::string& why) {
    if (view_) {
        view_->fail(why);
        view_.reset();
    }
}

} // namespace orlinth::host
