#pragma once

#include "OrlinthHost/Service/HistoryKeeper.h"
#include "platform/linux/BusLoop.h"

#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace orlinth::bus {

/// Appends the entries as "aa{sv}"; negative if the library refuses. What is in one tells docs/dbus.md.
[[nodiscard]] int appendHistory(sd_bus_message* message, const std::vector<host::HistoryEntry>& entries);

/// Tells of each entry that comes, by the signal HistoryAdded; by an empty one if the history is to be read anew: it
/// was cleared, or more came at once than is told. On the executor of the connection.
class HistorySignals {
public:
    /// At a time; the rest comes at the next.
    static constexpr std::size_t signalsAtOnce = 3;
    /// More that wait are told by the empty one.
    static constexpr std::size_t maxWaiting = 16;

    /// From now on; what was before is not told.
    void start(const host::HistoryKeeper& history) noexcept { seen_ = history.version(); }
    /// What it has come to.
    struct Told {
        std::size_t signals = 0;
        bool isEverything = true;
    };
    /// Tells what has come since the last call.
    Told tell(platform::BusLoop& loop, const host::HistoryKeeper& history);

private:
    std::uint64_t seen_ = 0;
};

} // namespace orlinth::bus
