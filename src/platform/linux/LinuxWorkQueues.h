#pragma once

#include "platform/WorkQueues.h"
#include "platform/linux/WorkerThreads.h"

#include <asio/io_context.hpp>

namespace orlinth::platform {

/// Serial queues on the thread that runs `context`, which outlives this, and on threads of its own (WorkerThreads).
class LinuxWorkQueues final : public WorkQueues {
public:
    explicit LinuxWorkQueues(asio::io_context& context) : context_(context) {}
    [[nodiscard]] Executor makeSerialQueue(const char* label) override;
    [[nodiscard]] Executor makeWorkerQueue(const char* label) override;
    [[nodiscard]] Executor makeBlockingQueue() override;
    [[nodiscard]] Executor makeThreadQueue(const char* label) override;
    [[nodiscard]] std::vector<LateQueue> lateQueues(Seconds limit) override;

private:
    asio::io_context& context_;
    WorkerThreads workers_;
};

} // namespace orlinth::platform
