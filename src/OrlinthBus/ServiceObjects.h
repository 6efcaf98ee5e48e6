#pragma once

#include "OrlinthBus/BusObject.h"
#include "OrlinthHost/Service/ServiceApi.h"

#include <string>
#include <vector>

namespace orlinth::bus {

/// What does not change while the service runs.
struct ServiceIdentity {
    std::string version; ///< of the program
    std::string dataDirectory;
    std::string publicKey;
};

/// The interfaces of the service, as docs/dbus.md and the installed description have them.
[[nodiscard]] std::vector<BusInterface> serviceInterfaces();

/// How old a transfer is when it is first told of.
inline constexpr Seconds tellingAge = 1s;

/// The service as objects. A transfer is one when it is as old as that, or has not ended well: thousands of small files
/// are none.
[[nodiscard]] BusObjects objectsOf(const host::ServiceView& service, const ServiceIdentity& identity,
                                   const std::vector<host::SettingView>& settings,
                                   const std::vector<host::PhoneView>& phones,
                                   const std::vector<host::TransferView>& transfers,
                                   const std::vector<host::OutboxView>& batches, platform::Clock::Instant now);

} // namespace orlinth::bus
