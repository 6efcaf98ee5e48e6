#pragma once

#include "platform/Routes.h"
#include "platform/SystemError.h"

#include <cerrno>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orlinth::fakes {

/// A routing table of single addresses. What a test has not named has no route (ENETUNREACH). One thread.
class MemoryRoutes final : public platform::Routes {
public:
    ~MemoryRoutes() override;
    [[nodiscard]] std::variant<platform::Route, platform::NoRoute>
    to(const platform::IpAddress& address) const override {
        if (errorNumber) {
            throw platform::SystemError::fromErrno(*errorNumber);
        }
        asked.push_back(address);
        const auto place = ways_.find(address);
        return place != ways_.end() ? place->second : noRoute(ENETUNREACH);
    }

    [[nodiscard]] std::optional<platform::IpAddress> gatewayBy(const std::string& interface) const override {
        if (errorNumber) {
            throw platform::SystemError::fromErrno(*errorNumber);
        }
        const auto place = gateways.find(interface);
        return place != gateways.end() ? std::optional(place->second) : std::nullopt;
    }

    void putOnLink(const platform::IpAddress& address, std::string interface = "wlan0") {
        put(address, by(std::move(interface)));
    }
    void putVia(const platform::IpAddress& address, platform::IpAddress gateway, std::string interface = "wlan0") {
        platform::Route route = by(std::move(interface));
        route.gateway = std::move(gateway);
        put(address, std::move(route));
    }
    void putOwn(const platform::IpAddress& address) {
        platform::Route route = by("lo");
        route.interfaceIndex = 1;
        route.source = address;
        route.isThisComputer = true;
        put(address, std::move(route));
    }
    void put(const platform::IpAddress& address, platform::Route route) {
        ways_.insert_or_assign(address, std::move(route));
    }
    void close(const platform::IpAddress& address, int number) { ways_.insert_or_assign(address, noRoute(number)); }

    std::map<std::string, platform::IpAddress> gateways; ///< what gatewayBy() answers, by interface
    std::optional<int> errorNumber;                      ///< to() fails with this error, if set
    mutable std::vector<platform::IpAddress> asked;      ///< what to() was called with and has answered

private:
    using Way = std::variant<platform::Route, platform::NoRoute>;

    /// On the link of an interface that is the second of its computer.
    [[nodiscard]] static platform::Route by(std::string interface) {
        platform::Route route;
        route.interfaceIndex = 2;
        route.interface = std::move(interface);
        return route;
    }
    [[nodiscard]] static Way noRoute(int number) {
        return platform::NoRoute{.code = std::error_code(number, std::generic_category())};
    }

    std::map<platform::IpAddress, Way> ways_;
};

} // namespace orlinth::fakes
