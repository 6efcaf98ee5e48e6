#pragma once

#include "OrlinthCore/Share/ShareOutbox.h"
#include "base/Error.h"
#include "base/StrongText.h"
#include "platform/Clock.h"

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace orlinth::host {

/// Why a batch of the outbox cannot be sent. The text is for people.
class OutboxError : public Error {
public:
    explicit OutboxError(std::string text) : Error(std::move(text)) {}
};

/// The batches in the outbox, as files: what they say, and how they go.
///
/// A batch is a real folder (no link) whose name is an upper-case UUID; it is complete once it has a manifest. Whatever
/// else lies in the outbox is nobody's business. No name in a batch is trusted: each is a single path component that is
/// a regular file, or the batch is not read.
///
/// Calls block. All throw SystemError unless they say otherwise.
class OutboxBatches {
public:
    /// A longer manifest is none.
    static constexpr std::size_t maxManifestBytes = 4 << 20;
    /// Where batches go that cannot be sent: a folder beside the outbox.
    static constexpr const char* setAsideName = "OutboxSetAside";
    /// How long a folder without a manifest, that nobody holds, stays as it is.
    static constexpr std::chrono::seconds abandonedAfter{60};

    struct Batch {
        ShareOutbox::Manifest manifest;
        platform::Path folder;
    };

    /// What is referred to outlives this. Touches no file.
    OutboxBatches(platform::FileSystem& files, platform::Clock& clock, const platform::UserDirectories& directories);

    /// Makes the outbox if there is none. @throws OutboxError if that cannot be
    platform::Path makeFolder();
    [[nodiscard]] platform::Path folderOf(const BatchId& id) const { return root_ / id.text(); }
    /// The batches of the outbox, complete or not, and those that were set aside; sorted. One whose folder may not be
    /// looked into is left out.
    [[nodiscard]] std::vector<BatchId> ids() const;
    [[nodiscard]] std::vector<BatchId> setAsideIds() const;
    /// Never throws.
    [[nodiscard]] bool isComplete(const BatchId& id) const noexcept;
    /// Whether there is certainly no such batch in the outbox, or something else in its place, such as a link; false if
    /// that cannot be found out now. Never throws.
    [[nodiscard]] bool isGone(const BatchId& id) const noexcept { return isGoneFrom(root_, id); }
    [[nodiscard]] bool isGoneFromSetAside(const BatchId& id) const noexcept { return isGoneFrom(setAsideFolder(), id); }

    /// The manifest, all of whose names are fit to be used; its files are not looked at.
    /// @throws OutboxError what is wrong with it; SystemError if the system lacks what it takes to read it now
    [[nodiscard]] Batch read(const BatchId& id) const;
    /// Of a batch that was set aside, likewise.
    [[nodiscard]] Batch readSetAside(const BatchId& id) const;
    /// @throws OutboxError if the file is not there, or is no regular file, or a link
    void checkFile(const Batch& batch, const std::string& name) const;

    /// Removes the folder with everything in it, the manifest last. A folder in it is not entered: then it fails. So it
    /// does, and removes nothing, if a link is in the folder's place.
    void remove(const BatchId& id);
    void removeSetAside(const BatchId& id);
    /// Moves the folder out of the outbox, as it is; returns where it is now.
    platform::Path setAside(const BatchId& id);
    /// And back. @throws OutboxError if there is such a batch in the outbox
    void bringBack(const BatchId& id);
    /// Removes the folders that somebody has begun to fill and left, but for the `known` batches; returns how many.
    /// What cannot be removed, or looked into, stays.
    std::size_t clearAbandoned(const std::set<BatchId>& known) noexcept;

    [[nodiscard]] static bool isId(const std::string& name) noexcept;

private:
    [[nodiscard]] platform::Path setAsideFolder() const { return root_.parent_path() / setAsideName; }
    [[nodiscard]] std::vector<BatchId> idsIn(const platform::Path& folder) const;
    [[nodiscard]] bool isRealFolder(const platform::Path& path) const;
    [[nodiscard]] bool isGoneFrom(const platform::Path& parent, const BatchId& id) const noexcept;
    [[nodiscard]] Batch readIn(const platform::Path& parent, const BatchId& id) const;
    void removeFolder(const platform::Path& folder);
    [[nodiscard]] bool isAbandoned(const platform::Path& folder) const;
    [[nodiscard]] bool clearIfAbandoned(const platform::Path& folder);

    platform::FileSystem& files_;
    platform::Clock& clock_;
    ShareOutbox outbox_;
    platform::Path root_;
};

} // namespace orlinth::host
