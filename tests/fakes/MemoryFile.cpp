#include "fakes/MemoryFile.h"

#include <algorithm>
#include <mutex>
#include <utility>

namespace orlinth::fakes::memory {

using platform::FileStatus;
using platform::OpenMode;

namespace {

/// One open file.
class MemoryFile final : public platform::File {
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

    ~MemoryFile() override { letGo(); }

    std::size_t read(MutableBytes into) override {
        state_->announce(Operation::read, path_);
        const std::lock_guard guard(state_->lock);
        state_->faults.begin(Operation::read, path_);
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
                position_ += state_->tree.writeAt(*node_, position_, data.first(std::min(bytes, data.size())));
            }
        };
        state_->faults.begin(Operation::write, path_, writeTorn);
        if (!writable_) {
            fail(EBADF);
        }
        const std::size_t count = state_->tree.writeAt(*node_, position_, data);
        position_ += count;
        if (count < data.size()) {
            fail(ENOSPC);
        }
        state_->faults.record(Operation::write, path_);
    }

    void seek(ByteOffset offset) override {
        state_->announce(Operation::seek, path_);
        const std::lock_guard guard(state_->lock);
        state_->faults.begin(Operation::seek, path_);
        if (offset < ByteOffset()) {
            fail(EINVAL);
        }
        position_ = static_cast<std::size_t>(offset.bytesBefore());
    }

    [[nodiscard]] FileStatus status() const override {
        const std::lock_guard guard(state_->lock);
        state_->faults.requireNoCrash();
        return statusOf(*node_);
    }

    void flush() override {
        state_->announce(Operation::flush, path_);
        const std::lock_guard guard(state_->lock);
        state_->faults.begin(Operation::flush, path_);
        node_->flushedContent = node_->content;
        state_->faults.record(Operation::flush, path_);
    }

    void setPermissions(std::uint32_t permissions) override {
        state_->announce(Operation::setPermissions, path_);
        const std::lock_guard guard(state_->lock);
        state_->faults.begin(Operation::setPermissions, path_);
        node_->permissions = permissions;
        state_->faults.record(Operation::setPermissions, path_);
    }

    void startWriteback(ByteOffset /*offset*/, std::int64_t /*length*/) noexcept override {}

    [[nodiscard]] bool tryLock() override {
        state_->announce(Operation::lock, path_);
        const std::lock_guard guard(state_->lock);
        state_->faults.begin(Operation::lock, path_);
        if (node_->lockedBy != nullptr && node_->lockedBy != this) {
            return false;
        }
        node_->lockedBy = this;
        return true;
    }

    void lock() override {
        state_->announce(Operation::lock, path_);
        std::unique_lock guard(state_->lock);
        state_->faults.begin(Operation::lock, path_);
        while (node_->lockedBy != nullptr && node_->lockedBy != this) {
            state_->unlocked.wait(guard);
            state_->faults.requireNoCrash();
        }
        node_->lockedBy = this;
    }

    void unlock() noexcept override { letGo(); }

private:
    void letGo() noexcept {
        const std::lock_guard guard(state_->lock);
        if (node_->lockedBy == this) {
            node_->lockedBy = nullptr;
            state_->unlocked.notify_all();
        }
    }

    std::shared_ptr<MemoryFileSystem::State> state_;
    NodePointer node_;
    Path path_;
    bool readable_;
    bool writable_;
    std::size_t position_ = 0;
};

} // namespace

std::unique_ptr<platform::File> openFile(const StatePointer& state, const Place& place, OpenMode mode,
                                         std::uint32_t permissions) {
    const bool readable = mode == OpenMode::read || mode == OpenMode::openOrCreate;
    const bool writable = mode != OpenMode::read;
    NodePointer node = place.node;
    if (!node) {
        if (mode == OpenMode::read || mode == OpenMode::write) {
            fail(ENOENT);
        }
        require(*place.folder, mayWrite);
        state->faults.begin(Operation::create, place.path);
        node = state->tree.create(place, NodeKind::file, permissions);
        state->faults.record(Operation::create, place.path);
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

bool moveNamed(MemoryFileSystem::State& state, const Place& source, const Place& target, bool replace) {
    const bool hasMoved = state.tree.move(source, target, replace);
    if (hasMoved) {
        state.faults.record(Operation::rename, source.path, target.path);
    }
    return hasMoved;
}

void removeNamed(MemoryFileSystem::State& state, const Place& place) {
    state.tree.remove(place);
    state.faults.record(Operation::remove, place.path);
}

} // namespace orlinth::fakes::memory
