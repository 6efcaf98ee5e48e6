#include "OrlinthCore/Receiving/FolderTurns.h"

#include "OrlinthCore/Peers/PeerRecord.h"
#include "OrlinthCore/Receiving/ReceiveError.h"
#include "platform/Cancelled.h"
#include "platform/SystemError.h"

#include <asio/experimental/as_tuple.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>

#include <algorithm>
#include <deque>
#include <mutex>
#include <utility>

namespace orlinth {
namespace {

/// How often another process is asked whether it has done; a lock between processes tells nobody when it is free.
constexpr double lookSeconds = 0.01;

constexpr std::uint32_t lockPermissions = 0600;
constexpr std::uint32_t dataFolderPermissions = 0700;

/// Some network file systems cannot lock. O_EXCL still keeps two receivers from one fresh partial.
bool meansNoLocks(const std::error_code& code) {
    return code == std::errc::no_lock_available || code == std::errc::bad_file_descriptor ||
           code == std::errc::operation_not_supported || code == std::errc::function_not_supported;
}

/// Whether the lock is held from now on, or need not be.
bool tryLock(platform::File& file) {
    try {
        return file.tryLock();
    } catch (const platform::SystemError& error) {
        if (meansNoLocks(error.code())) {
            return true;
        }
        throw;
    }
}

} // namespace

/// Those of this process who wait, in the order in which they came.
class FolderTurns::Line {
public:
    /// Somebody who waits. `woken` is a condition variable on its executor: it never rings, and is cancelled.
    struct Waiter {
        explicit Waiter(const Executor& executor) : woken(executor, asio::steady_timer::time_point::max()) {}
        asio::steady_timer woken;
        bool isNext = false; ///< it has the turn; under the line's lock
    };
    using WaiterRef = std::shared_ptr<Waiter>;

    /// True if the turn is the waiter's at once; else it is in the line.
    [[nodiscard]] bool join(const WaiterRef& waiter) {
        const std::lock_guard guard(lock_);
        if (!std::exchange(isTaken_, true)) {
            waiter->isNext = true;
            return true;
        }
        waiting_.push_back(waiter);
        return false;
    }
    [[nodiscard]] bool isNext(const WaiterRef& waiter) const {
        const std::lock_guard guard(lock_);
        return waiter->isNext;
    }
    /// Gives the turn, or the place in the line, away.
    void leave(const WaiterRef& waiter) {
        const std::lock_guard guard(lock_);
        if (!waiter->isNext) {
            std::erase(waiting_, waiter);
            return;
        }
        if (waiting_.empty()) {
            isTaken_ = false;
            return;
        }
        const WaiterRef next = waiting_.front();
        waiting_.pop_front();
        next->isNext = true;
        asio::post(next->woken.get_executor(), [next] { next->woken.cancel(); });
    }

private:
    mutable std::mutex lock_; ///< guards what follows
    bool isTaken_ = false;
    std::deque<WaiterRef> waiting_;
};

/// A place in the line, and then the turn.
class FolderTurn::Pass {
public:
    using Line = FolderTurns::Line;
    Pass(std::shared_ptr<Line> line, const Executor& executor)
        : line_(std::move(line)), waiter_(std::make_shared<Line::Waiter>(executor)) {}
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    ~Pass() {
        if (hasJoined_) {
            line_->leave(waiter_);
        }
    }

    /// @throws Cancelled
    [[nodiscard]] Task<> wait() {
        const bool isNext = line_->join(waiter_);
        hasJoined_ = true;
        while (!isNext && !line_->isNext(waiter_)) {
            try {
                co_await waiter_->woken.async_wait(asio::experimental::as_tuple(asio::use_awaitable));
            } catch (const std::exception& error) {
                if (platform::isCancellation(error)) {
                    throw platform::Cancelled(); // the task was cancelled before it came here
                }
                throw;
            }
            const asio::cancellation_state state = co_await asio::this_coro::cancellation_state;
            if (state.cancelled() != asio::cancellation_type::none) {
                throw platform::Cancelled();
            }
        }
    }

private:
    std::shared_ptr<Line> line_;
    std::shared_ptr<Line::Waiter> waiter_;
    bool hasJoined_ = false;
};

FolderTurn::FolderTurn(std::unique_ptr<Pass> pass, std::unique_ptr<platform::File> lock)
    : pass_(std::move(pass)), lock_(std::move(lock)) {}
FolderTurn::FolderTurn(FolderTurn&&) noexcept = default;
FolderTurn::~FolderTurn() = default;

FolderTurns::FolderTurns(platform::System& system) : system_(system), line_(std::make_shared<Line>()) {}
FolderTurns::~FolderTurns() = default;

platform::Path FolderTurns::lockFile(const platform::FileStatus& folder) const {
    return system_.directories.data / PeerStore::defaultDirectoryName /
           ("downloads-" + std::to_string(folder.device) + "-" + std::to_string(folder.inode) + ".lock");
}

std::unique_ptr<platform::File> FolderTurns::openLock(const platform::FileStatus& folder) const {
    const platform::Path path = lockFile(folder);
    try {
        return system_.files.open(path, platform::OpenMode::write, platform::Links::refuse);
    } catch (const platform::SystemError& error) {
        if (error.code() != std::errc::no_such_file_or_directory) {
            throw;
        }
    }
    system_.files.createDirectories(path.parent_path(), dataFolderPermissions);
    return system_.files.open(path, platform::OpenMode::openOrCreate, platform::Links::refuse, lockPermissions);
}

Task<FolderTurn> FolderTurns::take(platform::FileStatus folder) {
    const Executor executor = co_await asio::this_coro::executor;
    auto pass = std::make_unique<FolderTurn::Pass>(line_, executor);
    co_await pass->wait();
    const platform::Clock::Instant since = system_.clock.now(); // how long others of this process took is no matter
    std::unique_ptr<platform::File> lock;
    bool isLocked = false;
    for (;;) {
        try {
            if (!lock) {
                lock = openLock(folder);
            }
            isLocked = tryLock(*lock);
        } catch (const platform::SystemError& error) {
            throw ReceiveError::fileWriteFailed("cannot lock " + lockFile(folder).native() + ": " +
                                                error.description());
        }
        if (isLocked) {
            co_return FolderTurn(std::move(pass), std::move(lock));
        }
        if ((system_.clock.now() - since).count() >= patienceSeconds) {
            throw ReceiveError::fileWriteFailed("another program holds the lock " + lockFile(folder).native());
        }
        co_await system_.clock.sleep(lookSeconds);
    }
}

} // namespace orlinth
