#pragma once

#include "platform/WorkQueues.h"

#include <asio/io_context.hpp>
#include <asio/strand.hpp>

#include <optional>

namespace orlinth::fakes {

/// Queues that all run with `context`, which outlives them, on the thread of the test.
class MemoryWorkQueues final : public platform::WorkQueues {
public:
    explicit MemoryWorkQueues(asio::io_context& context) : context_(context) {}
    ~MemoryWorkQueues() override;

    [[nodiscard]] Executor makeSerialQueue(const char* label) override {
        labels.emplace_back(label);
        return asio::make_strand(context_.get_executor());
    }
    [[nodiscard]] Executor makeWorkerQueue(const char* label) override { return makeSerialQueue(label); }
    [[nodiscard]] Executor makeBlockingQueue() override {
        ++blockingQueues;
        return blockingQueue ? *blockingQueue : Executor(blocking_);
    }
    [[nodiscard]] Executor makeThreadQueue(const char* label) override {
        return threadQueue ? *threadQueue : makeWorkerQueue(label);
    }
    [[nodiscard]] std::vector<platform::LateQueue> lateQueues(Seconds /*limit*/) override {
        ++looks;
        return late;
    }

    /// Whether this is being called from a blocking queue.
    [[nodiscard]] bool isOnBlockingQueue() const noexcept { return blocking_.running_in_this_thread(); }

    /// Of the serial queues so far.
    std::vector<std::string> labels;
    /// How many were asked for.
    int blockingQueues = 0;
    /// What makeThreadQueue() returns, if set: of a context that the test runs when it likes.
    std::optional<Executor> threadQueue;
    /// The same of makeBlockingQueue().
    std::optional<Executor> blockingQueue;
    /// What lateQueues() returns.
    std::vector<platform::LateQueue> late;
    /// How often it was asked.
    std::size_t looks = 0;

private:
    asio::io_context& context_;
    asio::strand<asio::io_context::executor_type> blocking_{context_.get_executor()};
};

} // namespace orlinth::fakes
