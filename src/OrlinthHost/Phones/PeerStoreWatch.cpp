#include "OrlinthHost/Phones/PeerStoreWatch.h"

#include "platform/SystemError.h"

#include <utility>

namespace orlinth::host {

PeerStoreWatch::PeerStoreWatch(Home& home, std::function<void()> onChange)
    : home_(home), onChange_(std::move(onChange)), backstop_(home.system.clock.makeTimer(home.executor)) {}

void PeerStoreWatch::start() {
    self_ = std::make_shared<PeerStoreWatch*>(this);
    try {
        watch_ = home_.system.folders.watchFile(home_.peers().fileURL(), home_.executor, [weak = std::weak_ptr(self_)] {
            if (const auto self = weak.lock()) {
                (*self)->look();
            }
        });
    } catch (const platform::SystemError& error) {
        home_.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "serve",
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
    backstop_->arm(backstopInterval, [this] {
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
        return check_.look(home_.system.files, home_.system.clock, home_.peers().fileURL()) !=
               platform::FileChangeCheck::Answer::same;
    } catch (const platform::SystemError&) {
        return true; // whoever reads the store will meet the same
    }
}

} // namespace orlinth::host
