#pragma once

#include "OrlinthHost/Outbox/OutboxView.h"
#include "OrlinthHost/Service/PhonePresence.h"
#include "OrlinthHost/Service/TransferList.h"
#include "platform/FileSystem.h"

#include <cstdint>
#include <string>

namespace orlinth::host {

/// The service itself, as faces show it. TransferView, OutboxView and PhoneView are the rest of what they show.
struct ServiceView {
    enum class State {
        starting,
        listening,
        lent,         ///< a pairing has the port
        notListening, ///< the port cannot be opened again, for `problem`
        stopping
    };

    State state = State::starting;
    std::uint16_t port = 0;        ///< 0 before it is known
    std::string problem = {};      ///< of the port, or of a folder that cannot be written
    std::string name = {};         ///< what this computer calls itself
    platform::Path downloads = {}; ///< where files go, unless their phone has a folder of its own

    friend bool operator==(const ServiceView&, const ServiceView&) = default;
};

/// A paired phone.
struct PhoneView {
    std::string name = {};
    PhonePresence presence = {};
    EpochMilliseconds pairedAt{};
    std::string address = {}; ///< where it is reached, without the port

    friend bool operator==(const PhoneView&, const PhoneView&) = default;
};

} // namespace orlinth::host
