#include "platform/Deadline.h"

#include "platform/Cancelled.h"

namespace orlinth::platform {

Task<bool> sleepUnlessCancelled(Clock& clock, double seconds) {
    try {
        co_await clock.sleep(seconds);
    } catch (const std::exception& error) {
        if (!isCancellation(error)) {
            throw;
        }
        co_return false;
    }
    co_return true;
}

} // namespace orlinth::platform
