#pragma once

#include "OrlinthCore/Sending/InFlightJournal.h"
#include "OrlinthCore/Sending/OutgoingFile.h"
#include "platform/FileSystem.h"
#include "platform/MimeTypes.h"

#include <optional>
#include <vector>

namespace orlinth::host {

/// Remembers, beside the journal, which very file each transfer id was given for: size, time of last change, inode.
///
/// The journal knows a file by name, size, type and its first 64 KiB. A file that was changed behind those would keep
/// its id, and a resume would join two different contents. So before an attempt the file is compared with what it was
/// at the attempt before, and on any difference the journal's entry is dropped, which makes for a fresh id.
///
/// One JSON file, `{"sources" : {"name|size|mime|fingerprint" : {"device", "inode", "modified_ns", "size"}}}`.
/// Changes hold an advisory lock and are written for many files at once. A memory that cannot be read counts as empty:
/// then ids are fresh.
class SourceMemory {
public:
    static constexpr const char* fileName = "inflight-sources.json";

    /// A file as it is now.
    struct Source {
        OutgoingFile file;
        InFlightKey key;
        /// Whether it is not the file that an earlier attempt was for, if there was one; set by compare().
        bool isFresh = false;
    };

    /// The memory beside `journal`. `files` and `mimeTypes` outlive it.
    SourceMemory(platform::FileSystem& files, const platform::MimeTypes& mimeTypes, const InFlightJournal& journal);

    /// Nothing if there is something wrong with the file: the attempt will meet the same and report it.
    [[nodiscard]] std::optional<Source> examine(const platform::Path& file) const;
    /// Whether the file still is what examine() saw. A cheap look, for right before an attempt.
    [[nodiscard]] bool isUnchanged(const platform::Path& file, const Source& source) const;
    /// Before an attempt, and before the ids are written down: are these the files that were remembered?
    void compare(std::vector<Source>& sources) const;
    /// Remembers the files as they are, once their ids are written down: a kill in between makes for a fresh id, never
    /// for an id of another content. @throws platform::SystemError
    void remember(const std::vector<Source>& sources);
    /// Forgets what completely sent files were; written by the next remember() or flush().
    void forget(const InFlightKey& key);
    /// @throws platform::SystemError
    void flush();

private:
    [[nodiscard]] Json load() const;
    void write(const Json& sources);
    /// Returns whether there was anything to erase.
    bool eraseForgotten(Json& sources);

    platform::FileSystem& files_;
    const platform::MimeTypes& mimeTypes_;
    platform::Path path_;
    std::vector<std::string> forgotten_;
};

} // namespace orlinth::host
