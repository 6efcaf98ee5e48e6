#include "orlinth/PartialsReminder.h"

#include "OrlinthCore/Receiving/Partials.h"
#include "platform/SystemError.h"

#include <utility>

namespace orlinth::host {
namespace {

constexpr const char* timeKey = "reminded_at_epoch_ms";
constexpr std::uint32_t reminderPermissions = 0600;
constexpr std::int64_t nanosecondsInMillisecond = 1'000'000;

} // namespace

PartialsReminder::PartialsReminder(Host& host, platform::Path folder, std::function<void(const Reminder&)> onReminder)
    : host_(host),
      folder_(std::move(folder)),
      onReminder_(std::move(onReminder)),
      timer_(host.system.clock.makeTimer(host.tasks.executor())) {}

void PartialsReminder::start() {
    lookIn(firstLookSeconds);
}

void PartialsReminder::stop() noexcept {
    timer_->disarm();
}

void PartialsReminder::lookIn(double seconds) {
    timer_->arm(seconds, [this] {
        look();
        lookIn(lookSeconds);
    });
}

void PartialsReminder::look() {
    try {
        const Reminder reminder = isDue() ? count() : Reminder{};
        if (reminder.count == 0) {
            return;
        }
        const Json state = {{timeKey, host_.system.clock.epochMilliseconds()}};
        platform::writeWholeFile(host_.system.files, host_.dataDirectory() / fileName, asBytes(prettyJson(state)),
                                 reminderPermissions, platform::Flush::now, platform::Links::follow);
        onReminder_(reminder);
    } catch (const platform::SystemError& error) {
        host_.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "serve",
                               "cannot look for unfinished downloads: " + error.description());
    }
}

bool PartialsReminder::isDue() const {
    try {
        const Bytes content = platform::readWholeFile(host_.system.files, host_.dataDirectory() / fileName);
        const std::int64_t last = requireInt64(parseJson(content), timeKey);
        const std::int64_t now = host_.system.clock.epochMilliseconds();
        return last > now || now - last >= weekMilliseconds; // a clock that was wrong then is not believed
    } catch (const Error&) {
        return true;
    }
}

PartialsReminder::Reminder PartialsReminder::count() const {
    Reminder reminder;
    const std::int64_t limit = host_.system.clock.epochMilliseconds() - weekMilliseconds;
    for (const PartialDownload& download : Partials::in(*host_.system.files.openFolder(folder_))) {
        if (download.changedNanoseconds / nanosecondsInMillisecond <= limit) {
            ++reminder.count;
            reminder.bytes += download.size;
        }
    }
    return reminder;
}

} // namespace orlinth::host
