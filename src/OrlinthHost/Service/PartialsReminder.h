#pragma once

#include "OrlinthHost/Chores.h"
#include "OrlinthHost/Home.h"

#include <cstdint>
#include <functional>
#include <memory>

namespace orlinth::host {

/// Reminds of unfinished downloads that nothing has come of for a week: once a week, also across restarts. When it was
/// is kept in a file of the data folder. At each look it also removes the temporary files, there and in the data
/// folder, that a program has left behind which was killed while it wrote.
///
/// Threading: called, and calling, on the home's executor. Folders and files are looked at on a thread of its own:
/// a network's folder may not answer for hours.
class PartialsReminder {
public:
    static constexpr const char* fileName = "partials-reminder.json";
    static constexpr std::chrono::weeks week{1};
    /// From the start to the first look, so that it holds nothing up, and from each one to the next.
    static constexpr Seconds firstLookDelay = 60s;
    static constexpr Seconds lookInterval = 24h;
    /// A temporary file is there for a moment. One that is older has no writer any more.
    static constexpr std::chrono::hours temporaryFileAge{1};

    struct Reminder {
        std::int64_t count = 0;
        std::int64_t bytes = 0;
    };

    /// `onReminder` is called on the home's executor. `home` outlives this.
    PartialsReminder(Home& home, platform::Path folder, std::function<void(const Reminder&)> onReminder);
    PartialsReminder(const PartialsReminder&) = delete;
    PartialsReminder& operator=(const PartialsReminder&) = delete;

    /// Once.
    void start();
    /// Begins no further look; start() need not have been called. A reminder of one that is under way may still come.
    void stop() noexcept;
    /// stop(), and returns when nothing is looked at or called any more: as soon as the folder answers. The last call.
    [[nodiscard]] Task<> finish();

private:
    void lookIn(Seconds delay);
    // on the queue of `looks_`
    void look();
    void tidy(const platform::Path& folder) const;
    [[nodiscard]] bool isDue() const;
    [[nodiscard]] Reminder count() const;

    Home& home_;
    platform::Path folder_;
    std::function<void(const Reminder&)> onReminder_;
    std::unique_ptr<platform::Timer> timer_;
    Chores looks_;
};

} // namespace orlinth::host
