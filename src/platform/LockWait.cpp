#include "platform/LockWait.h"

#include "platform/Event.h"
#include "platform/SystemError.h"

#include <asio/this_coro.hpp>

#include <algorithm>

namespace orlinth::platform {
namespace {

/// The system tells that a file was closed, and then lets its lock go. Who has come in between looks again after so
/// long.
constexpr Seconds settlingTime = 20ms;

/// Null if the folder cannot be watched. `change` outlives the watch.
std::unique_ptr<FolderWatch> watchFor(const Storage& storage, const Path& folder, const Executor& executor,
                                      Event& change) {
    try {
        return storage.folders.watch(folder, executor, [&change] { change.set(); });
    } catch (const SystemError& error) {
        storage.log.write(LogLevel::debug, "com.tarvinex.orlinth", "lock",
                          "cannot watch " + folder.native() + ": " + error.description());
        return nullptr;
    }
}

} // namespace

Task<bool> lockWithin(Storage storage, File& file, Path path, Seconds limit) {
    if (file.tryLock()) {
        co_return true;
    }
    const Executor executor = co_await asio::this_coro::executor;
    const Clock::Instant end = storage.clock.now() + limit;
    Event closed(executor);
    const std::unique_ptr<FolderWatch> watch = watchFor(storage, path.parent_path(), executor, closed);
    bool isTold = false;
    for (;;) {
        closed.reset();
        if (file.tryLock()) {
            co_return true;
        }
        const Seconds left = end - storage.clock.now();
        if (left <= 0s) {
            co_return false;
        }
        isTold = co_await closed.wait(storage.clock, isTold ? std::min(left, settlingTime) : left);
    }
}

} // namespace orlinth::platform
