#include "fakes/MemoryFile.h"

#include <limits>
#include <mutex>
#include <optional>
#include <utility>

namespace orlinth::fakes::memory {

using platform::FileName;
using platform::FileStatus;
using platform::OpenMode;

namespace {

/// A folder that is held open. What happens to its path is nothing to it.
class MemoryFolder final : public platform::Folder {
public:
    MemoryFolder(std::shared_ptr<MemoryFileSystem::State> state, NodePointer node, Path path, Path openedAs)
        : state_(std::move(state)), node_(std::move(node)), path_(std::move(path)), openedAs_(std::move(openedAs)) {}

    [[nodiscard]] const Path& path() const noexcept override { return openedAs_; }

    [[nodiscard]] FileStatus status() const override {
        const std::lock_guard guard(state_->lock);
        state_->faults.requireNoCrash();
        return statusOf(*node_);
    }

    [[nodiscard]] std::optional<FileStatus> status(const FileName& name) const override {
        state_->announce(Operation::status, pathOf(name));
        const std::lock_guard guard(state_->lock);
        state_->faults.begin(Operation::status, pathOf(name));
        const Place place = placeOf(name);
        return place.node ? std::optional(statusOf(*place.node)) : std::nullopt;
    }

    [[nodiscard]] std::unique_ptr<platform::File> open(const FileName& name, OpenMode mode,
                                                       std::uint32_t permissions) override {
        state_->announce(Operation::open, pathOf(name));
        const std::lock_guard guard(state_->lock);
        state_->faults.begin(Operation::open, pathOf(name));
        return openFile(state_, placeOf(name), mode, permissions);
    }

    void rename(const FileName& from, const FileName& to) override {
        state_->announce(Operation::rename, pathOf(to));
        const std::lock_guard guard(state_->lock);
        state_->faults.begin(Operation::rename, pathOf(to));
        static_cast<void>(moveNamed(*state_, placeOfExisting(from), placeOf(to), true));
    }

    [[nodiscard]] bool renameNoReplace(const FileName& from, const FileName& to) override {
        state_->announce(Operation::rename, pathOf(to));
        const std::lock_guard guard(state_->lock);
        state_->faults.begin(Operation::rename, pathOf(to));
        return moveNamed(*state_, placeOfExisting(from), placeOf(to), false);
    }

    void remove(const FileName& name) override {
        state_->announce(Operation::remove, pathOf(name));
        const std::lock_guard guard(state_->lock);
        state_->faults.begin(Operation::remove, pathOf(name));
        removeNamed(*state_, placeOfExisting(name));
    }

    void flush() override {
        state_->announce(Operation::flushDirectory, path_);
        const std::lock_guard guard(state_->lock);
        state_->faults.begin(Operation::flushDirectory, path_);
        node_->flushedNames = node_->names;
        state_->faults.record(Operation::flushDirectory, path_);
    }

    [[nodiscard]] std::vector<std::string> list() const override {
        state_->announce(Operation::list, path_);
        const std::lock_guard guard(state_->lock);
        state_->faults.begin(Operation::list, path_);
        require(*node_, mayRead);
        return sortedNames(*node_);
    }

    [[nodiscard]] std::size_t longestName() const noexcept override {
        const std::lock_guard guard(state_->lock);
        return state_->tree.longestName;
    }

    [[nodiscard]] std::int64_t freeBytes() const override {
        const std::lock_guard guard(state_->lock);
        const std::optional<std::size_t> free = state_->tree.freeBytes();
        return free ? static_cast<std::int64_t>(*free) : std::numeric_limits<std::int64_t>::max();
    }

    [[nodiscard]] std::error_code objectionToFiles() const noexcept override {
        const std::lock_guard guard(state_->lock);
        return (statusOf(*node_).permissions & mayWrite) != 0 ? std::error_code()
                                                              : std::make_error_code(std::errc::permission_denied);
    }

    [[nodiscard]] std::uint32_t ordinaryPermissions() const override { return 0666U & ~umask; }

    [[nodiscard]] std::uint32_t user() const noexcept override { return memory::user; }

private:
    [[nodiscard]] Path pathOf(const FileName& name) const { return path_ / name.text(); }

    [[nodiscard]] Place placeOf(const FileName& name) const {
        if (node_->nameCount == 0) {
            fail(ENOENT); // it was removed
        }
        if (name.text().size() > state_->tree.longestName) {
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

std::unique_ptr<platform::Folder> holdFolder(const StatePointer& state, const Place& place, const Path& openedAs) {
    return std::make_unique<MemoryFolder>(state, place.node, place.path, openedAs);
}

} // namespace orlinth::fakes::memory
