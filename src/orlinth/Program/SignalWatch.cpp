#include "orlinth/Program/SignalWatch.h"

#include "platform/SystemError.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace orlinth::cli {

SignalWatch::SignalWatch(std::function<void(int)> onSignal) : onSignal_(std::move(onSignal)) {
    sigset_t watched;
    sigemptyset(&watched);
    sigaddset(&watched, SIGINT);
    sigaddset(&watched, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &watched, nullptr);
    signals_ = signalfd(-1, &watched, SFD_CLOEXEC);
    if (signals_ < 0) {
        throw platform::SystemError::fromErrno();
    }
    stop_ = eventfd(0, EFD_CLOEXEC);
    if (stop_ < 0) {
        const auto error = platform::SystemError::fromErrno();
        close(signals_);
        throw error;
    }
    thread_ = std::thread([this] { watch(); });
}

SignalWatch::~SignalWatch() {
    eventfd_write(stop_, 1);
    thread_.join();
    close(signals_);
    close(stop_);
}

void SignalWatch::limit(std::chrono::milliseconds time, std::function<void()> onOverdue) {
    limit_ = Clock::now() + time;
    onOverdue_ = std::move(onOverdue);
}

int SignalWatch::left() const {
    if (!limit_) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*limit_ - Clock::now()).count();
    return static_cast<int>(std::max<std::int64_t>(left, 0));
}

void SignalWatch::watch() {
    std::array<pollfd, 2> waits{pollfd{signals_, POLLIN, 0}, pollfd{stop_, POLLIN, 0}};
    for (;;) {
        const int ready = poll(waits.data(), waits.size(), left());
        if (ready < 0 && errno != EINTR) {
            return;
        }
        if (limit_ && Clock::now() >= *limit_) {
            limit_.reset();
            onOverdue_();
        }
        if (ready <= 0) { // what the descriptors have to say is not known
            continue;
        }
        if ((waits[1].revents & POLLIN) != 0) {
            return;
        }
        signalfd_siginfo info{};
        if ((waits[0].revents & POLLIN) != 0 && read(signals_, &info, sizeof info) == ssize_t{sizeof info}) {
            onSignal_(static_cast<int>(info.ssi_signo));
        }
    }
}

} // namespace orlinth::cli
