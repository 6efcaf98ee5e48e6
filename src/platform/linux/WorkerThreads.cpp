#include "platform/linux/WorkerThreads.h"

#include "platform/SystemError.h"

#include <asio/strand.hpp>

#include <algorithm>
#include <system_error>

namespace orlinth::platform {
namespace {

/// More than there are processors: most of them wait for a disk to have taken what was written.
unsigned threadCount() {
    constexpr unsigned least = 8;
    constexpr unsigned most = 32;
    return std::clamp(2 * std::thread::hardware_concurrency(), least, most);
}

} // namespace

WorkerThreads::WorkerThreads() : work_(context_.get_executor()) {}

WorkerThreads::~WorkerThreads() {
    work_.reset();
    for (std::thread& thread : threads_) {
        thread.join();
    }
}

Executor WorkerThreads::makeSerialQueue() {
    const std::lock_guard guard(lock_);
    const unsigned wanted = threadCount();
    while (threads_.size() < wanted) {
        try {
            threads_.emplace_back([this] { context_.run(); });
        } catch (const std::system_error& error) {
            if (threads_.empty()) {
                throw SystemError(error.code());
            }
            break; // fewer will do until the next queue
        }
    }
    return asio::make_strand(context_);
}

} // namespace orlinth::platform
