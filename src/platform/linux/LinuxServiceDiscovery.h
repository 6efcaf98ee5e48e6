#pragma once

#include "platform/ServiceDiscovery.h"
#include "platform/linux/AvahiLoop.h"

namespace orlinth::platform {

/// Key and value of each string of a TXT record, in their order (RFC 6763 §6.4): the key in lower case, since its case
/// does not matter; what follows the first "=" is the value, "" where there is none. Strings without a key are left
/// out, and so are all but the first of equal keys. Any bytes may come.
[[nodiscard]] std::vector<std::pair<std::string, std::string>> txtPairs(const std::vector<std::string>& strings);

/// DNS-SD through the Avahi daemon. Destroying it withdraws and ends everything that is left.
class LinuxServiceDiscovery final : public ServiceDiscovery {
public:
    /// How many services find() returns at most, and of how many sightings: a service is seen once an interface and
    /// protocol. The daemon gives one client 1024 objects.
    static constexpr std::size_t maxFound = 256;
    static constexpr std::size_t maxSightings = 1000;

    LinuxServiceDiscovery();
    ~LinuxServiceDiscovery() override;
    LinuxServiceDiscovery(const LinuxServiceDiscovery&) = delete;
    LinuxServiceDiscovery& operator=(const LinuxServiceDiscovery&) = delete;

    /// Tries again each second while it is not the service itself that is at fault, and at once when a daemon appears;
    /// tells the first failure of each time that the service is not announced. A bus that is silent for two seconds is
    /// as good as none.
    [[nodiscard]] std::unique_ptr<ServicePublication> publish(ServiceRecord service, Executor executor,
                                                              PublicationEvents events) override;
    /// Type and domain of what is found end with a dot, the keys are in lower case. @throws SystemError also where the
    /// daemon has not begun to look when the time is over
    [[nodiscard]] Task<std::vector<ServiceRecord>> find(std::string type, Seconds duration) override;

private:
    std::shared_ptr<AvahiLoop> loop_; ///< publications that outlive this know it weakly
};

} // namespace orlinth::platform
