#include "fakes/MemoryTree.h"

#include <algorithm>
#include <utility>

namespace orlinth::fakes::memory {

using platform::FileKind;
using platform::FileStatus;
using platform::SystemError;

void fail(int errorNumber) {
    throw SystemError::fromErrno(errorNumber);
}

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

FileStatus statusOf(const Node& node) {
    FileStatus status;
    status.kind = node.kind == NodeKind::file     ? FileKind::regular
                  : node.kind == NodeKind::folder ? FileKind::directory
                                                  : FileKind::other;
    status.size = static_cast<std::int64_t>(node.content.size());
    status.modifiedAt = node.modifiedAt;
    status.inode = node.inode;
    status.device = 1;
    status.permissions = node.permissions;
    status.names = node.nameCount;
    status.owner = node.owner;
    return status;
}

std::vector<std::string> sortedNames(const Node& folder) {
    std::vector<std::string> names;
    for (const auto& [name, node] : folder.names) {
        names.push_back(name);
    }
    return names;
}

void collectFiles(const Node& folder, const Path& path, std::vector<std::string>& into) {
    for (const auto& [name, node] : folder.names) {
        if (node->kind == NodeKind::folder) {
            collectFiles(*node, path / name, into);
        } else {
            into.push_back((path / name).native());
        }
    }
}

namespace {

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

} // namespace

Tree::Tree() : root_(make(NodeKind::folder, 0755)) {
    root_->nameCount = 1;
}

Tree::Tree(NodePointer root, const Tree& before)
    : lastInode_(before.lastInode_), lastTime_(before.lastTime_), root_(std::move(root)) {
    root_->nameCount = 1;
}

NodePointer Tree::make(NodeKind kind, std::uint32_t permissions) {
    auto node = std::make_shared<Node>();
    node->kind = kind;
    node->inode = ++lastInode_;
    node->permissions = permissions;
    node->modifiedAt = nextTime();
    return node;
}

NodePointer Tree::create(const Place& place, NodeKind kind, std::uint32_t permissions) {
    NodePointer node = make(kind, permissions & ~umask);
    setName(place.folder->names, place.name, node);
    place.folder->modifiedAt = nextTime();
    return node;
}

void Tree::put(const Path& path, const NodePointer& node) {
    NodePointer folder = root_;
    for (const std::string& name : componentsOf(path.parent_path(), longestName)) {
        if (!folder->names.contains(name)) {
            setName(folder->names, name, make(NodeKind::folder, 0755));
        }
        const NodePointer child = folder->names[name];
        folder->flushedNames[name] = child;
        folder = child;
    }
    const std::string name = path.filename().native();
    setName(folder->names, name, node);
    folder->flushedNames[name] = node;
    folder->modifiedAt = nextTime();
}

Place Tree::find(const Path& path, Links last, bool checkPermissions) const {
    std::vector<std::string> rest = componentsOf(path, longestName);
    std::ranges::reverse(rest); // the next component is at the back
    std::vector<std::pair<std::string, NodePointer>> way{{"", root_}};
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

Place Tree::findExisting(const Path& path, Links last) const {
    Place place = find(path, last);
    if (!place.node) {
        fail(ENOENT);
    }
    return place;
}

std::size_t Tree::used(const Node& folder) {
    std::size_t sum = 0;
    for (const auto& [name, node] : folder.names) {
        sum += node->kind == NodeKind::folder ? used(*node) : node->content.size();
    }
    return sum;
}

std::optional<std::size_t> Tree::freeBytes() const {
    if (!capacity) {
        return std::nullopt;
    }
    const std::size_t taken = used(*root_);
    return *capacity > taken ? *capacity - taken : 0;
}

std::size_t Tree::writeAt(Node& node, std::size_t position, ByteView data) {
    std::size_t count = data.size();
    const std::size_t end = position + count;
    if (capacity && end > node.content.size()) {
        const std::size_t growth = end - node.content.size();
        const std::size_t free = *freeBytes();
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
    node.modifiedAt = nextTime();
    return count;
}

bool Tree::move(const Place& source, const Place& target, bool replace) {
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
    source.folder->modifiedAt = target.folder->modifiedAt = nextTime();
    return true;
}

void Tree::remove(const Place& place) {
    if (place.node->kind == NodeKind::folder) {
        fail(EISDIR);
    }
    require(*place.folder, mayWrite);
    eraseName(place.folder->names, place.name);
    place.folder->modifiedAt = nextTime();
}

void Tree::removeFolder(const Place& place) {
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
    place.folder->modifiedAt = nextTime();
}

} // namespace orlinth::fakes::memory
