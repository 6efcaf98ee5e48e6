#include "orlinth/PeerStoreWatch.h"

#include "platform/SystemError.h"

#include <utility>

namespace orlinth::host {

PeerStoreWatch::PeerStoreWatch(Host& host, std::function<void()> onChange)
    : host_(host), onChange_(std::move(onChange)), backstop_(host.system.clock.makeTimer(host.tasks.executor())) {}

void PeerStoreWatch::start() {
    self_ = std::make_shared<PeerStoreWatch*>(this);
    try {
        watch_ = host_.system.folders.watch(host_.peers().directoryURL(), host_.tasks.executor(),
                                            [weak = std::weak_ptr(self_)] {
                                                if (const auto self = weak.lock()) {
                                                    (*self)->look();
                                                }
                                            });
    } catch (const platform::SystemError& error) {
        host_.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "serve",
                               "cannot watch the peer store: " + error.description());
    }
    static_cast<void>(hasChanged());
    onChange_();
    lookAgainLater();
}

void PeerStoreWatch::stop() noexcept {
    self_.reset();
    watch_.reset();
    backstop_->disarm();
}

void PeerStoreWatch::lookAgainLater() {
    backstop_->arm(backstopSeconds, [this] {
        look();
        lookAgainLater();
    });
}

void PeerStoreWatch::look() {
    if (hasChanged()) {
        onChange_();
    }
}

bool PeerStoreWatch::hasChanged() {
    try {
        return check_.look(host_.system.files, host_.system.clock, host_.peers().fileURL()) !=
               FileChangeCheck::Answer::same;
    } catch (const platform::SystemError&) {
        return true; // whoever reads the store will meet the same
    }
}

} // namespace orlinth::host
