#include "platform/Deadline.h"

#include "platform/Cancelled.h"

namespace orlinth::platform {
namespace {

/// The time is over.
class Late final : public std::exception {};

Task<bool> thenTrue(Task<> operation) {
    co_await std::move(operation);
    co_return true;
}

} // namespace

Task<bool> sleepUnlessCancelled(Clock& clock, Seconds duration) {
    try {
        co_await clock.sleep(duration);
    } catch (const std::exception& error) {
        if (!isCancellation(error)) {
            throw;
        }
        co_return false;
    }
    co_return true;
}

Task<bool> endsWithin(Clock& clock, Seconds limit, Task<> operation) {
    OneShot<bool> hasEnded;
    co_await settleFirst(hasEnded, clock, limit, std::make_exception_ptr(Late()), thenTrue(std::move(operation)));
    try {
        co_return hasEnded.take();
    } catch (const Late&) {
        co_return false;
    }
}

} // namespace orlinth::platform
