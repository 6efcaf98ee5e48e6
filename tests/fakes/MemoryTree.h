#pragma once

#include "platform/FileSystem.h"
#include "platform/SystemError.h"

#include <cerrno>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// The tree of a MemoryFileSystem: what there is, as programs see it and as it is on the disk. Knows no faults, no
/// crashes and no threads. What fails throws SystemError, as the kernel would.
namespace orlinth::fakes::memory {

using platform::Links;
using platform::Path;

/// Whose everything is, and as whom programs run.
inline constexpr std::uint32_t user = 1000;
inline constexpr std::uint32_t mayRead = 0400;
inline constexpr std::uint32_t mayWrite = 0200;
inline constexpr std::uint32_t mayEnter = 0100;
inline constexpr std::uint32_t umask = 022;
/// Links that a path may lead through.
inline constexpr int mostLinks = 40;

enum class NodeKind { file, folder, link, special };

struct Node;
using NodePointer = std::shared_ptr<Node>;
using Names = std::map<std::string, NodePointer>;

struct Node {
    NodeKind kind = NodeKind::file;
    std::uint64_t inode = 0;
    std::uint32_t permissions = 0;
    std::uint32_t owner = user;
    std::uint64_t nameCount = 0; // in folders
    EpochNanoseconds modifiedAt{};
    Bytes content;                  // of a file, as programs see it
    Bytes flushedContent;           // and on the disk
    Names names;                    // of a folder, as programs see it
    Names flushedNames;             // and on the disk
    Path target;                    // of a link
    const void* lockedBy = nullptr; // the file object that holds the lock
};

[[noreturn]] void fail(int errorNumber);
/// @throws SystemError EACCES if the node does not give this permission
void require(const Node& node, std::uint32_t permission);

/// Gives a node a name, in place of what has it.
void setName(Names& names, const std::string& name, const NodePointer& node);
void eraseName(Names& names, const std::string& name);

[[nodiscard]] platform::FileStatus statusOf(const Node& node);
[[nodiscard]] std::vector<std::string> sortedNames(const Node& folder);
/// The paths of everything below a folder that is no folder.
void collectFiles(const Node& folder, const Path& path, std::vector<std::string>& into);

/// Where a path leads: the folder, the name in it, and what has the name, if anything. For the root: no folder.
struct Place {
    NodePointer folder;
    std::string name;
    NodePointer node;
    Path path; ///< without links, but perhaps the last
};

class Tree {
public:
    Tree();
    /// The tree that begins with this root, and goes on where `before` was with inodes and time.
    Tree(NodePointer root, const Tree& before);

    [[nodiscard]] const NodePointer& root() const noexcept { return root_; }

    /// Later than any time before.
    [[nodiscard]] EpochNanoseconds nextTime() { return lastTime_ += 1ms; }
    /// A node without a name.
    [[nodiscard]] NodePointer make(NodeKind kind, std::uint32_t permissions);
    /// A node with the name of this place, less the umask.
    NodePointer create(const Place& place, NodeKind kind, std::uint32_t permissions);
    /// Gives a node a name on the disk, in a folder that is made if it is missing.
    void put(const Path& path, const NodePointer& node);

    [[nodiscard]] Place find(const Path& path, Links last, bool checkPermissions = true) const;
    /// @throws SystemError ENOENT
    [[nodiscard]] Place findExisting(const Path& path, Links last = Links::follow) const;

    /// Writes what fits; returns how much that was.
    std::size_t writeAt(Node& node, std::size_t position, ByteView data);
    /// Bytes that may still be written; nothing if there is no limit.
    [[nodiscard]] std::optional<std::size_t> freeBytes() const;

    /// Returns whether it moved: with `replace`, always.
    [[nodiscard]] bool move(const Place& source, const Place& target, bool replace);
    void remove(const Place& place);
    void removeFolder(const Place& place);

    std::optional<std::size_t> capacity; ///< bytes of all files together
    std::size_t longestName = 255;       ///< bytes

private:
    [[nodiscard]] static std::size_t used(const Node& folder);

    std::uint64_t lastInode_ = 0;
    EpochNanoseconds lastTime_ =
        fromEpochNanoseconds(1'700'000'000'000'000'000); ///< every change is a millisecond later than the one before
    NodePointer root_;                                   ///< last: to make it takes a number and a time
};

} // namespace orlinth::fakes::memory
