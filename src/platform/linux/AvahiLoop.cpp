#include "platform/linux/AvahiLoop.h"

#include "base/Time.h"
#include "platform/SystemError.h"
#include "platform/linux/AvahiBus.h"
#include "platform/linux/AvahiLibrary.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <exception>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace orlinth::platform {
namespace {

/// How long the bus may take to say hello.
constexpr std::chrono::milliseconds busPatience = 2s;

void raise(int event) noexcept {
    const std::uint64_t one = 1;
    // it fails only where it would overflow, and then it is raised
    static_cast<void>(::write(event, &one, sizeof one) == sizeof one);
}

} // namespace

AvahiJob::AvahiJob(AvahiLoop& loop) : loop_(loop), interruption_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (interruption_ < 0) {
        throw SystemError::fromErrno();
    }
    poll_.userdata = this;
    poll_.watch_new = [](const AvahiPoll* api, int descriptor, AvahiWatchEvent event, AvahiWatchCallback callback,
                         void* userdata) noexcept {
        auto& job = *static_cast<AvahiJob*>(api->userdata);
        job.noteSocket(descriptor);
        const AvahiPoll* inner = job.loop_.poll();
        return inner->watch_new(inner, descriptor, event, callback, userdata);
    };
    poll_.timeout_new = [](const AvahiPoll* api, const timeval* when, AvahiTimeoutCallback callback,
                           void* userdata) noexcept {
        const AvahiPoll* inner = static_cast<AvahiJob*>(api->userdata)->loop_.poll();
        return inner->timeout_new(inner, when, callback, userdata);
    };
}

void AvahiJob::usePoll(const AvahiPoll& inner) noexcept {
    poll_.watch_update = inner.watch_update;
    poll_.watch_get_events = inner.watch_get_events;
    poll_.watch_free = inner.watch_free;
    poll_.timeout_update = inner.timeout_update;
    poll_.timeout_free = inner.timeout_free;
}

AvahiJob::~AvahiJob() {
    forgetSocket();
    ::close(interruption_);
}

AvahiClient* AvahiJob::openClient(AvahiClientFlags flags, AvahiClientCallback callback, void* self,
                                  int& error) noexcept {
    error = askSystemBus(interruption_, busPatience);
    return error == AVAHI_OK ? avahi().avahi_client_new(poll(), flags, callback, self, &error) : nullptr;
}

void AvahiJob::noteSocket(int socket) noexcept {
    const MutexLock guard(lock_);
    if (socket_ < 0) {
        // a duplicate, since another thread may want to use it just when the library closes its own
        socket_ = ::fcntl(socket, F_DUPFD_CLOEXEC, 0);
    }
    if (interrupted_) {
        ::shutdown(socket, SHUT_RDWR);
    }
}

void AvahiJob::forgetSocket() noexcept {
    const MutexLock guard(lock_);
    if (socket_ >= 0) {
        ::close(std::exchange(socket_, -1));
    }
}

bool AvahiJob::isInterrupted() const {
    const MutexLock guard(lock_);
    return interrupted_;
}

void AvahiJob::interrupt() noexcept {
    const MutexLock guard(lock_);
    interrupted_ = true;
    raise(interruption_);
    if (socket_ >= 0) {
        ::shutdown(socket_, SHUT_RDWR);
    }
}

AvahiLoop::AvahiLoop()
    : simplePoll_(nullptr, [](AvahiSimplePoll* loop) noexcept { avahi().avahi_simple_poll_free(loop); }) {}

AvahiLoop::~AvahiLoop() {
    {
        const MutexLock guard(lock_);
        stopping_ = true;
        for (const auto& job : jobs_) {
            job->interrupt();
        }
    }
    if (thread_.joinable()) {
        wake();
        thread_.join();
    }
    if (wakeEvent_ >= 0) {
        ::close(wakeEvent_);
    }
}

const AvahiPoll* AvahiLoop::poll() const noexcept {
    return avahi().avahi_simple_poll_get(simplePoll_.get());
}

void AvahiLoop::add(std::shared_ptr<AvahiJob> job) {
    const MutexLock guard(lock_);
    if (!thread_.joinable()) {
        start();
    }
    jobs_.push_back(job);
    toBegin_.push_back(std::move(job));
    wake();
}

void AvahiLoop::remove(const std::shared_ptr<AvahiJob>& job) noexcept {
    const MutexLock guard(lock_);
    job->interrupt();
    const auto place = std::find(jobs_.begin(), jobs_.end(), job);
    if (place != jobs_.end()) {
        jobs_.erase(place);
        toEnd_.push_back(job);
        wake();
    }
}

void AvahiLoop::start() {
    if (wakeEvent_ < 0) {
        wakeEvent_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (wakeEvent_ < 0) {
            throw SystemError::fromErrno();
        }
    }
    if (!simplePoll_) {
        simplePoll_.reset(avahi().avahi_simple_poll_new());
        if (!simplePoll_) {
            throw SystemError::fromErrno(ENOMEM);
        }
    }
    // the program's signals are for its own threads
    sigset_t all{};
    sigset_t before{};
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    std::exception_ptr error;
    try {
        thread_ = std::thread([this] { run(); });
    } catch (...) {
        error = std::current_exception();
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error) {
        std::rethrow_exception(error);
    }
}

void AvahiLoop::wake() const noexcept {
    raise(wakeEvent_);
}

void AvahiLoop::run() {
    const auto drain = [](AvahiWatch*, int descriptor, AvahiWatchEvent, void*) noexcept {
        std::uint64_t count = 0;
        static_cast<void>(::read(descriptor, &count, sizeof count) == sizeof count);
    };
    AvahiWatch* wakeWatch = poll()->watch_new(poll(), wakeEvent_, AVAHI_WATCH_IN, drain, nullptr);
    if (wakeWatch == nullptr) {
        std::terminate(); // out of memory
    }
    while (doWhatIsAsked()) {
        avahi().avahi_simple_poll_iterate(simplePoll_.get(), -1);
    }
    poll()->watch_free(wakeWatch);
}

bool AvahiLoop::doWhatIsAsked() {
    std::vector<std::shared_ptr<AvahiJob>> begin;
    std::vector<std::shared_ptr<AvahiJob>> end;
    bool stopping = false;
    {
        const MutexLock guard(lock_);
        begin.swap(toBegin_);
        end.swap(toEnd_);
        stopping = stopping_;
        if (stopping) {
            end.insert(end.end(), jobs_.begin(), jobs_.end());
            jobs_.clear();
        }
    }
    for (const auto& job : begin) {
        if (!job->isInterrupted()) {
            job->usePoll(*poll());
            job->begin();
        }
    }
    for (const auto& job : end) {
        job->end();
    }
    return !stopping;
}

} // namespace orlinth::platform
