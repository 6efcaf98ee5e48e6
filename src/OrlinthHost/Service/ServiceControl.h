#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Service/ServiceEvents.h"
#include "platform/TaskGroup.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace orlinth::host {

/// How other commands of the same data folder talk to the running service: a socket in that folder, one request a
/// connection, in lines of JSON of at most 4 KiB.
///
/// `{"request":"lend_port"}` makes the service step aside until the connection ends, however it ends, so that a
/// borrower that crashes gives the port back too. Answer: `{"port":28471}`, and behind its line end the listening
/// socket itself (one byte with SCM_RIGHTS): a port that a service manager keeps open could not be opened by anybody
/// else. With
/// `"port":N` in the request only that port is wanted; of another one the answer is `{"lent":false,"port":28471}`.
/// `{"request":"port"}` is answered by `{"port":28471}` and lends nothing.
/// Other requests are answered by whoever is asked then; `onRequest`.
/// What goes wrong is answered by `{"error":"…"}`.
class ServiceControl {
public:
    /// The file of the data folder that a service keeps locked while it runs.
    static constexpr const char* lockName = "service.lock";

    /// What is referred to outlives this. All on the thread of `main`.
    ServiceControl(Home& home, Receiver& receiver, ServiceEvents& events)
        : home_(home), receiver_(receiver), events_(events), accepting_(home.executor), conversations_(home.executor) {}
    ServiceControl(const ServiceControl&) = delete;
    ServiceControl& operator=(const ServiceControl&) = delete;

    /// Answers what is not for this object: one line of JSON, or null if it is not for whoever that is either. What it
    /// throws is told to the one who asks. Set before start().
    std::function<Task<Json>(Json request)> onRequest;

    /// Opens the port that is lent, as one socket; absent: everywhere. Set before start(). May throw SystemError.
    std::function<std::unique_ptr<platform::Listener>(const platform::ListenOptions& options, Executor executor)>
        openLoan;

    /// Answers requests from now on. Once, when the receiver listens on this port. A service whose socket cannot be
    /// opened does its work without, which is reported.
    void start(std::uint16_t port);
    /// Ends what start() has begun, and returns when it has ended. The last call; start() need not have been called.
    [[nodiscard]] Task<> finish();

private:
    [[nodiscard]] Task<> run();
    [[nodiscard]] Task<> acceptAll(platform::Listener& listener);
    void begin(std::unique_ptr<platform::Stream> stream);
    [[nodiscard]] Task<> answer(std::unique_ptr<platform::Stream> stream);
    [[nodiscard]] Task<Json> answerOther(Json request);
    [[nodiscard]] Task<> lend(platform::Stream& stream);
    [[nodiscard]] Task<> handOver(platform::Stream& stream);
    [[nodiscard]] Task<> takeBack();

    Home& home_;
    Receiver& receiver_;
    ServiceEvents& events_;
    std::uint16_t port_ = 0;
    bool lent_ = false;
    platform::TaskGroup accepting_;     ///< run(), if it runs
    platform::TaskGroup conversations_; ///< one for each connection
};

/// Whether a service runs for this data folder, also one that does not answer.
[[nodiscard]] Task<bool> isServiceRunning(Home& home);

/// Asks the running service. Nothing if none runs.
/// @throws HostError if it does not answer, or answers that it cannot
[[nodiscard]] Task<std::optional<Json>> askService(Home& home, Json request);

/// The running service's port, which stays with it. Nothing if none runs. @throws HostError if it does not say
[[nodiscard]] Task<std::optional<std::uint16_t>> askServicePort(Home& home);

/// The running service's port, for as long as this lives.
class BorrowedPort {
public:
    /// Nothing if no service runs, or if it has another port than the `wanted` one.
    /// @throws HostError if one runs and does not lend its port
    [[nodiscard]] static Task<std::optional<BorrowedPort>> borrow(Home& home, std::optional<std::uint16_t> wanted);

    /// The same of a service for which the service manager keeps the port open, and which is started for this. Nothing
    /// if there is none. Blocks while it starts.
    [[nodiscard]] static Task<std::optional<BorrowedPort>> borrowFromSleeping(Home& home, std::uint16_t port);

    [[nodiscard]] std::uint16_t port() const noexcept { return port_; }
    /// Where it is open; Listener::place(). Before takeListener().
    [[nodiscard]] std::string place() const { return listener_->place(); }
    /// The port, open already. Once.
    [[nodiscard]] std::unique_ptr<platform::Listener> takeListener() noexcept { return std::move(listener_); }

private:
    BorrowedPort(std::unique_ptr<platform::Stream> connection, std::uint16_t port,
                 std::unique_ptr<platform::Listener> listener) noexcept
        : connection_(std::move(connection)), port_(port), listener_(std::move(listener)) {}

    std::unique_ptr<platform::Stream> connection_; ///< the service takes its port back when this closes
    std::uint16_t port_;
    std::unique_ptr<platform::Listener> listener_;
};

} // namespace orlinth::host
