#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Reach/Finding.h"

#include <optional>

/// What can be wrong with the service, and with the place that files go to. Nothing is changed.
namespace orlinth::host {

/// What was found of the service.
struct ServiceFinding {
    Finding finding;
    std::uint16_t port = 0;        ///< that phones connect to
    platform::Path downloads = {}; ///< the folder for received files; "" if no service runs, or if it does not say
};

/// Whether the service of this data folder runs, and receives at the port that the phones know. Its lock is only tried.
/// `home` outlives the task. @throws platform::Cancelled
[[nodiscard]] Task<ServiceFinding> checkService(Home& home);

/// Whether files can be put into the folder: permissions and room, as the system tells them. Blocks on the disk.
[[nodiscard]] Finding checkDownloads(const Home& home, const platform::Path& folder);

/// Room below which hardly anything fits.
inline constexpr std::int64_t leastRoom = std::int64_t{64} << 20;

} // namespace orlinth::host
