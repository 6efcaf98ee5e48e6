#include "OrlinthCore/Receiving/FolderTurns.h"

#include "OrlinthCore/Peers/PeerRecord.h"
#include "OrlinthCore/Receiving/ReceiveError.h"
#include "base/Mutex.h"
#include "platform/Event.h"
#include "platform/LockWait.h"
#include "platform/SystemError.h"

#include <asio/this_coro.hpp>

#include <algorithm>
#include <deque>
#include <utility>

namespace orlinth {
namespace {

constexpr std::uint32_t lockPermissions = 0600;
constexpr std::uint32_t dataFolderPermissions = 0700;

/// Some network file systems cannot lock. O_EXCL still keeps two receivers from one fresh partial.
bool meansNoLocks(const std::error_code& code) {
    return code == std::errc::no_lock_available || code == std::errc::bad_file_descriptor ||
           code == std::errc::operation_not_supported || code == std::errc::function_not_supported;
}

} // namespace

/// Those of this process who wait, in the order in which they came.
class FolderTurns::Line {
public:
    /// A place in the line: set, under the line's lock, when the turn has come.
    using PlaceRef = std::shared_ptr<platform::Event>;

    /// Null if the turn is free, and taken from now on; else a place in the line.
    [[nodiscard]] PlaceRef join(const Executor& executor) {
        const MutexLock guard(lock_);
        if (!std::exchange(isTaken_, true)) {
            return nullptr;
        }
        waiting_.push_back(std::make_shared<platform::Event>(executor));
        return waiting_.back();
    }
    /// Gives the turn, or the place in the line, away.
    void leave(const PlaceRef& place) {
        const MutexLock guard(lock_);
        if (place && !place->isSet()) {
            std::erase(waiting_, place);
            return;
        }
        if (waiting_.empty()) {
            isTaken_ = false;
            return;
        }
        const PlaceRef next = waiting_.front();
        waiting_.pop_front();
        next->set();
    }

private:
    Mutex lock_;
    bool isTaken_ ORLINTH_GUARDED_BY(lock_) = false;
    std::deque<PlaceRef> waiting_ ORLINTH_GUARDED_BY(lock_);
};

/// A place in the line, and then the turn.
class FolderTurn::Pass {
public:
    using Line = FolderTurns::Line;
    Pass(std::shared_ptr<Line> line, const Executor& executor)
        : line_(std::move(line)), place_(line_->join(executor)) {}
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    ~Pass() { line_->leave(place_); }

    [[nodiscard]] bool isFree() const noexcept { return place_ == nullptr; }
    /// Unless it is free. @throws Cancelled
    [[nodiscard]] Task<> wait() const { return place_->wait(); }

private:
    std::shared_ptr<Line> line_;
    Line::PlaceRef place_; ///< null if nobody was in the way
};

FolderTurn::FolderTurn(std::unique_ptr<Pass> pass, std::unique_ptr<platform::File> lock)
    : pass_(std::move(pass)), lock_(std::move(lock)) {}
FolderTurn::FolderTurn(FolderTurn&&) noexcept = default;
FolderTurn::~FolderTurn() = default;

FolderTurns::FolderTurns(platform::Storage storage) : storage_(std::move(storage)), line_(std::make_shared<Line>()) {}
FolderTurns::~FolderTurns() = default;

platform::Path FolderTurns::lockFile(const platform::FileStatus& folder) const {
    return storage_.directories.data / PeerStore::defaultDirectoryName /
           ("downloads-" + std::to_string(folder.device) + "-" + std::to_string(folder.inode) + ".lock");
}

std::unique_ptr<platform::File> FolderTurns::openLock(const platform::FileStatus& folder) const {
    const platform::Path path = lockFile(folder);
    try {
        return storage_.files.open(path, platform::OpenMode::write, platform::Links::refuse);
    } catch (const platform::SystemError& error) {
        if (error.code() != std::errc::no_such_file_or_directory) {
            throw;
        }
    }
    storage_.files.createDirectories(path.parent_path(), dataFolderPermissions);
    return storage_.files.open(path, platform::OpenMode::openOrCreate, platform::Links::refuse, lockPermissions);
}

Task<FolderTurn> FolderTurns::take(platform::FileStatus folder) {
    const Executor executor = co_await asio::this_coro::executor;
    auto pass = std::make_unique<FolderTurn::Pass>(line_, executor);
    if (!pass->isFree()) {
        co_await pass->wait();
    }
    std::unique_ptr<platform::File> lock;
    bool isLocked = false;
    try {
        lock = openLock(folder);
        isLocked = co_await platform::lockWithin(storage_, *lock, lockFile(folder), patience);
    } catch (const platform::SystemError& error) {
        isLocked = lock && meansNoLocks(error.code());
        if (!isLocked) {
            throw ReceiveError::fileWriteFailed("cannot lock " + lockFile(folder).native() + ": " +
                                                error.description());
        }
    }
    if (!isLocked) {
        throw ReceiveError::fileNotTaken("another program holds the lock " + lockFile(folder).native());
    }
    co_return FolderTurn(std::move(pass), std::move(lock));
}

} // namespace orlinth
