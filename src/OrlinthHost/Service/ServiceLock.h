#pragma once

#include "OrlinthHost/Home.h"
#include "platform/FileSystem.h"

#include <memory>

namespace orlinth::host {

/// Keeps the service to one a data folder, for as long as this lives, and goes with the process however that ends.
///
/// Threading: on the home's executor.
class ServiceLock {
public:
    /// The file of the data folder that a service keeps locked while it runs.
    static constexpr const char* fileName = "service.lock";

    /// Whoever looks whether a service runs has the lock for an instant; that is waited for, a tenth of a second.
    /// `home` outlives the call.
    /// @throws HostError if a service runs for this data folder, or the file cannot be locked
    [[nodiscard]] static Task<ServiceLock> take(Home& home);

    /// Whether somebody has it. What cannot be found out counts as no.
    [[nodiscard]] static bool isHeld(const Home& home);

private:
    explicit ServiceLock(std::unique_ptr<platform::File> file) noexcept : file_(std::move(file)) {}

    std::unique_ptr<platform::File> file_;
};

} // namespace orlinth::host
