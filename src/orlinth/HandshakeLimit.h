#pragma once

#include "orlinth/TaskRunner.h"
#include "platform/Clock.h"

#include <memory>

namespace orlinth::host {

/// Ends a transfer whose other side connects and then does not prove who it is within `seconds`.
///
/// The transfer's observer calls begin() when the connection is up and end() when the handshake is complete.
class HandshakeLimit {
public:
    static constexpr int seconds = 10;

    /// `runner` runs the transfer and outlives this.
    HandshakeLimit(platform::Clock& clock, TaskRunner& runner);

    void begin();
    void end() noexcept;
    /// Whether the transfer was cancelled from here.
    [[nodiscard]] bool hasExpired() const noexcept { return expired_; }
    /// What to report then.
    [[nodiscard]] static std::string text();

private:
    TaskRunner& runner_;
    std::unique_ptr<platform::Timer> timer_;
    bool expired_ = false;
};

} // namespace orlinth::host
