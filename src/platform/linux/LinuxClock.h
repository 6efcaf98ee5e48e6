#pragma once

#include "platform/Clock.h"

namespace orlinth::platform {

/// Time by the kernel's clocks; waits on Asio's timers.
class LinuxClock final : public Clock {
public:
    [[nodiscard]] EpochMilliseconds epochMilliseconds() const override;
    [[nodiscard]] Instant now() const override;
    [[nodiscard]] Task<> sleep(Seconds duration) override;
    [[nodiscard]] std::unique_ptr<Timer> makeTimer(Executor executor) override;
};

} // namespace orlinth::platform
