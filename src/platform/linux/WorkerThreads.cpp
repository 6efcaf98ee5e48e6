#include "platform/linux/WorkerThreads.h"

#include "platform/SystemError.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>

#include <algorithm>
#include <system_error>
#include <thread>

namespace orlinth::platform {
namespace {

/// Many more than there are processors: now and then one of them waits for a disk to have taken what was written.
unsigned mostThreads() {
    constexpr unsigned least = 16;
    constexpr unsigned most = 32;
    return std::clamp(4 * std::thread::hardware_concurrency(), least, most);
}

} // namespace

struct WorkerThreads::Worker {
    Worker() : work(context.get_executor()), thread([this] { context.run(); }) {}
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    ~Worker() {
        work.reset();
        thread.join();
    }

    asio::io_context context{1};
    asio::executor_work_guard<asio::io_context::executor_type> work;
    std::thread thread; ///< last: it runs the context
};

WorkerThreads::WorkerThreads() = default;
WorkerThreads::~WorkerThreads() = default;

Executor WorkerThreads::makeSerialQueue() {
    const std::lock_guard guard(lock_);
    if (workers_.size() < mostThreads()) {
        try {
            workers_.push_back(std::make_unique<Worker>());
            return workers_.back()->context.get_executor();
        } catch (const std::system_error& error) {
            if (workers_.empty()) {
                throw SystemError(error.code());
            } // fewer will do
        }
    }
    next_ = (next_ + 1) % workers_.size();
    return workers_[next_]->context.get_executor();
}

} // namespace orlinth::platform
