#include "OrlinthHost/Service/PartialsReminder.h"

#include "OrlinthCore/Receiving/Partials.h"
#include "platform/SystemError.h"

#include <asio/post.hpp>

#include <exception>
#include <utility>

namespace orlinth::host {
namespace {

constexpr const char* timeKey = "reminded_at_epoch_ms";
constexpr std::uint32_t reminderPermissions = 0600;
constexpr std::int64_t nanosecondsInMillisecond = 1'000'000;

} // namespace

PartialsReminder::PartialsReminder(Home& home, platform::Path folder, std::function<void(const Reminder&)> onReminder)
    : home_(home),
      folder_(std::move(folder)),
      onReminder_(std::move(onReminder)),
      timer_(home.system.clock.makeTimer(home.executor)),
      looks_(home.system.queues, "orlinth.serve.partials") {}

void PartialsReminder::start() {
    lookIn(firstLookSeconds);
}

void PartialsReminder::stop() noexcept {
    timer_->disarm();
}

Task<> PartialsReminder::finish() {
    stop();
    co_await looks_.finish();
}

void PartialsReminder::lookIn(double seconds) {
    timer_->arm(seconds, [this] {
        looks_.add([this] { look(); }); // finish() comes behind it
        lookIn(lookSeconds);
    });
}

void PartialsReminder::look() {
    try {
        const Reminder reminder = isDue() ? count() : Reminder{};
        if (reminder.count == 0) {
            return;
        }
        const Json state = {{timeKey, home_.system.clock.epochMilliseconds()}};
        platform::writeWholeFile(home_.system.files, home_.dataDirectory() / fileName, asBytes(prettyJson(state)),
                                 reminderPermissions, platform::Flush::now, platform::Links::follow);
        asio::post(home_.executor, [this, reminder] { onReminder_(reminder); });
    } catch (const std::exception& error) {
        home_.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "serve",
                               "cannot look for unfinished downloads: " + describe(error));
    }
}

bool PartialsReminder::isDue() const {
    try {
        const Bytes content = platform::readWholeFile(home_.system.files, home_.dataDirectory() / fileName);
        const std::int64_t last = requireInt64(parseJson(content), timeKey);
        const std::int64_t now = home_.system.clock.epochMilliseconds();
        return last > now || now - last >= weekMilliseconds; // a clock that was wrong then is not believed
    } catch (const Error&) {
        return true;
    }
}

PartialsReminder::Reminder PartialsReminder::count() const {
    Reminder reminder;
    const std::int64_t limit = home_.system.clock.epochMilliseconds() - weekMilliseconds;
    for (const PartialDownload& download : Partials::in(*home_.system.files.openFolder(folder_))) {
        if (download.changedNanoseconds / nanosecondsInMillisecond <= limit) {
            ++reminder.count;
            reminder.bytes += download.size;
        }
    }
    return reminder;
}

} // namespace orlinth::host
