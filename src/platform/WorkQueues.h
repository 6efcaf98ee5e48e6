#pragma once

#include "base/Time.h"
#include "platform/Task.h"

#include <cstddef>
#include <string>
#include <vector>

namespace orlinth::platform {

/// A serial queue whose thread is busy with one thing.
struct LateQueue {
    std::string label;      ///< what the queue was made for; of several on one thread, the one that came last
    Seconds silence{0};     ///< how long it has not answered
    std::size_t thread = 0; ///< which thread of them: from 1, and the same at every call
};

/// The threads of this computer, as serial queues: what runs on one of them runs one at a time.
class WorkQueues {
public:
    virtual ~WorkQueues() = default;
    /// A serial queue: what runs on it runs one at a time. `label` names it for diagnostics.
    [[nodiscard]] virtual Executor makeSerialQueue(const char* label) = 0;
    /// A serial queue of the worker threads, which connections share: what blocks there holds up those that have the
    /// same thread. Whatever runs there must have ended before these go.
    [[nodiscard]] virtual Executor makeWorkerQueue(const char* label) = 0;
    /// A serial queue of the threads for what blocks, on a disk or with a long computation: it holds up others of its
    /// kind alone, and those only if many of them block at once. To be used through platform::blocking(), as a rule.
    /// What runs there must have ended before these go.
    [[nodiscard]] virtual Executor makeBlockingQueue() { return makeWorkerQueue("orlinth.blocking"); }
    /// A serial queue with a thread of its own, for what may block for long: that holds nobody else up. The thread
    /// stays as long as these do, so these queues are few. What runs there must have ended before these go.
    [[nodiscard]] virtual Executor makeThreadQueue(const char* label) { return makeWorkerQueue(label); }
    /// The queues of makeWorkerQueue() that have not answered for `limit` or longer. Asks them all anew, without
    /// waiting: called again and again, it notices a thread that hangs. Any thread, one at a time.
    [[nodiscard]] virtual std::vector<LateQueue> lateQueues(Seconds /*limit*/) { return {}; }
};

} // namespace orlinth::platform
