#include "platform/Network.h"

#include "platform/Event.h"

namespace orlinth::platform {

Task<> Stream::untilEnded() {
    Event never(executor());
    co_await never.wait();
}

} // namespace orlinth::platform
