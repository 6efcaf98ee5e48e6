#pragma once

#include "base/Time.h"

#include <cstdint>
#include <optional>
#include <string>

namespace orlinth::platform {

/// Who has a TCP port open for connections.
struct PortHolder {
    std::uint32_t user = 0; ///< user id
    bool isThisUser = false;
    /// The name of the program, of one that runs for this user and can be looked at; else "".
    std::string program;

    friend bool operator==(const PortHolder&, const PortHolder&) = default;
};

/// What the system says of itself, for those who look for a fault. Nothing here changes anything, sends a packet or
/// needs privileges; calls return at once, on any thread, and what cannot be found out is absent.
class Machine {
public:
    virtual ~Machine() = default;
    /// Of several, one that listens everywhere. Nothing if nobody listens there.
    [[nodiscard]] virtual std::optional<PortHolder> holderOf(std::uint16_t port) const = 0;
    /// Whether the system's clock is kept right by others, such as a time server.
    [[nodiscard]] virtual std::optional<bool> isClockSynchronised() const = 0;
    /// When the system was started, by the wall clock as it is now.
    [[nodiscard]] virtual std::optional<EpochMilliseconds> startedAt() const = 0;
};

} // namespace orlinth::platform
