#include "platform/linux/WorkerThreads.h"

#include "platform/SystemError.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/strand.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <system_error>
#include <thread>

namespace orlinth::platform {
namespace {

/// Many more than there are processors: now and then one of them waits for a disk to have taken what was written.
unsigned mostThreads() {
    constexpr unsigned least = 16;
    constexpr unsigned most = 32;
    static const unsigned processors = std::thread::hardware_concurrency(); // reads a file, and does not change
    return std::clamp(4 * processors, least, most);
}

/// Of the pool for what blocks: a third more than one phone may have connections, those that are closing included, so
/// that none can take all of them.
constexpr std::size_t mostBlockingThreads = 32;

} // namespace

struct WorkerThreads::Worker {
    explicit Worker(const char* name) : label(name), work(context.get_executor()), thread([this] { context.run(); }) {}
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    ~Worker() {
        work.reset();
        thread.join();
    }

    std::string label;                             ///< under the lock
    std::chrono::steady_clock::time_point askedAt; ///< the same
    std::atomic<bool> isAsked = false;             ///< whether it is there, and has not answered
    asio::io_context context{1};
    asio::executor_work_guard<asio::io_context::executor_type> work;
    std::thread thread; ///< last: it runs the context
};

/// One more thread for each queue that is made, up to the most.
struct WorkerThreads::Pool {
    Pool() : work(context.get_executor()) {}
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;
    ~Pool() {
        work.reset();
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    asio::io_context context;
    asio::executor_work_guard<asio::io_context::executor_type> work;
    std::vector<std::thread> threads; ///< last: they run the context
};

WorkerThreads::WorkerThreads() = default;
WorkerThreads::~WorkerThreads() = default;

Executor WorkerThreads::makeSerialQueue(const char* label) {
    const MutexLock guard(lock_);
    if (workers_.size() < mostThreads()) {
        try {
            workers_.push_back(std::make_unique<Worker>(label));
            return workers_.back()->context.get_executor();
        } catch (const std::system_error& error) {
            if (workers_.empty()) {
                throw SystemError(error.code());
            } // fewer will do
        }
    }
    next_ = (next_ + 1) % workers_.size();
    workers_[next_]->label = label;
    return workers_[next_]->context.get_executor();
}

Executor WorkerThreads::makeBlockingQueue() {
    const MutexLock guard(lock_);
    if (!blocking_) {
        blocking_ = std::make_unique<Pool>();
    }
    Pool& pool = *blocking_;
    if (pool.threads.size() < mostBlockingThreads) {
        try {
            pool.threads.emplace_back([&pool] { pool.context.run(); });
        } catch (const std::system_error& error) {
            if (pool.threads.empty()) {
                throw SystemError(error.code());
            } // fewer will do
        }
    }
    return asio::make_strand(pool.context);
}

Executor WorkerThreads::makeThreadQueue(const char* label) {
    const MutexLock guard(lock_);
    try {
        alone_.push_back(std::make_unique<Worker>(label));
    } catch (const std::system_error& error) {
        throw SystemError(error.code());
    }
    return alone_.back()->context.get_executor();
}

std::vector<LateQueue> WorkerThreads::lateQueues(Seconds limit) {
    const auto now = std::chrono::steady_clock::now();
    std::vector<LateQueue> late;
    const MutexLock guard(lock_);
    std::size_t thread = 0;
    for (const std::unique_ptr<Worker>& worker : workers_) { // of which none ever goes
        ++thread;
        if (!worker->isAsked.exchange(true)) {
            worker->askedAt = now;
            asio::post(worker->context, [&isAsked = worker->isAsked] { isAsked = false; });
            continue;
        }
        const Seconds silence = now - worker->askedAt;
        if (silence >= limit) {
            late.push_back({.label = worker->label, .silence = silence, .thread = thread});
        }
    }
    return late;
}

} // namespace orlinth::platform
