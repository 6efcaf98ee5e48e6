#pragma once

#include "base/Error.h"
#include "base/OneShot.h"
#include "orlinth/Program/SignalWatch.h"
#include "platform/Cancelled.h"
#include "platform/Deadline.h"
#include "platform/Spawn.h"

#include <asio/cancellation_signal.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>

#include <atomic>
#include <chrono>

namespace orlinth::cli {

/// SIGINT or SIGTERM has ended the task.
class Interrupted : public Error {
public:
    explicit Interrupted(int signal);
    /// What the program exits with: 130 or 143.
    [[nodiscard]] int exitStatus() const noexcept { return 128 + signal_; }

private:
    int signal_;
};

/// Runs the core's tasks, one at a time, on the thread of `main`.
///
/// The first SIGINT or SIGTERM cancels the task that runs, which closes its connection and leaves what a resume needs;
/// the second ends the process at once, and so does the first while no task runs.
class TaskRunner {
public:
    /// `context` must outlive the runner, and no other thread may have been started yet.
    explicit TaskRunner(asio::io_context& context);

    /// Runs the task to its end and returns its value or throws its error.
    /// @throws Interrupted if a signal has ended it; platform::Cancelled if cancel() has
    template <typename T>
    [[nodiscard]] T run(Task<T> task) {
        OneShot<T> outcome;
        asio::cancellation_signal stop;
        const Running running(*this, stop);
        bool ended = false;
        // both are local to this call, which does not return before the task has ended
        platform::spawn(context_.get_executor(), platform::settle(outcome, std::move(task)), stop.slot(),
                        [&ended, &outcome](const std::exception_ptr& error) {
                            if (error) {
                                outcome.fail(error); // a signal came before the task had begun: it never ran
                            }
                            ended = true;
                        });
        while (!ended) {
            context_.run_one();
        }
        return take(outcome);
    }

    /// For a service, whose usual end is a signal: where the first one would end the process at once, it does so with
    /// status 0, and if the process is still there when `grace` has passed since that signal, it is ended then, with
    /// status 0, whatever still runs.
    void treatSignalsAsUsualEnd(std::chrono::milliseconds grace) noexcept { grace_ = grace; }

    /// Cancels the task that runs, if any. On the context's thread.
    void cancel();

    /// Runs what completed tasks have left to do (closing, for the most part) until nothing is left at all.
    void finish();

    /// Ends the process at once, whatever still runs: with `status`, or if a signal has come, with that of the signal.
    [[noreturn]] void leave(int status) const;

    [[nodiscard]] Executor executor() { return context_.get_executor(); }

private:
    /// While it lives, a task runs.
    class Running {
    public:
        Running(TaskRunner& runner, asio::cancellation_signal& stop);
        ~Running();
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;

    private:
        TaskRunner& runner_;
    };

    template <typename T>
    T take(OneShot<T>& outcome) {
        try {
            return outcome.take();
        } catch (const std::exception& error) {
            if (platform::isCancellation(error) && signal_.load() != 0) {
                throw Interrupted(signal_.load());
            }
            throw;
        }
    }

    void onSignal(int signal);

    asio::io_context& context_;
    asio::executor_work_guard<asio::io_context::executor_type> work_;
    asio::cancellation_signal* current_ = nullptr; ///< of the task that runs; on the context's thread only
    std::atomic<bool> running_ = false;
    std::atomic<int> signal_ = 0;                    ///< the first signal that came, 0 for none
    std::atomic<std::chrono::milliseconds> grace_{}; ///< 0: not a service
    SignalWatch watch_;                              ///< last: its thread uses the members above
};

} // namespace orlinth::cli
