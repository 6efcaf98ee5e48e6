#pragma once

#include "platform/Storage.h"

#include <memory>

namespace orlinth {

/// The right to choose names in a folder; it ends with the object. Any thread.
class FolderTurn {
public:
    class Pass;
    FolderTurn(std::unique_ptr<Pass> pass, std::unique_ptr<platform::File> lock);
    FolderTurn(FolderTurn&&) noexcept;
    FolderTurn& operator=(FolderTurn&&) = delete;
    ~FolderTurn();

private:
    std::unique_ptr<Pass> pass_;
    std::unique_ptr<platform::File> lock_; // goes before the pass: the next one finds it free
};

/// Lets one receiver at a time choose its names in a folder: one could else take the name of another's partial file
/// between its move and the end of its sidecar, or miss both the partial and the file.
///
/// Connections of this process take their turns in the order in which they come. Between processes of this account the
/// turn is a lock (flock) on a file of Orlinth's data folder, named by device and inode of the folder: whoever may read
/// the downloads folder could hold a lock on that for ever. Nothing here waits on a thread.
///
/// Threading: any thread; take() on the caller's executor. Must outlive the turns and whoever waits for one.
class FolderTurns {
public:
    /// How long other processes are waited for. They hold it for milliseconds.
    static constexpr Seconds patience = 5s;

    explicit FolderTurns(platform::Storage storage);
    FolderTurns(const FolderTurns&) = delete;
    FolderTurns& operator=(const FolderTurns&) = delete;
    ~FolderTurns();

    /// Waits for its turn in the folder that this is a look at.
    /// @throws ReceiveError::fileNotTaken if it does not come in time; ReceiveError::fileWriteFailed if the lock cannot
    /// be used; Cancelled
    [[nodiscard]] Task<FolderTurn> take(platform::FileStatus folder);
    /// The lock's file.
    [[nodiscard]] platform::Path lockFile(const platform::FileStatus& folder) const;

    class Line;

private:
    [[nodiscard]] std::unique_ptr<platform::File> openLock(const platform::FileStatus& folder) const;

    platform::Storage storage_;
    std::shared_ptr<Line> line_;
};

} // namespace orlinth
