#include "OrlinthHost/Outbox/OutboxLookout.h"

#include "OrlinthCore/Share/ShareOutbox.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <utility>

namespace orlinth::host {

OutboxLookout::OutboxLookout(Home& home, std::function<void()> onLook)
    : home_(home),
      onLook_(std::move(onLook)),
      gather_(home.system.clock.makeTimer(home.executor)),
      backstop_(home.system.clock.makeTimer(home.executor)) {}

void OutboxLookout::start() {
    self_ = std::make_shared<OutboxLookout*>(this);
    bell_ =
        home_.system.busSignals.listen(ShareOutbox::pendingNotification, home_.executor, [weak = std::weak_ptr(self_)] {
            if (const auto self = weak.lock()) {
                (*self)->lookSoon();
            }
        });
    lookSoon();
}

void OutboxLookout::stop() noexcept {
    self_.reset();
    gather_->disarm();
    backstop_->disarm();
    bell_.reset();
    watched_.clear();
}

void OutboxLookout::lookSoon() {
    if (self_ && !std::exchange(isGathering_, true)) {
        gather_->arm(gatherDelay, [this] { look(); });
    }
}

void OutboxLookout::look() {
    isGathering_ = false;
    gather_->disarm();
    onLook_();
    if (self_) {
        backstop_->arm(isUnwatched() ? unwatchedInterval : backstopInterval, [this] { look(); });
    }
}

void OutboxLookout::watch(const std::optional<platform::Path>& outbox, const std::set<platform::Path>& incomplete) {
    std::set<platform::Path> wanted = incomplete;
    if (outbox) {
        wanted.insert(*outbox);
    }
    std::erase_if(watched_, [this, &wanted](const auto& entry) {
        return !wanted.contains(entry.first) || isOutdated(entry.first, entry.second);
    });
    for (const platform::Path& folder : wanted) {
        if (!watched_.contains(folder)) {
            watched_[folder] = begin(folder);
        }
    }
}

bool OutboxLookout::isUnwatched() const {
    return watched_.empty() ||
           std::any_of(watched_.begin(), watched_.end(), [](const auto& entry) { return !entry.second.watch; });
}

OutboxLookout::Watched OutboxLookout::begin(const platform::Path& folder) {
    Watched watched{.watch = nullptr, .folder = statusOf(folder)};
    try {
        watched.watch = home_.system.folders.watch(folder, home_.executor, [weak = std::weak_ptr(self_)] {
            if (const auto self = weak.lock()) {
                (*self)->lookSoon();
            }
        });
    } catch (const platform::SystemError& error) {
        home_.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "outbox",
                               "cannot watch " + folder.string() + ": " + error.description());
    }
    return watched;
}

std::optional<platform::FileStatus> OutboxLookout::statusOf(const platform::Path& folder) const {
    try {
        return home_.system.files.status(folder);
    } catch (const platform::SystemError&) {
        return std::nullopt;
    }
}

bool OutboxLookout::isOutdated(const platform::Path& folder, const Watched& watched) const {
    const std::optional<platform::FileStatus> now = statusOf(folder);
    const bool isSame = now && watched.folder ? platform::isSameFile(*now, *watched.folder)
                                              : now.has_value() == watched.folder.has_value();
    return !watched.watch || !isSame;
}

} // namespace orlinth::host
