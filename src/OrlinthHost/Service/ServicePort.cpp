#include "OrlinthHost/Service/ServicePort.h"

#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/Service/NearbyListener.h"
#include "platform/IpAddress.h"
#include "platform/SystemError.h"

#include <asio/post.hpp>

#include <algorithm>
#include <utility>

namespace orlinth::host {

namespace {

/// Without those that came before, in their order.
std::vector<std::string> withoutRepetitions(const std::vector<std::string>& places) {
    std::vector<std::string> different;
    for (const std::string& place : places) {
        if (std::ranges::find(different, place) == different.end()) {
            different.push_back(place);
        }
    }
    return different;
}

/// How little a place is worth for a pairing, whose code has an IPv4 address that phones shall reach: 0 is best.
int rankForPairing(const platform::NetworkInterfaces& interfaces, const std::string& place) {
    constexpr std::uint8_t loopback = 127;
    const auto isLoopback = [&place](const platform::InterfaceAddress& entry) {
        return entry.name == place && entry.isLoopback;
    };
    bool isForThisComputer = false;
    const auto address = platform::parseIpAddress(place);
    if (!address) {
        isForThisComputer = std::ranges::any_of(interfaces.list(), isLoopback);
    } else if (const auto* const ipv4 = std::get_if<platform::Ipv4Address>(&*address)) {
        isForThisComputer = ipv4->front() == loopback;
    } else {
        return 2;
    }
    return isForThisComputer ? 1 : 0;
}

} // namespace

ServicePort::ServicePort(Home& home, Settings settings, OnFarAway onFarAway)
    : home_(home), settings_(std::move(settings)), onFarAway_(std::move(onFarAway)) {
    settings_.places = withoutRepetitions(settings_.places);
}

std::optional<std::uint16_t> ServicePort::adoptInherited() {
    try {
        const std::optional<std::uint16_t> inherited = home_.system.network.inheritedPort();
        settings_.number = inherited.value_or(settings_.number);
        return inherited;
    } catch (const platform::SystemError& error) {
        throw PortError(PortError::Case::inheritedUnusable, 0,
                        "cannot use what the service manager has opened: " + error.description());
    }
}

Task<std::unique_ptr<platform::Listener>> ServicePort::open() {
    std::error_code reason;
    std::string text;
    try {
        co_return listen({.port = settings_.number, .keepAlive = Receiver::keepAlive}, home_.executor);
    } catch (const platform::SystemError& error) {
        reason = error.code();
        text = Receiver::Error::listenerStartFailed(describe(error)).description();
    }
    const bool isNoPlace = reason == std::errc::no_such_device || reason == std::errc::address_not_available;
    if (!settings_.places.empty() && isNoPlace) {
        throw PortError(PortError::Case::noSuchPlace, settings_.number, text);
    }
    if (reason == std::errc::address_in_use && doPlacesExcludeEachOther()) {
        throw PortError(PortError::Case::placesExcludeEachOther, settings_.number, text);
    }
    PortError trouble = co_await findPortTrouble(home_, settings_.number, reason, std::move(text));
    throw trouble;
}

/// Each of several could be had alone, so that it is nobody else who has the port.
bool ServicePort::doPlacesExcludeEachOther() const {
    const auto isFree = [this](const std::string& place) {
        try {
            static_cast<void>(home_.system.network.listen(
                {.port = settings_.number, .keepAlive = std::nullopt, .places = {place}}, home_.executor));
            return true;
        } catch (const platform::SystemError&) {
            return false;
        }
    };
    return settings_.places.size() > 1 && std::ranges::all_of(settings_.places, isFree);
}

std::unique_ptr<platform::Listener> ServicePort::listen(platform::ListenOptions options, Executor executor) const {
    options.places = settings_.places;
    std::unique_ptr<platform::Listener> listener = home_.system.network.listen(options, std::move(executor));
    if (settings_.isPublic) {
        return listener;
    }
    auto tell = [onFarAway = onFarAway_, main = home_.executor](const std::string& endpoint) {
        asio::post(main, [onFarAway, endpoint] { onFarAway(endpoint); });
    };
    return std::make_unique<NearbyListener>(std::move(listener), home_.system.interfaces, std::move(tell));
}

std::unique_ptr<platform::Listener> ServicePort::listenForPairing(platform::ListenOptions options,
                                                                  Executor executor) const {
    const auto best = std::ranges::min_element(settings_.places, {}, [this](const std::string& place) {
        return rankForPairing(home_.system.interfaces, place);
    });
    options.places = best == settings_.places.end() ? std::vector<std::string>() : std::vector{*best};
    return home_.system.network.listen(options, std::move(executor));
}

} // namespace orlinth::host
