#include "orlinth/OutboxLookout.h"

#include "OrlinthCore/Share/ShareOutbox.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <utility>

namespace orlinth::host {

OutboxLookout::OutboxLookout(Host& host, std::function<void()> onLook)
    : host_(host),
      onLook_(std::move(onLook)),
      gather_(host.system.clock.makeTimer(host.tasks.executor())),
      backstop_(host.system.clock.makeTimer(host.tasks.executor())) {}

void OutboxLookout::start() {
    self_ = std::make_shared<OutboxLookout*>(this);
    bell_ = host_.system.signals.listen(ShareOutbox::pendingNotification, host_.tasks.executor(),
                                        [weak = std::weak_ptr(self_)] {
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
        gather_->arm(gatherSeconds, [this] { look(); });
    }
}

void OutboxLookout::look() {
    isGathering_ = false;
    gather_->disarm();
    onLook_();
    if (self_) {
        backstop_->arm(isUnwatched() ? unwatchedSeconds : backstopSeconds, [this] { look(); });
    }
}

void OutboxLookout::watch(const std::optional<platform::Path>& outbox, const std::set<platform::Path>& incomplete) {
    std::set<platform::Path> wanted = incomplete;
    if (outbox) {
        wanted.insert(*outbox);
    }
    std::erase_if(watched_, [this, &wanted](const auto& entry) {
        return !wanted.contains(entry.first) || !entry.second.watch || entry.second.inode != inodeOf(entry.first);
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
    Watched watched{.watch = nullptr, .inode = inodeOf(folder)};
    try {
        watched.watch = host_.system.folders.watch(folder, host_.tasks.executor(), [weak = std::weak_ptr(self_)] {
            if (const auto self = weak.lock()) {
                (*self)->lookSoon();
            }
        });
    } catch (const platform::SystemError& error) {
        host_.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "outbox",
                               "cannot watch " + folder.string() + ": " + error.description());
    }
    return watched;
}

std::uint64_t OutboxLookout::inodeOf(const platform::Path& folder) const {
    try {
        const std::optional<platform::FileStatus> status = host_.system.files.status(folder);
        return status ? status->inode : 0;
    } catch (const platform::SystemError&) {
        return 0;
    }
}

} // namespace orlinth::host
