#pragma once

#include "orlinth/Host.h"

#include <cstdint>
#include <functional>
#include <memory>

namespace orlinth::host {

/// Reminds of unfinished downloads that nothing has come of for a week: once a week, also across restarts. When it was
/// is kept in a file of the data folder.
///
/// Threading: everything on the thread of the runner, which it blocks for a look through the folder once a day at most.
class PartialsReminder {
public:
    static constexpr const char* fileName = "partials-reminder.json";
    static constexpr std::int64_t weekMilliseconds = std::int64_t{7} * 24 * 3600 * 1000;
    /// Seconds from the start to the first look, so that it holds nothing up, and from each one to the next.
    static constexpr double firstLookSeconds = 60;
    static constexpr double lookSeconds = 24 * 3600;

    struct Reminder {
        std::int64_t count = 0;
        std::int64_t bytes = 0;
    };

    /// `onReminder` is called on the runner's thread. `host` outlives this.
    PartialsReminder(Host& host, platform::Path folder, std::function<void(const Reminder&)> onReminder);

    /// Once.
    void start();
    /// Nothing is called any more.
    void stop() noexcept;

private:
    void lookIn(double seconds);
    void look();
    [[nodiscard]] bool isDue() const;
    [[nodiscard]] Reminder count() const;

    Host& host_;
    platform::Path folder_;
    std::function<void(const Reminder&)> onReminder_;
    std::unique_ptr<platform::Timer> timer_;
};

} // namespace orlinth::host
