#pragma once

#include "platform/Folder.h"

#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <utility>

namespace orlinth::share {

/// Another file system, in which some things take as long as a test wants: copies of "large.bin" always do. Any thread.
class GatedFiles final : public platform::FileSystem {
public:
    using Path = platform::Path;

    explicit GatedFiles(platform::FileSystem& files) : files_(files) {}

    /// What is done to something of this name takes that long too: a look at it, what gives it the name, and folders
    /// that are made below it.
    void hold(std::string name) {
        const std::lock_guard lock(lock_);
        held_.insert(std::move(name));
    }
    /// Lets everything go on, and what is to come.
    void open() {
        const std::lock_guard lock(lock_);
        isOpen_ = true;
        changed_.notify_all();
    }
    /// How many calls wait, or have waited.
    [[nodiscard]] int waiting() {
        const std::lock_guard lock(lock_);
        return waiting_;
    }

    void copyToNew(const Path& from, const Path& to, std::uint32_t permissions) override {
        if (from.filename() == "large.bin") {
            wait();
        }
        files_.copyToNew(from, to, permissions);
    }

    [[nodiscard]] std::optional<platform::FileStatus> status(const Path& path) const override {
        pass(path.filename());
        return files_.status(path);
    }
    [[nodiscard]] bool exists(const Path& path) const noexcept override { return files_.exists(path); }
    [[nodiscard]] std::unique_ptr<platform::File> open(const Path& path, platform::OpenMode mode, platform::Links links,
                                                       std::uint32_t permissions) override {
        return files_.open(path, mode, links, permissions);
    }
    [[nodiscard]] std::unique_ptr<platform::Folder> openFolder(const Path& path) override {
        return files_.openFolder(path);
    }
    void createDirectories(const Path& path, std::uint32_t permissions) override {
        pass(path.parent_path().filename());
        files_.createDirectories(path, permissions);
    }
    void rename(const Path& from, const Path& to) override {
        pass(to.filename());
        files_.rename(from, to);
    }
    [[nodiscard]] bool renameNoReplace(const Path& from, const Path& to) override {
        return files_.renameNoReplace(from, to);
    }
    void remove(const Path& path) override { files_.remove(path); }
    void removeDirectory(const Path& path) override { files_.removeDirectory(path); }
    [[nodiscard]] Path resolveLinks(const Path& path) const override { return files_.resolveLinks(path); }
    void setPermissions(const Path& path, std::uint32_t permissions) override {
        files_.setPermissions(path, permissions);
    }
    void flushDirectory(const Path& path) override { files_.flushDirectory(path); }
    [[nodiscard]] std::vector<std::string> list(const Path& path) const override { return files_.list(path); }

private:
    void pass(const std::string& name) const {
        bool isHeld = false;
        {
            const std::lock_guard lock(lock_);
            isHeld = held_.contains(name);
        }
        if (isHeld) {
            wait();
        }
    }
    void wait() const {
        std::unique_lock lock(lock_);
        ++waiting_;
        changed_.wait(lock, [this] { return isOpen_; });
    }

    platform::FileSystem& files_;
    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    std::set<std::string> held_;
    bool isOpen_ = false;
    mutable int waiting_ = 0;
};

} // namespace orlinth::share
