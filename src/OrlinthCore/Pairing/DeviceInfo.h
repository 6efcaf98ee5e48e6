#pragma once

#include "base/CaseError.h"
#include "platform/NetworkInterfaces.h"

#include <optional>
#include <string>

namespace orlinth {

class DeviceInfoError : public CaseError<DeviceInfoError> {
public:
    enum class Case { getifaddrsFailed, macNotFound, noActiveInterface };

    /// `number` is the errno of the call; 0 for a list without entries.
    [[nodiscard]] static DeviceInfoError getifaddrsFailed(std::int32_t number);
    [[nodiscard]] static DeviceInfoError macNotFound(const std::string& interface);
    [[nodiscard]] static DeviceInfoError noActiveInterface();

    /// Of getifaddrsFailed; else 0.
    [[nodiscard]] std::int32_t number() const noexcept { return number_; }

private:
    DeviceInfoError(Case which, const std::string& description, std::int32_t number = 0)
        : CaseError(which, description), number_(number) {}
    std::int32_t number_;
};

/// Under which identity a phone can reach this computer on the local network.
struct DeviceInfo {
    std::string interface;  ///< the system's name of it, for example "enp3s0"
    std::string ipv4;       ///< dotted decimal
    std::string subnetCIDR; ///< network address and prefix length: "192.168.1.0/24"
    std::string macAddress; ///< "3c:22:fb:01:02:0a"; "" of a tunnel that was named
    std::string hostname;   ///< the kernel's name of this computer, UTF-8

    /// The first interface in the system's order that is up and running, is neither loopback nor point-to-point, and
    /// has an IPv4 address that is not link-local.
    ///
    /// With `named`, the first address of that interface: whoever names one may also mean loopback, a tunnel or a
    /// link-local network, so that it only has to be up. @throws DeviceInfoError
    [[nodiscard]] static DeviceInfo current(const platform::NetworkInterfaces& interfaces,
                                            const std::optional<std::string>& named = std::nullopt);

    /// The interface that is up and has this address, whatever its kind. @throws DeviceInfoError
    [[nodiscard]] static DeviceInfo withAddress(const platform::NetworkInterfaces& interfaces,
                                                const platform::Ipv4Address& address);

    /// The kernel's name of this computer without a domain added or removed; what is not UTF-8 becomes U+FFFD.
    [[nodiscard]] static std::string hostnameString(const platform::NetworkInterfaces& interfaces);

    bool operator==(const DeviceInfo&) const = default;
};

} // namespace orlinth
