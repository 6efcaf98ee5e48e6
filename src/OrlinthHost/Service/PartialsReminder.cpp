#include "OrlinthHost/Service/PartialsReminder.h"

#include "OrlinthCore/Receiving/Partials.h"
#include "OrlinthCore/Share/ShareOutbox.h"
#include "platform/SystemError.h"

#include <asio/post.hpp>

#include <exception>
#include <utility>

namespace orlinth::host {
namespace {

constexpr const char* timeKey = "reminded_at_epoch_ms";
constexpr std::uint32_t reminderPermissions = 0600;

} // namespace

PartialsReminder::PartialsReminder(Home& home, std::function<std::vector<platform::Path>()> folders,
                                   std::function<void(const Reminder&, const platform::Path&)> onReminder)
    : home_(home),
      folders_(std::move(folders)),
      onReminder_(std::move(onReminder)),
      timer_(home.system.clock.makeTimer(home.executor)),
      looks_(home.system.queues, "orlinth.serve.partials") {}

void PartialsReminder::start() {
    lookIn(firstLookDelay);
}

void PartialsReminder::stop() noexcept {
    timer_->disarm();
}

Task<> PartialsReminder::finish() {
    stop();
    co_await looks_.finish();
}

void PartialsReminder::lookIn(Seconds delay) {
    timer_->arm(delay, [this] {
        looks_.add([this] { look(); }); // finish() comes behind it
        lookIn(lookInterval);
    });
}

void PartialsReminder::look() {
    for (const platform::Path& folder : folders_()) {
        tidy(folder);
    }
    tidy(home_.dataDirectory());
    tidy(ShareOutbox(home_.system.files, home_.system.directories).container());
    try {
        std::vector<std::pair<platform::Path, Reminder>> reminders;
        if (isDue()) {
            for (const platform::Path& folder : folders_()) {
                if (const std::optional<Reminder> reminder = count(folder)) {
                    reminders.emplace_back(folder, *reminder);
                }
            }
        }
        if (reminders.empty()) {
            return;
        }
        const Json state = {{timeKey, toNumber(home_.system.clock.epochMilliseconds())}};
        platform::writeWholeFile(home_.system.files, home_.dataDirectory() / fileName, asBytes(prettyJson(state)),
                                 reminderPermissions, platform::Flush::now, platform::Links::follow);
        asio::post(home_.executor, [this, reminders = std::move(reminders)] {
            for (const auto& [folder, reminder] : reminders) {
                onReminder_(reminder, folder);
            }
        });
    } catch (const std::exception& error) {
        log(error);
    }
}

void PartialsReminder::tidy(const platform::Path& folder) const {
    try {
        const std::unique_ptr<platform::Folder> opened = home_.system.files.openFolder(folder);
        platform::removeTemporaryFiles(*opened, home_.system.clock.epochMilliseconds() - temporaryFileAge);
    } catch (const std::exception& error) {
        home_.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "serve",
                               "cannot look for temporary files: " + describe(error));
    }
}

void PartialsReminder::log(const std::exception& error) const {
    home_.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "serve",
                           "cannot look for unfinished downloads: " + describe(error));
}

bool PartialsReminder::isDue() const {
    try {
        const Bytes content = platform::readWholeFile(home_.system.files, home_.dataDirectory() / fileName);
        const EpochMilliseconds last = fromEpochMilliseconds(requireInt64(parseJson(content), timeKey));
        const EpochMilliseconds now = home_.system.clock.epochMilliseconds();
        return last > now || last <= now - week; // a clock that was wrong then is not believed
    } catch (const Error&) {
        return true;
    }
}

/// Nothing if there are none, or the folder cannot be read.
std::optional<PartialsReminder::Reminder> PartialsReminder::count(const platform::Path& path) const {
    Reminder reminder;
    const EpochMilliseconds limit = home_.system.clock.epochMilliseconds() - week;
    try {
        for (const PartialDownload& download : Partials::in(*home_.system.files.openFolder(path))) {
            if (inMilliseconds(download.changedAt) <= limit) {
                ++reminder.count;
                reminder.bytes += download.size;
            }
        }
    } catch (const platform::SystemError& error) {
        log(error);
    }
    return reminder.count > 0 ? std::optional(reminder) : std::nullopt;
}

} // namespace orlinth::host
