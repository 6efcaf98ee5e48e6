#include "orlinth/Program/TaskRunner.h"

#include <asio/post.hpp>

#include <csignal>
#include <cstdlib>

namespace orlinth::cli {

Interrupted::Interrupted(int signal)
    : Error(std::string("interrupted by ") + (signal == SIGINT ? "SIGINT" : "SIGTERM")), signal_(signal) {}

TaskRunner::TaskRunner(asio::io_context& context)
    : context_(context), work_(context.get_executor()), watch_([this](int signal) { onSignal(signal); }) {}

void TaskRunner::onSignal(int signal) {
    int none = 0;
    const bool isFirst = signal_.compare_exchange_strong(none, signal);
    const std::chrono::milliseconds grace = grace_.load();
    const bool isService = grace > std::chrono::milliseconds::zero();
    if (!isFirst || !running_.load()) {
        std::_Exit(isFirst && isService ? 0 : 128 + signal);
    }
    if (isService) {
        watch_.limit(grace, [] { std::_Exit(0); });
    }
    asio::post(context_, [this] { cancel(); });
}

void TaskRunner::cancel() {
    if (current_ != nullptr) {
        current_->emit(asio::cancellation_type::terminal);
    }
}

void TaskRunner::finish() {
    work_.reset();
    context_.restart();
    context_.run();
}

void TaskRunner::leave(int status) const {
    const int signal = signal_.load();
    std::_Exit(signal != 0 ? 128 + signal : status);
}

TaskRunner::Running::Running(TaskRunner& runner, asio::cancellation_signal& stop) : runner_(runner) {
    runner_.current_ = &stop;
    runner_.running_ = true;
    const int signal = runner_.signal_.load();
    if (signal != 0) { // came while the task before was ending
        runner_.running_ = false;
        runner_.current_ = nullptr;
        throw Interrupted(signal);
    }
}

TaskRunner::Running::~Running() {
    runner_.running_ = false;
    runner_.current_ = nullptr;
}

} // namespace orlinth::cli
