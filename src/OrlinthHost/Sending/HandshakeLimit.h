#pragma once

#include "OrlinthHost/TimeLimit.h"

#include <functional>
#include <string>
#include <utility>

namespace orlinth::host {

/// Ends a transfer whose other side connects and then does not prove who it is within `seconds`.
///
/// The transfer's observer calls begin() when the connection is up and end() when the handshake is complete.
class HandshakeLimit {
public:
    static constexpr int seconds = 10;

    /// For a transfer on `executor`: `cancel` ends it.
    HandshakeLimit(platform::Clock& clock, const Executor& executor, std::function<void()> cancel)
        : limit_(clock, executor, std::move(cancel)) {}

    void begin() { limit_.begin(seconds); }
    void end() noexcept { limit_.end(); }
    /// Whether the transfer was cancelled from here.
    [[nodiscard]] bool hasExpired() const noexcept { return limit_.hasExpired(); }
    /// What to report then.
    [[nodiscard]] static std::string text() { return "timed out after " + std::to_string(seconds) + " seconds"; }

private:
    TimeLimit limit_;
};

} // namespace orlinth::host
