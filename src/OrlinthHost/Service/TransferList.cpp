#include "OrlinthHost/Service/TransferList.h"

#include "base/Text.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace orlinth::host {

TransferList::TransferList(Home& home, std::function<void()> onChanged)
    : home_(home), onChanged_(std::move(onChanged)), forgetting_(home.system.clock.makeTimer(home.executor)) {}

void TransferList::began(Carrier carrier, TransferView view) {
    const TransferNumber number{++last_};
    view.number = number;
    if (view.name.size() > longestName) {
        view.name = forDisplay(view.name);
    }
    view.beganAt = home_.system.clock.now();
    running_[carrier] = {.number = number, .countedAt = home_.system.clock.now(), .counted = view.bytes.done};
    views_.emplace(number, std::move(view));
    onChanged_();
}

void TransferList::progressed(Carrier carrier, std::int64_t done) {
    const auto at = running_.find(carrier);
    if (at == running_.end()) {
        return;
    }
    Running& running = at->second;
    TransferView& view = views_.at(running.number);
    view.bytes.done = done;
    if (done >= view.bytes.total) {
        view.state = TransferView::State::finishing;
    }
    const platform::Clock::Instant now = home_.system.clock.now();
    if (const Seconds passed = now - running.countedAt; passed > 0s) {
        running.rate.add(done - std::exchange(running.counted, done), passed);
        running.countedAt = now;
        view.bytesPerSecond = std::max<std::int64_t>(0, std::llround(running.rate.perSecond()));
    }
    onChanged_();
}

void TransferList::ended(Carrier carrier, TransferView::State state, std::string problem, platform::Path path) {
    const auto at = running_.find(carrier);
    if (at == running_.end()) {
        return;
    }
    const TransferNumber number = at->second.number;
    running_.erase(at);
    TransferView& view = views_.at(number);
    view.state = state;
    view.endedAt = home_.system.clock.now();
    view.problem = std::move(problem);
    view.path = std::move(path);
    view.bytesPerSecond = 0;
    if (state == TransferView::State::done) {
        view.bytes.done = view.bytes.total;
    }
    if (onEnded) {
        onEnded(view);
    }
    endedAt_.emplace(number, home_.system.clock.now());
    forgetEnded();
    onChanged_();
}

std::optional<TransferList::Carrier> TransferList::carrierOf(TransferNumber number) const {
    const auto at =
        std::ranges::find_if(running_, [number](const auto& entry) { return entry.second.number == number; });
    return at == running_.end() ? std::nullopt : std::optional(at->first);
}

/// Those whose time has come, and those that are too many; the next look comes when the next one's time does.
void TransferList::forgetEnded() {
    const platform::Clock::Instant now = home_.system.clock.now();
    while (!endedAt_.empty()) {
        const auto oldest = std::ranges::min_element(endedAt_, {}, [](const auto& entry) { return entry.second; });
        const Seconds left = endedLifetime - (now - oldest->second);
        if (left > 0s && endedAt_.size() <= maxEnded) {
            forgetting_->arm(left, [this] { ring(); });
            return;
        }
        views_.erase(oldest->first);
        endedAt_.erase(oldest);
    }
}

void TransferList::ring() {
    forgetEnded();
    onChanged_();
}

} // namespace orlinth::host
