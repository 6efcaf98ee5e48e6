#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Outbox/OutboxSender.h"
#include "OrlinthHost/Service/ControlMessage.h"
#include "OrlinthHost/Service/PortLoan.h"
#include "OrlinthHost/Service/ServiceEvents.h"
#include "platform/TaskGroup.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace orlinth::host {

/// Answers those who reach the running service by the socket in its data folder: one request a connection, several
/// connections side by side. ControlMessage.h has what they may say; nonsense is answered by an error.
///
/// Threading: on the home's executor.
class ServiceControlServer {
public:
    /// What is referred to outlives this. `downloads` is where the service puts files.
    /// `presence` says which phones are there, the last PresenceReply::maxPhones of them.
    ServiceControlServer(Home& home, const platform::Path& downloads, PortLoan& loan, OutboxSender& outbox,
                         ServiceEvents& events, std::function<std::vector<PhonePresence>()> presence)
        : home_(home),
          loan_(loan),
          outbox_(outbox),
          events_(events),
          presence_(std::move(presence)),
          aboutPort_{.downloads = std::filesystem::absolute(downloads).string()},
          accepting_(home.executor),
          conversations_(home.executor) {}
    ServiceControlServer(const ServiceControlServer&) = delete;
    ServiceControlServer& operator=(const ServiceControlServer&) = delete;

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
    [[nodiscard]] Task<ControlRequest> receiveRequest(platform::Stream& stream);
    /// What the request gets, unless it is answered by a loan.
    [[nodiscard]] Task<ControlReply> replyTo(ControlRequest request);
    [[nodiscard]] bool isToBeLent(const ControlRequest& request) const;

    Home& home_;
    PortLoan& loan_;
    OutboxSender& outbox_;
    ServiceEvents& events_;
    const std::function<std::vector<PhonePresence>()> presence_;
    PortReply aboutPort_;
    platform::TaskGroup accepting_;     ///< run(), if it runs
    platform::TaskGroup conversations_; ///< one for each connection
};

} // namespace orlinth::host
