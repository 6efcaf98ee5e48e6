#pragma once

#include "platform/NetworkInterfaces.h"
#include "platform/SystemError.h"

namespace orlinth::fakes {

/// A list of interfaces as a test makes it up; by default one wired interface, 192.168.1.23/24.
class FakeNetworkInterfaces : public platform::NetworkInterfaces {
public:
    ~FakeNetworkInterfaces() override;
    [[nodiscard]] std::vector<platform::InterfaceAddress> list() const override {
        if (listErrno) {
            throw platform::SystemError::fromErrno(*listErrno);
        }
        return addresses;
    }
    [[nodiscard]] std::string hostName() const override { return name; }

    /// One entry of an interface that is up and running.
    [[nodiscard]] static platform::InterfaceAddress entry(std::string interface) {
        platform::InterfaceAddress entry;
        entry.name = std::move(interface);
        entry.isUp = entry.isRunning = true;
        return entry;
    }
    [[nodiscard]] static platform::InterfaceAddress
    ipv4(std::string interface, platform::Ipv4Address address,
         std::optional<platform::Ipv4Address> netmask = platform::Ipv4Address{255, 255, 255, 0}) {
        platform::InterfaceAddress made = entry(std::move(interface));
        made.address = platform::InterfaceAddress::Ipv4{.address = address, .netmask = netmask};
        return made;
    }
    [[nodiscard]] static platform::InterfaceAddress hardware(std::string interface, Bytes address) {
        platform::InterfaceAddress made = entry(std::move(interface));
        made.address = platform::InterfaceAddress::Hardware{.address = std::move(address)};
        return made;
    }

    std::vector<platform::InterfaceAddress> addresses{
        hardware("enp3s0",
                 {std::byte{0x3C}, std::byte{0x22}, std::byte{0xFB}, std::byte{1}, std::byte{2}, std::byte{10}}),
        ipv4("enp3s0", {192, 168, 1, 23})};
    std::string name = "workshop";
    std::optional<int> listErrno; ///< list() fails with this error, if set
};

} // namespace orlinth::fakes
