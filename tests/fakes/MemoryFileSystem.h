#pragma once

#include "platform/Folder.h"

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orlinth::fakes {

/// The computer stopped: what every call on a crashed MemoryFileSystem throws.
class Crash : public std::exception {
public:
    [[nodiscard]] const char* what() const noexcept override { return "the computer has crashed"; }
};

/// What a crash leaves of the things that were done, but not flushed.
enum class CrashKind {
    processKill,        ///< the process ended, the system went on: everything is there
    powerCut,           ///< nothing is: content as of the file's last flush(), names as of flushDirectory()
    powerCutNamesFirst, ///< names reached the disk, data did not: what was not flushed reads as zeros
    powerCutDataFirst,  ///< data reached the disk, names did not
};
inline constexpr CrashKind allCrashKinds[] = {CrashKind::processKill, CrashKind::powerCut,
                                              CrashKind::powerCutNamesFirst, CrashKind::powerCutDataFirst};

/// What faults and counters tell apart. Those from `create` on change the disk ("mutating").
enum class Operation {
    open, ///< any open(), before it looks at anything
    read,
    seek,
    lock,   ///< lock() and tryLock()
    status, ///< status() of a path, or of a name in a Folder; exists() answers "no" then
    list,
    create, ///< a new file, by open()
    write,
    flush,
    createDirectory, ///< one new folder
    rename,          ///< renameNoReplace() too
    remove,
    setPermissions,
    flushDirectory,
    removeDirectory,
};
[[nodiscard]] constexpr bool isMutating(Operation operation) noexcept {
    return operation >= Operation::create;
}

/// A failure to come.
struct Fault {
    std::optional<Operation> operation{}; ///< which operations it concerns; absent: every mutating one
    int errorNumber = 0;                  ///< what the SystemError says, as in errno
    std::size_t skip = 0;                 ///< so many matching operations still succeed
    std::size_t times = SIZE_MAX;         ///< so many fail then; 1: that one alone
    std::size_t writtenBytes = 0;         ///< of a write: how much reaches the file before the failure
    std::string nameEnding{};             ///< only operations on a path that ends so
};

/// The in-memory twin of the file system: folders, files, symbolic links, second names, owners, permissions (as for a
/// user who is not root, with the umask 022), inode numbers, and flock() between open file objects, also across
/// threads.
///
/// It knows two states: what the programs see, and what is on the disk. A file's content gets to the disk by flush(),
/// the names in a folder by flushDirectory() of that folder (a new folder's own name by that of its parent). A crash
/// is planned with crashAfter(), or simply assumed at any time, and afterCrash() is the file system that the next run
/// finds, according to a CrashKind.
///
/// Relative paths start at the root. Objects may be used from any thread; open files may outlive the file system.
class MemoryFileSystem : public platform::FileSystem {
public:
    MemoryFileSystem();
    ~MemoryFileSystem() override;

    // What programs call.
    [[nodiscard]] std::optional<platform::FileStatus> status(const platform::Path& path) const override;
    [[nodiscard]] bool exists(const platform::Path& path) const noexcept override;
    [[nodiscard]] std::unique_ptr<platform::File> open(const platform::Path& path, platform::OpenMode mode,
                                                       platform::Links links = platform::Links::follow,
                                                       std::uint32_t permissions = 0666) override;
    /// An open(); each call of the folder then is an operation on that name in it, as if by its path.
    [[nodiscard]] std::unique_ptr<platform::Folder> openFolder(const platform::Path& path) override;
    void createDirectories(const platform::Path& path, std::uint32_t permissions = 0777) override;
    void rename(const platform::Path& from, const platform::Path& to) override;
    [[nodiscard]] bool renameNoReplace(const platform::Path& from, const platform::Path& to) override;
    /// One create and one write, after a look at the source and one read.
    void copyToNew(const platform::Path& from, const platform::Path& to, std::uint32_t permissions) override;
    void remove(const platform::Path& path) override; ///< files and links; a folder is EISDIR
    void removeDirectory(const platform::Path& path) override;
    [[nodiscard]] platform::Path resolveLinks(const platform::Path& path) const override;
    void setPermissions(const platform::Path& path, std::uint32_t permissions) override;
    void flushDirectory(const platform::Path& path) override;
    [[nodiscard]] std::vector<std::string> list(const platform::Path& path) const override; ///< sorted, here

    // Setting the scene: with missing parents, on the disk at once, neither counted nor subject to faults, permissions
    // and crashes.
    void put(const platform::Path& path, std::string_view content, std::uint32_t permissions = 0644);
    void putFolder(const platform::Path& path, std::uint32_t permissions = 0755);
    void putLink(const platform::Path& path, const platform::Path& target);
    /// Something that is neither file nor folder.
    void putSpecial(const platform::Path& path);
    /// A second name of what has the name `existing`.
    void putSecondName(const platform::Path& path, const platform::Path& existing);
    /// Moves what has the name `from`, in place of whatever has the name `to`.
    void swapIn(const platform::Path& from, const platform::Path& to);
    /// Another user's, from now on. The programs under test are user 1000, and so is everything else.
    void setOwner(const platform::Path& path, std::uint32_t owner);

    // Looking at it, in the same way.
    /// The content of the file; nothing if there is none.
    [[nodiscard]] std::optional<std::string> content(const platform::Path& path) const;
    /// Everything that is no folder, by its whole path, sorted.
    [[nodiscard]] std::vector<std::string> allFiles() const;
    /// How often this was tried, failures included.
    [[nodiscard]] std::size_t count(Operation operation) const;
    /// How many mutating operations were tried.
    [[nodiscard]] std::size_t mutations() const;
    /// The mutating operations that succeeded, in order: "create /a", "rename /a /b", ...
    [[nodiscard]] std::vector<std::string> history() const;
    /// Whether another file object could take the lock of this file now.
    [[nodiscard]] bool isLocked(const platform::Path& path) const;

    // Trouble.
    void addFault(Fault fault);
    void clearFaults();
    /// The sum of all file sizes that fits; more is ENOSPC, after as much as fits was written.
    void setCapacity(std::optional<std::size_t> bytes);
    /// Longer names are ENAMETOOLONG, as on some encrypted disks; 255 if this is never called.
    void setLongestName(std::size_t bytes);
    /// The next `mutations` mutating operations succeed, the one after them throws Crash, and so does everything from
    /// then on. If that one is a write, its first `tornBytes` bytes are still written.
    void crashAfter(std::size_t mutations, std::size_t tornBytes = 0);
    [[nodiscard]] bool hasCrashed() const;
    /// What the next run finds, if the crash was (or had been) now. Locks, faults and counters are gone.
    [[nodiscard]] std::unique_ptr<MemoryFileSystem> afterCrash(CrashKind kind) const;
    /// Called before every operation, without any lock held: the moment for another program to step in (it may use
    /// this object). Calls that it makes are not announced. Set it before threads start.
    void beforeEach(std::function<void(Operation, const platform::Path&)> action);

    struct State;

private:
    explicit MemoryFileSystem(std::shared_ptr<State> state);
    std::shared_ptr<State> state_;
};

} // namespace orlinth::fakes
