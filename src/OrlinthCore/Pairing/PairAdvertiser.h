#pragma once

#include "OrlinthCore/Pairing/PairingPayload.h"
#include "platform/Log.h"
#include "platform/ServiceDiscovery.h"

#include <functional>
#include <memory>
#include <string_view>

namespace orlinth {

/// Announces pair mode by DNS-SD, with everything that the QR code says, the secret included.
///
/// Threading: start(), stop() and destruction on the executor that events are told on.
class PairAdvertiser {
public:
    static constexpr std::size_t maxHostnameCharacters = 60;

    /// Builds the service and publishes nothing. `services` and `log` outlive this; events come on `executor`.
    PairAdvertiser(platform::ServiceDiscovery& services, platform::Log& log, const PairingPayload& payload,
                   std::string_view code, Executor executor);
    PairAdvertiser(const PairAdvertiser&) = delete;
    PairAdvertiser& operator=(const PairAdvertiser&) = delete;
    /// Withdraws it, and wipes this copy of the secret.
    ~PairAdvertiser();

    /// What is announced.
    [[nodiscard]] const platform::ServiceRecord& service() const noexcept { return service_; }

    /// Begins to announce, anew if it is announced already. A failure goes to the system log, and to `events`; nothing
    /// else happens.
    void start(platform::ServiceDiscovery::PublicationEvents events = {});
    /// Withdraws it, if it is announced.
    void stop() noexcept;

private:
    platform::ServiceDiscovery& services_;
    platform::Log& log_;
    platform::ServiceRecord service_;
    Executor executor_;
    std::unique_ptr<platform::ServicePublication> publication_;
};

} // namespace orlinth
