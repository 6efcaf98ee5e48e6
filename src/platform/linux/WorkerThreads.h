#pragma once

#include "base/Mutex.h"
#include "platform/WorkQueues.h"

#include <memory>
#include <vector>

namespace orlinth::platform {

/// Threads that run serial queues side by side: each queue has one of them, and shares it when there are more queues
/// than threads. They start as queues come and are joined on destruction, when nothing may be left on the queues.
///
/// Not one pool for all queues: where several threads wait for the same sockets, every packet that comes in while a
/// connection is being worked on wakes another thread in vain, which costs a sixth of a large transfer's speed on two
/// processors. What blocks has a pool, though: no socket is waited for there, and whoever comes takes the thread that
/// is free.
class WorkerThreads {
public:
    WorkerThreads();
    ~WorkerThreads();
    WorkerThreads(const WorkerThreads&) = delete;
    WorkerThreads& operator=(const WorkerThreads&) = delete;

    /// `label` names it for diagnostics. Any thread. @throws SystemError if not even one thread can be had
    [[nodiscard]] Executor makeSerialQueue(const char* label = "");
    /// A queue of the pool for what blocks. Any thread. @throws SystemError if not even one thread can be had
    [[nodiscard]] Executor makeBlockingQueue();
    /// A queue with a thread that no other queue gets. Any thread. @throws SystemError if no thread can be had
    [[nodiscard]] Executor makeThreadQueue(const char* label);

    /// As WorkQueues::lateQueues(), of the threads that queues share.
    [[nodiscard]] std::vector<LateQueue> lateQueues(Seconds limit);

private:
    struct Worker;
    struct Pool;

    Mutex lock_;
    std::vector<std::unique_ptr<Worker>> workers_ ORLINTH_GUARDED_BY(lock_);
    std::vector<std::unique_ptr<Worker>> alone_ ORLINTH_GUARDED_BY(lock_); ///< those that have one queue each
    std::unique_ptr<Pool> blocking_ ORLINTH_GUARDED_BY(lock_);             ///< null until it is asked for
    std::size_t next_ ORLINTH_GUARDED_BY(lock_) = 0;                       ///< whose turn it is to get a queue
};

} // namespace orlinth::platform
