#pragma once

#include <string_view>

namespace orlinth::platform {

enum class LogLevel { debug, info, notice, warning, error };

/// The system log. Lines are for everyone who may read it: no secret, no text of a user's goes in.
class Log {
public:
    virtual ~Log() = default;
    /// `subsystem` and `category` are fields that readers filter on. Any thread; never throws.
    virtual void write(LogLevel level, std::string_view subsystem, std::string_view category,
                       std::string_view message) noexcept = 0;
};

} // namespace orlinth::platform
