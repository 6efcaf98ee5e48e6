#include "orlinth/HandshakeLimit.h"

namespace orlinth::host {

HandshakeLimit::HandshakeLimit(platform::Clock& clock, TaskRunner& runner)
    : runner_(runner), timer_(clock.makeTimer(runner.executor())) {}

void HandshakeLimit::begin() {
    timer_->arm(seconds, [this] {
        expired_ = true;
        runner_.cancel();
    });
}

void HandshakeLimit::end() noexcept {
    timer_->disarm();
}

std::string HandshakeLimit::text() {
    return "timed out after " + std::to_string(seconds) + " seconds";
}

} // namespace orlinth::host
