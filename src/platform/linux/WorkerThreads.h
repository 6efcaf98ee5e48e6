#pragma once

#include "platform/Task.h"

#include <memory>
#include <mutex>
#include <vector>

namespace orlinth::platform {

/// Threads that run serial queues side by side: each queue has one of them, and shares it when there are more queues
/// than threads. They start as queues come and are joined on destruction, when nothing may be left on the queues.
///
/// Not one pool for all queues: where several threads wait for the same sockets, every packet that comes in while a
/// connection is being worked on wakes another thread in vain, which costs a sixth of a large transfer's speed on two
/// processors.
class WorkerThreads {
public:
    WorkerThreads();
    ~WorkerThreads();
    WorkerThreads(const WorkerThreads&) = delete;
    WorkerThreads& operator=(const WorkerThreads&) = delete;

    /// Any thread. @throws SystemError if not even one thread can be had
    [[nodiscard]] Executor makeSerialQueue();

private:
    struct Worker;

    std::mutex lock_; ///< guards what follows
    std::vector<std::unique_ptr<Worker>> workers_;
    std::size_t next_ = 0; ///< whose turn it is to get a queue
};

} // namespace orlinth::platform
