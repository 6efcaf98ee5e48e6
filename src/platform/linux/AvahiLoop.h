#pragma once

#include "base/Mutex.h"

#include <avahi-client/client.h>
#include <avahi-common/watch.h>

#include <memory>
#include <thread>
#include <vector>

struct AvahiSimplePoll;

namespace orlinth::platform {

class AvahiLoop;

/// What talks to the Avahi daemon through one client of its own. Everything of Avahi's that it has lives between
/// begin() and end(), on the loop's thread.
class AvahiJob {
public:
    /// @throws SystemError where there are no descriptors left
    explicit AvahiJob(AvahiLoop& loop);
    AvahiJob(const AvahiJob&) = delete;
    AvahiJob& operator=(const AvahiJob&) = delete;
    virtual ~AvahiJob();

protected:
    friend class AvahiLoop;

    /// On the loop's thread, first of all.
    virtual void begin() = 0;
    /// On the loop's thread, last of all: frees what is Avahi's. Called even if begin() was not.
    virtual void end() noexcept = 0;

    /// Makes the client, as avahi_client_new() does, which must not be called otherwise: that connects to the system
    /// bus and waits for its hello without any limit, before there is a watch by which the socket could be known. Here
    /// the bus is first asked for a sign of life on a connection of our own. nullptr, and an error, if it is silent for
    /// two seconds, or on an interruption at once. (A bus that falls silent in the moment between that and the
    /// library's own hello can still hold the thread up.) On the loop's thread.
    [[nodiscard]] AvahiClient* openClient(AvahiClientFlags flags, AvahiClientCallback callback, void* self,
                                          int& error) noexcept;
    /// For the alarms of the job.
    [[nodiscard]] const AvahiPoll* poll() const noexcept { return &poll_; }
    /// To be called whenever the client has been freed.
    void forgetSocket() noexcept;
    /// Whether interrupt() was called.
    [[nodiscard]] bool isInterrupted() const;

private:
    /// Cuts the client off from the bus for good: a call that waits for the daemon or the bus returns, with an error.
    /// Any thread.
    void interrupt() noexcept;
    /// Takes over everything that does not make a watch or an alarm.
    void usePoll(const AvahiPoll& inner) noexcept;
    void noteSocket(int socket) noexcept;
    AvahiLoop& loop_;
    AvahiPoll poll_{};       ///< the loop's, but for the socket's being noted
    const int interruption_; ///< an eventfd that can be read once the job is interrupted
    mutable Mutex lock_;
    int socket_ ORLINTH_GUARDED_BY(lock_) = -1; ///< ours, for the client's connection to the bus
    bool interrupted_ ORLINTH_GUARDED_BY(lock_) = false;
};

/// The one thread on which all calls of Avahi's client library are made.
///
/// A thread, because nearly all of those calls wait for the daemon's answer, for up to 25 seconds each where the
/// daemon hangs: on the program's event loop they would hold up everything else. Avahi's simple poll loop is used
/// rather than its threaded one, whose lock a caller would have to wait for during such a call. As all of it happens
/// on the one thread, the library needs no locks at all. Jobs that are removed while they wait are cut off from the
/// bus, so that neither the destructor nor the next job has to wait for a daemon or a bus that hangs.
///
/// Threading: any thread, but for what is said to be for the loop's own. The thread starts with the first job.
class AvahiLoop {
public:
    AvahiLoop();
    ~AvahiLoop(); ///< Ends all jobs and the thread.
    AvahiLoop(const AvahiLoop&) = delete;
    AvahiLoop& operator=(const AvahiLoop&) = delete;

    /// Begins the job, and keeps it. @throws SystemError, std::system_error where there can be no thread, or Avahi's
    /// client library is missing
    void add(std::shared_ptr<AvahiJob> job);
    /// Ends the job soon. Does not wait.
    void remove(const std::shared_ptr<AvahiJob>& job) noexcept;

    /// For what a job asks of the loop itself. The loop's thread only.
    [[nodiscard]] const AvahiPoll* poll() const noexcept;

private:
    void start();
    void wake() const noexcept;
    void run();
    [[nodiscard]] bool doWhatIsAsked();

    Mutex lock_;
    std::vector<std::shared_ptr<AvahiJob>> toBegin_ ORLINTH_GUARDED_BY(lock_);
    std::vector<std::shared_ptr<AvahiJob>> jobs_ ORLINTH_GUARDED_BY(lock_); ///< all that were added and not removed
    std::vector<std::shared_ptr<AvahiJob>> toEnd_ ORLINTH_GUARDED_BY(lock_);
    bool stopping_ ORLINTH_GUARDED_BY(lock_) = false;

    int wakeEvent_ = -1;
    std::unique_ptr<AvahiSimplePoll, void (*)(AvahiSimplePoll*)> simplePoll_;
    std::thread thread_;
};

} // namespace orlinth::platform
