#include "OrlinthHost/Service/UpgradeWatch.h"

#include "base/Error.h"
#include "platform/Blocking.h"
#include "platform/Cancelled.h"
#include "platform/SystemError.h"

#include <cstdint>
#include <exception>
#include <utility>

namespace orlinth::host {

UpgradeWatch::UpgradeWatch(Home& home, ServiceApi& api, std::optional<platform::Path> program)
    : home_(home),
      api_(api),
      program_(std::move(program).value_or(platform::Path())),
      isAsked_(home.executor),
      tasks_(home.executor) {}

void UpgradeWatch::start() {
    if (program_.empty() || !api_.canRestart()) {
        return;
    }
    tasks_.add(run(), [&log = home_.system.log](const std::exception_ptr& error) {
        try {
            if (error) {
                std::rethrow_exception(error);
            }
        } catch (const std::exception& failure) {
            if (!platform::isCancellation(failure)) {
                log.write(platform::LogLevel::error, "com.tarvinex.orlinth", "serve", describe(failure));
            }
        }
    });
}

Task<> UpgradeWatch::finish() {
    tasks_.cancelAll();
    co_await tasks_.join();
}

Task<> UpgradeWatch::run() {
    const Look own = co_await look();
    if (!own) {
        co_return;
    }
    for (;;) {
        static_cast<void>(co_await isAsked_.wait(home_.system.clock, lookInterval));
        isAsked_.reset();
        bool isReplaced = co_await wasReplaced(*own);
        if (isReplaced) {
            co_await untilIdle();
            isReplaced = co_await wasReplaced(*own); // it may have taken days
        }
        if (isReplaced && !api_.isBusy()) {
            home_.system.log.write(platform::LogLevel::notice, "com.tarvinex.orlinth", "serve",
                                   "the program was replaced on the disk, so the service starts anew");
            api_.restart();
            co_return;
        }
    }
}

Task<UpgradeWatch::Look> UpgradeWatch::look() {
    const auto step = [this]() -> Look {
        try {
            return home_.system.files.status(program_);
        } catch (const platform::SystemError&) {
            return std::nullopt;
        }
    };
    co_return co_await platform::blocking(home_.system.queues, step);
}

Task<bool> UpgradeWatch::wasReplaced(const platform::FileStatus& own) {
    const Look now = co_await look();
    co_return now && now->kind == platform::FileKind::regular && !platform::isSameFile(*now, own);
}

/// Nothing is under way, and nothing has begun for a minute.
Task<> UpgradeWatch::untilIdle() {
    bool isIdle = false;
    while (!isIdle) {
        while (api_.isBusy()) {
            static_cast<void>(
                co_await api_.news().until([this] { return !api_.isBusy(); }, home_.system.clock, idleTime));
        }
        const std::uint64_t seen = api_.workBegun();
        const auto hasBegun = [this, seen] { return api_.workBegun() != seen; };
        const bool isInterrupted = co_await api_.news().until(hasBegun, home_.system.clock, idleTime);
        isIdle = !isInterrupted && !api_.isBusy();
    }
}

} // namespace orlinth::host
