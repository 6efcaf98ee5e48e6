#pragma once

#include "platform/ServiceDiscovery.h"
#include "platform/linux/AvahiLoop.h"

#include <avahi-client/client.h>
#include <avahi-client/publish.h>

namespace orlinth::platform {

/// One service that is being announced.
///
///     begin ─▶ connecting ─▶ registering ─▶ announced
///                  ▲    failure │  failure │
///                  └──1 s───────┴──────────┘        collision, or a service that Avahi does not take ─▶ given up
class AvahiAnnouncement final : public AvahiJob {
public:
    AvahiAnnouncement(AvahiLoop& loop, ServiceRecord service, Executor executor,
                      ServiceDiscovery::PublicationEvents events);
    ~AvahiAnnouncement() override;

    /// From now on nothing is told. On the executor of the events.
    void fallSilent() noexcept;
    /// Reports that the service is not announced. Any thread.
    void tellFailure(std::string reason) noexcept;

private:
    struct Teller;

    void begin() override;
    void end() noexcept override;

    void open() noexcept;
    void close() noexcept;
    void clientChanged(AvahiClient* client, AvahiClientState state) noexcept;
    void groupChanged(AvahiEntryGroup* group, AvahiEntryGroupState state) noexcept;
    void announce(AvahiClient* client) noexcept;
    [[nodiscard]] int addService() noexcept;
    /// Tells it, lets go of the client when its callbacks have returned, and begins anew where that may help.
    void failed(int error) noexcept;
    void tellOnce(int error) noexcept;
    void tell(int error) noexcept;
    void tellPublished() noexcept;

    ServiceRecord service_;
    std::shared_ptr<Teller> teller_;
    // the loop's thread only
    AvahiClient* client_ = nullptr;
    AvahiEntryGroup* group_ = nullptr;
    AvahiTimeout* closing_ = nullptr;
    bool failing_ = false;    ///< the client is about to go; what it still says does not count
    bool opensAgain_ = false; ///< after that
    bool told_ = false;       ///< that it is not announced
};

} // namespace orlinth::platform
