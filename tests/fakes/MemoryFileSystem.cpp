#include "fakes/MemoryFileSystem.h"

#include "platform/SystemError.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <limits>
#include <map>
#include <mutex>
#include <utility>

namespace orlinth::fakes {

using platform::FileKind;
using platform::FileName;
using platform::FileStatus;
using platform::Links;
using platform::OpenMode;
using platform::Path;
using platform::SystemError;

namespace {

constexpr std::uint32_t user = 1000;

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
    std::int64_t modifiedNanoseconds = 0;
    Bytes content;                  // of a file, as programs see it
    Bytes flushedContent;           // and on the disk
    Names names;                    // of a folder, as programs see it
    Names flushedNames;             // and on the disk
    Path target;                    // of a link
    const void* lockedBy = nullptr; // the file object that holds the lock
};

constexpr std::uint32_t mayRead = 0400;
constexpr std::uint32_t mayWrite = 0200;
constexpr std::uint32_t mayEnter = 0100;
constexpr std::uint32_t umask = 022;
constexpr int mostLinks = 40;

const char* nameOf(Operation operation) {
    switch (operation) {
    case Operation::open:
        return "open";
    case Operation::read:
        return "read";
    case Operation::seek:
        return "seek";
    case Operation::lock:
        return "lock";
    case Operation::status:
        return "status";
    case Operation::list:
        return "list";
    case Operation::create:
        return "create";
    case Operation::write:
        return "write";
    case Operation::flush:
        return "flush";
    case Operation::createDirectory:
        return "createDirectory";
    case Operation::rename:
        return "rename";
    case Operation::remove:
        return "remove";
    case Operation::setPermissions:
        return "setPermissions";
    case Operation::flushDirectory:
        return "flushDirectory";
    case Operation::removeDirectory:
        return "removeDirectory";
    }
    return "";
}

[[noreturn]] void fail(int errorNumber) {
    throw SystemError::fromErrno(errorNumber);
}

/// Gives a node a name, in place of what has it.
void setName(Names& names, const std::string& name, const NodePointer& node) {
    NodePointer& entry = names[name];
    if (entry) {
        --entry->nameCount;
    }
    entry = node;
    ++node->nameCount;
}

void eraseName(Names& names, const std::string& name) {
    if (const auto found = names.find(name); found != names.end()) {
        --found->second->nameCount;
        names.erase(found);
    }
}

void require(const Node& node, std::uint32_t permission) {
    if ((node.permissions & permission) != permission) {
        fail(EACCES);
    }
}

std::vector<std::string> componentsOf(const Path& path, std::size_t longestName) {
    std::vector<std::string> components;
    for (const Path& component : path.relative_path()) {
        const std::string& text = component.native();
        if (text.find('\0') != std::string::npos) {
            fail(EINVAL);
        }
        if (text.size() > longestName) {
            fail(ENAMETOOLONG);
        }
        if (!text.empty()) {
            components.push_back(text);
        }
    }
    return components;
}

/// Where a path leads: the folder, the name in it, and what has the name, if anything. For the root: no folder.
struct Place {
    NodePointer folder;
    std::string name;
    NodePointer node;
    Path path; ///< without links, but perhaps the last
};

} // namespace

struct MemoryFileSystem::State {
    mutable std::mutex lock;
    std::condition_variable unlocked;
    NodePointer root;
    std::uint64_t lastInode = 0;
    std::int64_t lastTime = 1'700'000'000'000'000'000; // every change is a millisecond later than the one before
    std::map<Operation, std::size_t> counts;
    std::size_t mutations = 0;
    std::vector<std::string> history;
    std::vector<Fault> faults;
    std::optional<std::size_t> capacity;
    std::size_t longestName = 255;
    std::optional<std::size_t> crashAtMutation;
    std::size_t tornBytes = 0;
    bool crashed = false;
    std::function<void(Operation, const Path&)> beforeEach;
    bool announcing = false;

    std::int64_t nextTime() { return lastTime += 1'000'000; }

    NodePointer make(NodeKind kind, std::uint32_t permissions) {
        auto node = std::make_shared<Node>();
        node->kind = kind;
        node->inode = ++lastInode;
        node->permissions = permissions;
        node->modifiedNanoseconds = nextTime();
        return node;
    }

    /// Announces the operation. Takes no lock.
    void announce(Operation operation, const Path& path) {
        std::function<void(Operation, const Path&)> action;
        {
            const std::lock_guard guard(lock);
            if (!beforeEach || announcing) {
                return;
            }
            announcing = true;
            action = beforeEach;
        }
        action(operation, path);
        const std::lock_guard guard(lock);
        announcing = false;
    }

    /// Counts the operation and throws what was planned for it; for a write that fails, `torn` bytes are written first.
    void begin(Operation operation, const Path& path, const std::function<void(std::size_t)>& writeTorn = {}) {
        if (crashed) {
            throw Crash();
        }
        ++counts[operation];
        if (isMutating(operation)) {
            if (crashAtMutation && mutations == *crashAtMutation) {
                if (writeTorn) {
                    writeTorn(tornBytes);
                }
                crashed = true;
                unlocked.notify_all();
                throw Crash();
            }
            ++mutations;
        }
        for (Fault& fault : faults) {
            const bool matches = fault.operation ? *fault.operation == operation : isMutating(operation);
            if (!matches || !path.native().ends_with(fault.nameEnding) || fault.times == 0) {
                continue;
            }
            if (fault.skip > 0) {
                --fault.skip;
                continue;
            }
            --fault.times;
            if (writeTorn) {
                writeTorn(fault.writtenBytes);
            }
            fail(fault.errorNumber);
        }
    }

    void record(Operation operation, const Path& path, const Path& second = {}) {
        history.push_back(std::string(nameOf(operation)) + " " + path.native() +
                          (second.empty() ? "" : " " + second.native()));
    }

    [[nodiscard]] Place find(const Path& path, Links last, bool checkPermissions = true) const;

    [[nodiscard]] Place findExisting(const Path& path, Links last = Links::follow) const {
        Place place = find(path, last);
        if (!place.node) {
            fail(ENOENT);
        }
        return place;
    }

    NodePointer create(const Place& place, NodeKind kind, std::uint32_t permissions) {
        NodePointer node = make(kind, permissions & ~umask);
        setName(place.folder->names, place.name, node);
        place.folder->modifiedNanoseconds = nextTime();
        return node;
    }

    [[nodiscard]] std::size_t used(const Node& folder) const {
        std::size_t sum = 0;
        for (const auto& [name, node] : folder.names) {
            sum += node->kind == NodeKind::folder ? used(*node) : node->content.size();
        }
        return sum;
    }

    /// Writes what fits; returns how much that was.
    std::size_t writeAt(Node& node, std::size_t position, ByteView data) {
        std::size_t count = data.size();
        const std::size_t end = position + count;
        if (capacity && end > node.content.size()) {
            const std::size_t taken = used(*root);
            const std::size_t free = *capacity > taken ? *capacity - taken : 0;
            const std::size_t growth = end - node.content.size();
            const std::size_t missing = growth > free ? growth - free : 0;
            count -= std::min(count, missing);
        }
        if (count == 0) {
            return 0;
        }
        if (position + count > node.content.size()) {
            node.content.resize(position + count);
        }
        std::copy_n(data.begin(), count, node.content.begin() + static_cast<std::ptrdiff_t>(position));
        node.modifiedNanoseconds = nextTime();
        return count;
    }

    bool move(const Place& source, const Place& target, bool replace);
    void remove(const Place& place);
};

namespace {

FileStatus statusOf(const Node& node) {
    FileStatus status;
    status.kind = node.kind == NodeKind::file     ? FileKind::regular
                  : node.kind == NodeKind::folder ? FileKind::directory
                                                  : FileKind::other;
    status.size = static_cast<std::int64_t>(node.content.size());
    status.modifiedNanoseconds = node.modifiedNanoseconds;
    status.inode = node.inode;
    status.device = 1;
    status.permissions = node.permissions;
    status.names = node.nameCount;
    status.owner = node.owner;
    return status;
}

/// One open file.
class MemoryFile : public platform::File {
public:
    MemoryFile(std::shared_ptr<MemoryFileSystem::State> state, NodePointer node, Path path, bool readable,
               bool writable)
        : state_(std::move(state)),
          node_(std::move(node)),
          path_(std::move(path)),
          readable_(readable),
          writable_(writable) {}
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    ~MemoryFile() override {
        const std::lock_guard guard(state_->lock);
        if (node_->lockedBy == this) {
            node_->lockedBy = nullptr;
            state_->unlocked.notify_all();
        }
    }

    std::size_t read(MutableBytes into) override {
        state_->announce(Operation::read, path_);
        const std::lock_guard guard(state_->lock);
        state_->begin(Operation::read, path_);
        if (!readable_) {
            fail(EBADF);
        }
        if (node_->kind == NodeKind::folder) {
            fail(EISDIR);
        }
        const std::size_t start = std::min(position_, node_->content.size());
        const std::size_t count = std::min(into.size(), node_->content.size() - start);
        std::copy_n(node_->content.begin() + static_cast<std::ptrdiff_t>(start), count, into.begin());
        position_ += count;
        return count;
    }

    void write(ByteView data) override {
        state_->announce(Operation::write, path_);
        const std::lock_guard guard(state_->lock);
        const auto writeTorn = [this, data](std::size_t bytes) {
            if (writable_) {
                position_ += state_->writeAt(*node_, position_, data.first(std::min(bytes, data.size())));
            }
        };
        state_->begin(Operation::write, path_, writeTorn);
        if (!writable_) {
            fail(EBADF);
        }
        const std::size_t count = state_->writeAt(*node_, position_, data);
        position_ += count;
        if (count < data.size()) {
            fail(ENOSPC);
        }
        state_->record(Operation::write, path_);
    }

    void seek(std::int64_t offset) override {
        state_->announce(Operation::seek, path_);
        const std::lock_guard guard(state_->lock);
        state_->begin(Operation::seek, path_);
        if (offset < 0) {
            fail(EINVAL);
        }
        position_ = static_cast<std::size_t>(offset);
    }

    [[nodiscard]] FileStatus status() const override {
        const std::lock_guard guard(state_->lock);
        if (state_->crashed) {
            throw Crash();
        }
        return statusOf(*node_);
    }

    void flush() override {
        state_->announce(Operation::flush, path_);
        const std::lock_guard guard(state_->lock);
        state_->begin(Operation::flush, path_);
        node_->flushedContent = node_->content;
        state_->record(Operation::flush, path_);
    }

    void setPermissions(std::uint32_t permissions) override {
        state_->announce(Operation::setPermissions, path_);
        const std::lock_guard guard(state_->lock);
        state_->begin(Operation::setPermissions, path_);
        node_->permissions = permissions;
        state_->record(Operation::setPermissions, path_);
    }

    void startWriteback(std::int64_t /*offset*/, std::int64_t /*length*/) noexcept override {}

    [[nodiscard]] bool tryLock() override {
        state_->announce(Operation::lock, path_);
        const std::lock_guard guard(state_->lock);
        state_->begin(Operation::lock, path_);
        if (node_->lockedBy != nullptr && node_->lockedBy != this) {
            return false;
        }
        node_->lockedBy = this;
        return true;
    }

    void lock() override {
        state_->announce(Operation::lock, path_);
        std::unique_lock guard(state_->lock);
        state_->begin(Operation::lock, path_);
        while (node_->lockedBy != nullptr && node_->lockedBy != this) {
            state_->unlocked.wait(guard);
            if (state_->crashed) {
                throw Crash();
            }
        }
        node_->lockedBy = this;
    }

private:
    std::shared_ptr<MemoryFileSystem::State> state_;
    NodePointer node_;
    Path path_;
    bool readable_;
    bool writable_;
    std::size_t position_ = 0;
};

/// Copies what a crash leaves. A node that has several names is copied once.
class Survivors {
public:
    explicit Survivors(CrashKind kind) : kind_(kind) {}

    NodePointer copy(const NodePointer& node) {
        NodePointer& known = copies_[node.get()];
        if (known) {
            return known;
        }
        const NodePointer result = std::make_shared<Node>(*node);
        known = result;
        result->lockedBy = nullptr;
        result->nameCount = 0;
        result->content = contentOf(*node);
        result->flushedContent = result->content;
        const bool namesAsSeen = kind_ == CrashKind::processKill || kind_ == CrashKind::powerCutNamesFirst;
        const Names names = namesAsSeen ? node->names : node->flushedNames;
        result->names.clear();
        for (const auto& [name, child] : names) {
            setName(result->names, name, copy(child));
        }
        result->flushedNames = result->names;
        return result;
    }

private:
    [[nodiscard]] Bytes contentOf(const Node& node) const {
        switch (kind_) {
        case CrashKind::processKill:
        case CrashKind::powerCutDataFirst:
            return node.content;
        case CrashKind::powerCut:
            return node.flushedContent;
        case CrashKind::powerCutNamesFirst:
            break;
        }
        Bytes content = node.flushedContent;
        content.resize(std::max(content.size(), node.content.size())); // with zeros
        return content;
    }

    CrashKind kind_;
    std::map<const Node*, NodePointer> copies_;
};

void collectFiles(const Node& folder, const Path& path, std::vector<std::string>& into) {
    for (const auto& [name, node] : folder.names) {
        if (node->kind == NodeKind::folder) {
            collectFiles(*node, path / name, into);
        } else {
            into.push_back((path / name).native());
        }
    }
}

} // namespace

Place MemoryFileSystem::State::find(const Path& path, Links last, bool checkPermissions) const {
    std::vector<std::string> rest = componentsOf(path, longestName);
    std::ranges::reverse(rest); // the next component is at the back
    std::vector<std::pair<std::string, NodePointer>> way{{"", root}};
    int linksSeen = 0;
    const auto pathSoFar = [&way] {
        Path joined = "/";
        for (const auto& [name, node] : way) {
            joined /= name;
        }
        return joined;
    };
    while (!rest.empty()) {
        const std::string name = rest.back();
        rest.pop_back();
        const NodePointer folder = way.back().second;
        if (folder->kind != NodeKind::folder) {
            fail(ENOTDIR);
        }
        if (checkPermissions) {
            require(*folder, mayEnter);
        }
        if (name == "." || name == "..") {
            if (name == ".." && way.size() > 1) {
                way.pop_back();
            }
            continue;
        }
        const auto found = folder->names.find(name);
        const NodePointer node = found == folder->names.end() ? nullptr : found->second;
        const bool isLast = rest.empty();
        if (node && node->kind == NodeKind::link && (!isLast || last == Links::follow)) {
            if (++linksSeen > mostLinks) {
                fail(ELOOP);
            }
            std::vector<std::string> inserted = componentsOf(node->target, longestName);
            std::ranges::reverse(inserted);
            rest.insert(rest.end(), inserted.begin(), inserted.end());
            if (node->target.is_absolute()) {
                way.resize(1);
            }
            continue;
        }
        if (isLast) {
            return {folder, name, node, pathSoFar() / name};
        }
        if (!node) {
            fail(ENOENT);
        }
        way.emplace_back(name, node);
    }
    const NodePointer folder = way.size() > 1 ? way[way.size() - 2].second : nullptr;
    return {folder, way.back().first, way.back().second, pathSoFar()};
}

bool MemoryFileSystem::State::move(const Place& source, const Place& target, bool replace) {
    if (!source.folder || !target.folder) {
        fail(EBUSY);
    }
    require(*source.folder, mayWrite);
    require(*target.folder, mayWrite);
    if (target.node) {
        if (!replace) {
            return false;
        }
        const bool sourceIsFolder = source.node->kind == NodeKind::folder;
        const bool targetIsFolder = target.node->kind == NodeKind::folder;
        if (sourceIsFolder != targetIsFolder) {
            fail(targetIsFolder ? EISDIR : ENOTDIR);
        }
        if (targetIsFolder && !target.node->names.empty()) {
            fail(ENOTEMPTY);
        }
    }
    const NodePointer moved = source.node;
    eraseName(source.folder->names, source.name);
    setName(target.folder->names, target.name, moved);
    source.folder->modifiedNanoseconds = target.folder->modifiedNanoseconds = nextTime();
    record(Operation::rename, source.path, target.path);
    return true;
}

void MemoryFileSystem::State::remove(const Place& place) {
    if (place.node->kind == NodeKind::folder) {
        fail(EISDIR);
    }
    require(*place.folder, mayWrite);
    eraseName(place.folder->names, place.name);
    place.folder->modifiedNanoseconds = nextTime();
    record(Operation::remove, place.path);
}

MemoryFileSystem::MemoryFileSystem() : state_(std::make_shared<State>()) {
    state_->root = state_->make(NodeKind::folder, 0755);
    state_->root->nameCount = 1;
}

MemoryFileSystem::MemoryFileSystem(std::shared_ptr<State> state) : state_(std::move(state)) {}

MemoryFileSystem::~MemoryFileSystem() = default;

std::optional<FileStatus> MemoryFileSystem::status(const Path& path) const {
    state_->announce(Operation::status, path);
    const std::lock_guard guard(state_->lock);
    state_->begin(Operation::status, path);
    try {
        const Place place = state_->find(path, Links::follow);
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

namespace {

std::unique_ptr<platform::File> openAt(const std::shared_ptr<MemoryFileSystem::State>& state, const Place& place,
                                       OpenMode mode, std::uint32_t permissions) {
    const bool readable = mode == OpenMode::read || mode == OpenMode::openOrCreate;
    const bool writable = mode != OpenMode::read;
    NodePointer node = place.node;
    if (!node) {
        if (mode == OpenMode::read || mode == OpenMode::write) {
            fail(ENOENT);
        }
        require(*place.folder, mayWrite);
        state->begin(Operation::create, place.path);
        node = state->create(place, NodeKind::file, permissions);
        state->record(Operation::create, place.path);
        return std::make_unique<MemoryFile>(state, node, place.path, readable, writable);
    }
    if (mode == OpenMode::createNew) {
        fail(EEXIST);
    }
    if (node->kind == NodeKind::link) {
        fail(ELOOP);
    }
    if (node->kind == NodeKind::special) {
        fail(ENXIO);
    }
    if (node->kind == NodeKind::folder && writable) {
        fail(EISDIR);
    }
    require(*node, (readable ? mayRead : 0U) | (writable ? mayWrite : 0U));
    return std::make_unique<MemoryFile>(state, node, place.path, readable, writable);
}

std::vector<std::string> sortedNames(const Node& folder) {
    std::vector<std::string> names;
    for (const auto& [name, node] : folder.names) {
        names.push_back(name);
    }
    return names;
}

} // namespace

std::unique_ptr<platform::File> MemoryFileSystem::open(const Path& path, OpenMode mode, Links links,
                                                       std::uint32_t permissions) {
    state_->announce(Operation::open, path);
    const std::lock_guard guard(state_->lock);
    state_->begin(Operation::open, path);
    const Place place = state_->find(path, mode == OpenMode::createNew ? Links::refuse : links);
    return openAt(state_, place, mode, permissions);
}

namespace {

/// A folder that is held open. What happens to its path is nothing to it.
class MemoryFolder final : public platform::Folder {
public:
    MemoryFolder(std::shared_ptr<MemoryFileSystem::State> state, NodePointer node, Path path, Path openedAs)
        : state_(std::move(state)), node_(std::move(node)), path_(std::move(path)), openedAs_(std::move(openedAs)) {}

    [[nodiscard]] const Path& path() const noexcept override { return openedAs_; }

    [[nodiscard]] FileStatus status() const override {
        const std::lock_guard guard(state_->lock);
        if (state_->crashed) {
            throw Crash();
        }
        return statusOf(*node_);
    }

    [[nodiscard]] std::optional<FileStatus> status(const FileName& name) const override {
        state_->announce(Operation::status, pathOf(name));
        const std::lock_guard guard(state_->lock);
        state_->begin(Operation::status, pathOf(name));
        const Place place = placeOf(name);
        return place.node ? std::optional(statusOf(*place.node)) : std::nullopt;
    }

    [[nodiscard]] std::unique_ptr<platform::File> open(const FileName& name, OpenMode mode,
                                                       std::uint32_t permissions) override {
        state_->announce(Operation::open, pathOf(name));
        const std::lock_guard guard(state_->lock);
        state_->begin(Operation::open, pathOf(name));
        return openAt(state_, placeOf(name), mode, permissions);
    }

    void rename(const FileName& from, const FileName& to) override {
        state_->announce(Operation::rename, pathOf(to));
        const std::lock_guard guard(state_->lock);
        state_->begin(Operation::rename, pathOf(to));
        static_cast<void>(state_->move(placeOfExisting(from), placeOf(to), true));
    }

    [[nodiscard]] bool renameNoReplace(const FileName& from, const FileName& to) override {
        state_->announce(Operation::rename, pathOf(to));
        const std::lock_guard guard(state_->lock);
        state_->begin(Operation::rename, pathOf(to));
        return state_->move(placeOfExisting(from), placeOf(to), false);
    }

    void remove(const FileName& name) override {
        state_->announce(Operation::remove, pathOf(name));
        const std::lock_guard guard(state_->lock);
        state_->begin(Operation::remove, pathOf(name));
        state_->remove(placeOfExisting(name));
    }

    void flush() override {
        state_->announce(Operation::flushDirectory, path_);
        const std::lock_guard guard(state_->lock);
        state_->begin(Operation::flushDirectory, path_);
        node_->flushedNames = node_->names;
        state_->record(Operation::flushDirectory, path_);
    }

    [[nodiscard]] std::vector<std::string> list() const override {
        state_->announce(Operation::list, path_);
        const std::lock_guard guard(state_->lock);
        state_->begin(Operation::list, path_);
        require(*node_, mayRead);
        return sortedNames(*node_);
    }

    [[nodiscard]] std::size_t longestName() const noexcept override {
        const std::lock_guard guard(state_->lock);
        return state_->longestName;
    }

    [[nodiscard]] std::int64_t freeBytes() const override {
        const std::lock_guard guard(state_->lock);
        if (!state_->capacity) {
            return std::numeric_limits<std::int64_t>::max();
        }
        const std::size_t taken = state_->used(*state_->root);
        return static_cast<std::int64_t>(*state_->capacity > taken ? *state_->capacity - taken : 0);
    }

    [[nodiscard]] std::uint32_t ordinaryPermissions() const override { return 0666U & ~umask; }

    [[nodiscard]] std::uint32_t user() const noexcept override { return fakes::user; }

private:
    [[nodiscard]] Path pathOf(const FileName& name) const { return path_ / name.text(); }

    [[nodiscard]] Place placeOf(const FileName& name) const {
        if (node_->nameCount == 0) {
            fail(ENOENT); // it was removed
        }
        if (name.text().size() > state_->longestName) {
            fail(ENAMETOOLONG);
        }
        require(*node_, mayEnter);
        const auto found = node_->names.find(name.text());
        return {node_, name.text(), found == node_->names.end() ? nullptr : found->second, pathOf(name)};
    }

    [[nodiscard]] Place placeOfExisting(const FileName& name) const {
        Place place = placeOf(name);
        if (!place.node) {
            fail(ENOENT);
        }
        return place;
    }

    std::shared_ptr<MemoryFileSystem::State> state_;
    NodePointer node_;
    Path path_; ///< without links
    Path openedAs_;
};

} // namespace

std::unique_ptr<platform::Folder> MemoryFileSystem::openFolder(const Path& path) {
    state_->announce(Operation::open, path);
    const std::lock_guard guard(state_->lock);
    state_->begin(Operation::open, path);
    const Place place = state_->findExisting(path);
    if (place.node->kind != NodeKind::folder) {
        fail(ENOTDIR);
    }
    return std::make_unique<MemoryFolder>(state_, place.node, place.path, path);
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
            if (state_->crashed) {
                throw Crash();
            }
            const Place place = state_->find(soFar, Links::follow);
            if (place.node && place.node->kind != NodeKind::folder) {
                fail(ENOTDIR);
            }
            if (place.node) {
                continue;
            }
        }
        state_->announce(Operation::createDirectory, soFar);
        const std::lock_guard guard(state_->lock);
        const Place place = state_->find(soFar, Links::follow);
        state_->begin(Operation::createDirectory, place.path);
        if (!place.node) {
            require(*place.folder, mayWrite);
            place.folder->flushedNames[place.name] = state_->create(place, NodeKind::folder, permissions);
            state_->record(Operation::createDirectory, place.path);
        }
    }
}

void MemoryFileSystem::rename(const Path& from, const Path& to) {
    state_->announce(Operation::rename, to);
    const std::lock_guard guard(state_->lock);
    state_->begin(Operation::rename, to);
    const Place source = state_->findExisting(from, Links::refuse);
    static_cast<void>(state_->move(source, state_->find(to, Links::refuse), true));
}

bool MemoryFileSystem::renameNoReplace(const Path& from, const Path& to) {
    state_->announce(Operation::rename, to);
    const std::lock_guard guard(state_->lock);
    state_->begin(Operation::rename, to);
    const Place source = state_->findExisting(from, Links::refuse);
    return state_->move(source, state_->find(to, Links::refuse), false);
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
    state_->begin(Operation::remove, path);
    state_->remove(state_->findExisting(path, Links::refuse));
}

void MemoryFileSystem::removeDirectory(const Path& path) {
    state_->announce(Operation::removeDirectory, path);
    const std::lock_guard guard(state_->lock);
    state_->begin(Operation::removeDirectory, path);
    const Place place = state_->findExisting(path, Links::refuse);
    if (place.node->kind != NodeKind::folder) {
        fail(ENOTDIR);
    }
    if (!place.folder) {
        fail(EBUSY);
    }
    if (!place.node->names.empty()) {
        fail(ENOTEMPTY);
    }
    require(*place.folder, mayWrite);
    eraseName(place.folder->names, place.name);
    place.folder->modifiedNanoseconds = state_->nextTime();
    state_->record(Operation::removeDirectory, place.path);
}

Path MemoryFileSystem::resolveLinks(const Path& path) const {
    const std::lock_guard guard(state_->lock);
    if (state_->crashed) {
        throw Crash();
    }
    Path current = path;
    for (int links = 0; links <= mostLinks; ++links) {
        try {
            const Place place = state_->find(current, Links::refuse);
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
    state_->begin(Operation::setPermissions, path);
    state_->findExisting(path).node->permissions = permissions;
    state_->record(Operation::setPermissions, path);
}

void MemoryFileSystem::flushDirectory(const Path& path) {
    state_->announce(Operation::flushDirectory, path);
    const std::lock_guard guard(state_->lock);
    state_->begin(Operation::flushDirectory, path);
    const Place place = state_->findExisting(path);
    if (place.node->kind != NodeKind::folder) {
        fail(ENOTDIR);
    }
    require(*place.node, mayRead);
    place.node->flushedNames = place.node->names;
    state_->record(Operation::flushDirectory, place.path);
}

std::vector<std::string> MemoryFileSystem::list(const Path& path) const {
    state_->announce(Operation::list, path);
    const std::lock_guard guard(state_->lock);
    state_->begin(Operation::list, path);
    const Place place = state_->findExisting(path);
    if (place.node->kind != NodeKind::folder) {
        fail(ENOTDIR);
    }
    require(*place.node, mayRead);
    return sortedNames(*place.node);
}

namespace {

/// Gives a node a name on the disk, in a folder that is made if it is missing.
void putNode(MemoryFileSystem::State& state, const Path& path, const NodePointer& node) {
    NodePointer folder = state.root;
    for (const std::string& name : componentsOf(path.parent_path(), state.longestName)) {
        if (!folder->names.contains(name)) {
            setName(folder->names, name, state.make(NodeKind::folder, 0755));
        }
        const NodePointer child = folder->names[name];
        folder->flushedNames[name] = child;
        folder = child;
    }
    const std::string name = path.filename().native();
    setName(folder->names, name, node);
    folder->flushedNames[name] = node;
    folder->modifiedNanoseconds = state.nextTime();
}

} // namespace

void MemoryFileSystem::put(const Path& path, std::string_view content, std::uint32_t permissions) {
    const std::lock_guard guard(state_->lock);
    const NodePointer node = state_->make(NodeKind::file, permissions);
    node->content = toBytes(content);
    node->flushedContent = node->content;
    putNode(*state_, path, node);
}

void MemoryFileSystem::putFolder(const Path& path, std::uint32_t permissions) {
    const std::lock_guard guard(state_->lock);
    putNode(*state_, path, state_->make(NodeKind::folder, permissions));
}

void MemoryFileSystem::putLink(const Path& path, const Path& target) {
    const std::lock_guard guard(state_->lock);
    const NodePointer node = state_->make(NodeKind::link, 0777);
    node->target = target;
    putNode(*state_, path, node);
}

void MemoryFileSystem::putSpecial(const Path& path) {
    const std::lock_guard guard(state_->lock);
    putNode(*state_, path, state_->make(NodeKind::special, 0644));
}

void MemoryFileSystem::putSecondName(const Path& path, const Path& existing) {
    const std::lock_guard guard(state_->lock);
    putNode(*state_, path, state_->find(existing, Links::refuse, false).node);
}

void MemoryFileSystem::swapIn(const Path& from, const Path& to) {
    const std::lock_guard guard(state_->lock);
    const Place source = state_->find(from, Links::refuse, false);
    putNode(*state_, to, source.node);
    eraseName(source.folder->names, source.name);
}

void MemoryFileSystem::setOwner(const Path& path, std::uint32_t owner) {
    const std::lock_guard guard(state_->lock);
    state_->find(path, Links::refuse, false).node->owner = owner;
}

std::optional<std::string> MemoryFileSystem::content(const Path& path) const {
    const std::lock_guard guard(state_->lock);
    try {
        const Place place = state_->find(path, Links::follow, false);
        const bool isFile = place.node && place.node->kind == NodeKind::file;
        return isFile ? std::optional(toText(place.node->content)) : std::nullopt;
    } catch (const SystemError&) {
        return std::nullopt;
    }
}

std::vector<std::string> MemoryFileSystem::allFiles() const {
    const std::lock_guard guard(state_->lock);
    std::vector<std::string> files;
    collectFiles(*state_->root, "/", files);
    std::ranges::sort(files);
    return files;
}

std::size_t MemoryFileSystem::count(Operation operation) const {
    const std::lock_guard guard(state_->lock);
    const auto found = state_->counts.find(operation);
    return found == state_->counts.end() ? 0 : found->second;
}

std::size_t MemoryFileSystem::mutations() const {
    const std::lock_guard guard(state_->lock);
    return state_->mutations;
}

std::vector<std::string> MemoryFileSystem::history() const {
    const std::lock_guard guard(state_->lock);
    return state_->history;
}

bool MemoryFileSystem::isLocked(const Path& path) const {
    const std::lock_guard guard(state_->lock);
    const Place place = state_->find(path, Links::follow, false);
    return place.node && place.node->lockedBy != nullptr;
}

void MemoryFileSystem::addFault(Fault fault) {
    const std::lock_guard guard(state_->lock);
    state_->faults.push_back(std::move(fault));
}

void MemoryFileSystem::clearFaults() {
    const std::lock_guard guard(state_->lock);
    state_->faults.clear();
}

void MemoryFileSystem::setCapacity(std::optional<std::size_t> bytes) {
    const std::lock_guard guard(state_->lock);
    state_->capacity = bytes;
}

void MemoryFileSystem::setLongestName(std::size_t bytes) {
    const std::lock_guard guard(state_->lock);
    state_->longestName = bytes;
}

void MemoryFileSystem::crashAfter(std::size_t mutations, std::size_t tornBytes) {
    const std::lock_guard guard(state_->lock);
    state_->crashAtMutation = state_->mutations + mutations;
    state_->tornBytes = tornBytes;
}

bool MemoryFileSystem::hasCrashed() const {
    const std::lock_guard guard(state_->lock);
    return state_->crashed;
}

std::unique_ptr<MemoryFileSystem> MemoryFileSystem::afterCrash(CrashKind kind) const {
    const std::lock_guard guard(state_->lock);
    auto state = std::make_shared<State>();
    state->root = Survivors(kind).copy(state_->root);
    state->root->nameCount = 1;
    state->lastInode = state_->lastInode;
    state->lastTime = state_->lastTime;
    return std::unique_ptr<MemoryFileSystem>(new MemoryFileSystem(std::move(state)));
}

void MemoryFileSystem::beforeEach(std::function<void(Operation, const Path&)> action) {
    const std::lock_guard guard(state_->lock);
    state_->beforeEach = std::move(action);
}

} // namespace orlinth::fakes
