#pragma once

#include "platform/Clock.h"

namespace orlinth::platform {

/// Time by the kernel's clocks; waits on Asio's timers.
class LinuxClock final : public Clock {
public:
    [[nodiscard]] std::int64_t epochMilliseconds() const override;
    [[nodiscard]] Instant now() const override;
    [[nodiscard]] Task<> sleep(double seconds) override;
    [[nodiscard]] std::unique_ptr<Timer> makeTimer(Executor executor) override;
};

} // namespace orlinth::platform
