#include "fakes/MemoryFileSystem.h"

#include "fakes/MemoryFile.h"
#include "fakes/MemoryState.h"
#include "fakes/MemorySurvivors.h"
#include "fakes/MemoryTree.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <utility>

namespace orlinth::fakes {

using memory::fail;
using memory::mayRead;
using memory::mayWrite;
using memory::mostLinks;
using memory::NodeKind;
using memory::NodePointer;
using memory::Place;
using platform::FileKind;
using platform::FileStatus;
using platform::Links;
using platform::OpenMode;
using platform::Path;
using platform::SystemError;

MemoryFileSystem::MemoryFileSystem() : state_(std::make_shared<State>()) {}

MemoryFileSystem::MemoryFileSystem(std::shared_ptr<State> state) : state_(std::move(state)) {}

MemoryFileSystem::~MemoryFileSystem() = default;

std::optional<FileStatus> MemoryFileSystem::status(const Path& path) const {
    state_->announce(Operation::status, path);
    const std::lock_guard guard(state_->lock);
    state_->faults.begin(Operation::status, path);
    try {
        const Place place = state_->tree.find(path, Links::follow);
        return place.node ? std::optional(statusOf(*place.node)) : std::nullopt;
    } catch (const SystemError& error) {
        if (error.code() == std::errc::no_such_file_or_directory || error.code() == std::errc::not_a_directory) {
            return std::nullopt;
        }
        throw;
    }
}

bool MemoryFileSystem::exists(const Path& path) const noexcept {
    try {
        return status(path).has_value();
    } catch (const std::exception&) {
        return false;
    }
}

std::unique_ptr<platform::File> MemoryFileSystem::open(const Path& path, OpenMode mode, Links links,
                                                       std::uint32_t permissions) {
    state_->announce(Operation::open, path);
    const std::lock_guard guard(state_->lock);
    state_->faults.begin(Operation::open, path);
    const Place place = state_->tree.find(path, mode == OpenMode::createNew ? Links::refuse : links);
    return memory::openFile(state_, place, mode, permissions);
}

std::unique_ptr<platform::Folder> MemoryFileSystem::openFolder(const Path& path) {
    state_->announce(Operation::open, path);
    const std::lock_guard guard(state_->lock);
    state_->faults.begin(Operation::open, path);
    const Place place = state_->tree.findExisting(path);
    if (place.node->kind != NodeKind::folder) {
        fail(ENOTDIR);
    }
    return memory::holdFolder(state_, place, path);
}

void MemoryFileSystem::createDirectories(const Path& path, std::uint32_t permissions) {
    Path soFar = "/";
    for (const Path& component : path.relative_path()) {
        if (component.empty()) {
            continue; // a slash at the end
        }
        soFar /= component;
        {
            const std::lock_guard guard(state_->lock);
            state_->faults.requireNoCrash();
            const Place place = state_->tree.find(soFar, Links::follow);
            if (place.node && place.node->kind != NodeKind::folder) {
                fail(soFar == path || soFar / "" == path ? EEXIST : ENOTDIR);
            }
            if (place.node) {
                continue;
            }
        }
        state_->announce(Operation::createDirectory, soFar);
        const std::lock_guard guard(state_->lock);
        const Place place = state_->tree.find(soFar, Links::follow);
        state_->faults.begin(Operation::createDirectory, place.path);
        if (!place.node) {
            require(*place.folder, mayWrite);
            place.folder->flushedNames[place.name] = state_->tree.create(place, NodeKind::folder, permissions);
            state_->faults.record(Operation::createDirectory, place.path);
        }
    }
}

void MemoryFileSystem::rename(const Path& from, const Path& to) {
    state_->announce(Operation::rename, to);
    const std::lock_guard guard(state_->lock);
    state_->faults.begin(Operation::rename, to);
    const Place source = state_->tree.findExisting(from, Links::refuse);
    static_cast<void>(moveNamed(*state_, source, state_->tree.find(to, Links::refuse), true));
}

bool MemoryFileSystem::renameNoReplace(const Path& from, const Path& to) {
    state_->announce(Operation::rename, to);
    const std::lock_guard guard(state_->lock);
    state_->faults.begin(Operation::rename, to);
    const Place source = state_->tree.findExisting(from, Links::refuse);
    return moveNamed(*state_, source, state_->tree.find(to, Links::refuse), false);
}

void MemoryFileSystem::copyToNew(const Path& from, const Path& to, std::uint32_t permissions) {
    const std::optional<FileStatus> found = status(from);
    if (!found) {
        fail(ENOENT);
    }
    if (found->kind != FileKind::regular) {
        fail(found->kind == FileKind::directory ? EISDIR : EINVAL);
    }
    const std::unique_ptr<platform::File> source = open(from, OpenMode::read);
    const std::unique_ptr<platform::File> target = open(to, OpenMode::createNew, Links::refuse, permissions);
    try {
        Bytes content(static_cast<std::size_t>(source->status().size));
        content.resize(source->read(content));
        target->write(content);
    } catch (const SystemError&) {
        try {
            remove(to);
        } catch (const std::exception&) {
            // as on a real disk that has failed: the first failure is the one to tell of
        }
        throw;
    }
}

void MemoryFileSystem::remove(const Path& path) {
    state_->announce(Operation::remove, path);
    const std::lock_guard guard(state_->lock);
    state_->faults.begin(Operation::remove, path);
    removeNamed(*state_, state_->tree.findExisting(path, Links::refuse));
}

void MemoryFileSystem::removeDirectory(const Path& path) {
    state_->announce(Operation::removeDirectory, path);
    const std::lock_guard guard(state_->lock);
    state_->faults.begin(Operation::removeDirectory, path);
    const Place place = state_->tree.findExisting(path, Links::refuse);
    state_->tree.removeFolder(place);
    state_->faults.record(Operation::removeDirectory, place.path);
}

Path MemoryFileSystem::resolveLinks(const Path& path) const {
    const std::lock_guard guard(state_->lock);
    state_->faults.requireNoCrash();
    Path current = path;
    for (int links = 0; links <= mostLinks; ++links) {
        try {
            const Place place = state_->tree.find(current, Links::refuse);
            if (!place.node || place.node->kind != NodeKind::link) {
                return current;
            }
            current = current.parent_path() / place.node->target;
        } catch (const SystemError& error) {
            if (error.code() == std::errc::no_such_file_or_directory) {
                return current;
            }
            throw;
        }
    }
    fail(ELOOP);
}

void MemoryFileSystem::setPermissions(const Path& path, std::uint32_t permissions) {
    state_->announce(Operation::setPermissions, path);
    const std::lock_guard guard(state_->lock);
    state_->faults.begin(Operation::setPermissions, path);
    state_->tree.findExisting(path).node->permissions = permissions;
    state_->faults.record(Operation::setPermissions, path);
}

void MemoryFileSystem::flushDirectory(const Path& path) {
    state_->announce(Operation::flushDirectory, path);
    const std::lock_guard guard(state_->lock);
    state_->faults.begin(Operation::flushDirectory, path);
    const Place place = state_->tree.findExisting(path);
    if (place.node->kind != NodeKind::folder) {
        fail(ENOTDIR);
    }
    require(*place.node, mayRead);
    place.node->flushedNames = place.node->names;
    state_->faults.record(Operation::flushDirectory, place.path);
}

std::vector<std::string> MemoryFileSystem::list(const Path& path) const {
    state_->announce(Operation::list, path);
    const std::lock_guard guard(state_->lock);
    state_->faults.begin(Operation::list, path);
    const Place place = state_->tree.findExisting(path);
    if (place.node->kind != NodeKind::folder) {
        fail(ENOTDIR);
    }
    require(*place.node, mayRead);
    return sortedNames(*place.node);
}

void MemoryFileSystem::put(const Path& path, std::string_view content, std::uint32_t permissions) {
    const std::lock_guard guard(state_->lock);
    const NodePointer node = state_->tree.make(NodeKind::file, permissions);
    node->content = toBytes(content);
    node->flushedContent = node->content;
    state_->tree.put(path, node);
}

void MemoryFileSystem::putFolder(const Path& path, std::uint32_t permissions) {
    const std::lock_guard guard(state_->lock);
    state_->tree.put(path, state_->tree.make(NodeKind::folder, permissions));
}

void MemoryFileSystem::putLink(const Path& path, const Path& target) {
    const std::lock_guard guard(state_->lock);
    const NodePointer node = state_->tree.make(NodeKind::link, 0777);
    node->target = target;
    state_->tree.put(path, node);
}

void MemoryFileSystem::putSpecial(const Path& path) {
    const std::lock_guard guard(state_->lock);
    state_->tree.put(path, state_->tree.make(NodeKind::special, 0644));
}

void MemoryFileSystem::putSecondName(const Path& path, const Path& existing) {
    const std::lock_guard guard(state_->lock);
    state_->tree.put(path, state_->tree.find(existing, Links::refuse, false).node);
}

void MemoryFileSystem::swapIn(const Path& from, const Path& to) {
    const std::lock_guard guard(state_->lock);
    const Place source = state_->tree.find(from, Links::refuse, false);
    state_->tree.put(to, source.node);
    eraseName(source.folder->names, source.name);
}

void MemoryFileSystem::setOwner(const Path& path, std::uint32_t owner) {
    const std::lock_guard guard(state_->lock);
    state_->tree.find(path, Links::refuse, false).node->owner = owner;
}

std::optional<std::string> MemoryFileSystem::content(const Path& path) const {
    const std::lock_guard guard(state_->lock);
    try {
        const Place place = state_->tree.find(path, Links::follow, false);
        const bool isFile = place.node && place.node->kind == NodeKind::file;
        return isFile ? std::optional(toText(place.node->content)) : std::nullopt;
    } catch (const SystemError&) {
        return std::nullopt;
    }
}

std::vector<std::string> MemoryFileSystem::allFiles() const {
    const std::lock_guard guard(state_->lock);
    std::vector<std::string> files;
    collectFiles(*state_->tree.root(), "/", files);
    std::ranges::sort(files);
    return files;
}

std::size_t MemoryFileSystem::count(Operation operation) const {
    const std::lock_guard guard(state_->lock);
    return state_->faults.count(operation);
}

std::size_t MemoryFileSystem::mutations() const {
    const std::lock_guard guard(state_->lock);
    return state_->faults.mutations();
}

std::vector<std::string> MemoryFileSystem::history() const {
    const std::lock_guard guard(state_->lock);
    return state_->faults.history();
}

bool MemoryFileSystem::isLocked(const Path& path) const {
    const std::lock_guard guard(state_->lock);
    const Place place = state_->tree.find(path, Links::follow, false);
    return place.node && place.node->lockedBy != nullptr;
}

void MemoryFileSystem::addFault(Fault fault) {
    const std::lock_guard guard(state_->lock);
    state_->faults.add(std::move(fault));
}

void MemoryFileSystem::clearFaults() {
    const std::lock_guard guard(state_->lock);
    state_->faults.clear();
}

void MemoryFileSystem::setCapacity(std::optional<std::size_t> bytes) {
    const std::lock_guard guard(state_->lock);
    state_->tree.capacity = bytes;
}

void MemoryFileSystem::setLongestName(std::size_t bytes) {
    const std::lock_guard guard(state_->lock);
    state_->tree.longestName = bytes;
}

void MemoryFileSystem::crashAfter(std::size_t mutations, std::size_t tornBytes) {
    const std::lock_guard guard(state_->lock);
    state_->faults.crashAfter(mutations, tornBytes);
}

bool MemoryFileSystem::hasCrashed() const {
    const std::lock_guard guard(state_->lock);
    return state_->faults.hasCrashed();
}

std::unique_ptr<MemoryFileSystem> MemoryFileSystem::afterCrash(CrashKind kind) const {
    const std::lock_guard guard(state_->lock);
    auto state = std::make_shared<State>();
    state->tree = memory::Tree(memory::survivorsOf(state_->tree.root(), kind), state_->tree);
    return std::unique_ptr<MemoryFileSystem>(new MemoryFileSystem(std::move(state)));
}

void MemoryFileSystem::beforeEach(std::function<void(Operation, const Path&)> action) {
    const std::lock_guard guard(state_->lock);
    state_->beforeEach = std::move(action);
}

} // namespace orlinth::fakes
