#pragma once

#include "platform/Task.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>

#include <mutex>
#include <thread>
#include <vector>

namespace orlinth::platform {

/// Threads that run serial queues side by side. They start with the first queue and are joined on destruction, when
/// nothing may be left on the queues.
class WorkerThreads {
public:
    WorkerThreads();
    ~WorkerThreads();
    WorkerThreads(const WorkerThreads&) = delete;
    WorkerThreads& operator=(const WorkerThreads&) = delete;

    /// Any thread. @throws SystemError if not even one thread can be had
    [[nodiscard]] Executor makeSerialQueue();

private:
    asio::io_context context_;
    asio::executor_work_guard<asio::io_context::executor_type> work_;
    std::mutex lock_; ///< guards threads_
    std::vector<std::thread> threads_;
};

} // namespace orlinth::platform
