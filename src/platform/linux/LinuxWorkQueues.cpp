#include "platform/linux/LinuxWorkQueues.h"

#include <asio/strand.hpp>

namespace orlinth::platform {

Executor LinuxWorkQueues::makeSerialQueue(const char* /*label*/) {
    return asio::make_strand(context_);
}

Executor LinuxWorkQueues::makeWorkerQueue(const char* label) {
    return workers_.makeSerialQueue(label);
}

Executor LinuxWorkQueues::makeBlockingQueue() {
    return workers_.makeBlockingQueue();
}

Executor LinuxWorkQueues::makeThreadQueue(const char* label) {
    return workers_.makeThreadQueue(label);
}

std::vector<LateQueue> LinuxWorkQueues::lateQueues(Seconds limit) {
    return workers_.lateQueues(limit);
}

} // namespace orlinth::platform
