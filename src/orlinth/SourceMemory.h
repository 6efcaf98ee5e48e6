#pragma once

#include "OrlinthCore/Sending/InFlightJournal.h"
#include "platform/System.h"

namespace orlinth::host {

/// Remembers, beside the journal, which very file each transfer id was given for: size, time of last change, inode.
///
/// The journal knows a file by name, size, type and its first 64 KiB. A file that was changed behind those would keep
/// its id, and a resume would join two different contents. So before an attempt the file is compared with what it was
/// at the attempt before, and on any difference the journal's entry is dropped, which makes for a fresh id.
///
/// One JSON file, `{"sources" : {"name|size|mime|fingerprint" : {"device", "inode", "modified_ns", "size"}}}`.
/// Changes hold an advisory lock. A memory that cannot be read counts as empty: then ids are fresh.
class SourceMemory {
public:
    static constexpr const char* fileName = "inflight-sources.json";

    /// The memory beside `journal`; both references must outlive it.
    SourceMemory(platform::System& system, InFlightJournal& journal);

    /// Before an attempt: drops the journal's entry unless the file is the one it was made for; remembers the file.
    /// Anything wrong with the file itself is left for the attempt to report. @throws platform::SystemError
    void beforeSending(const platform::Path& file);
    /// After a completed send of that file, as it was when it was examined: forgets it.
    void afterSending();

private:
    struct Examined {
        std::string key;
        Json look;
    };
    [[nodiscard]] Json load() const;
    void write(const Json& sources);

    platform::System& system_;
    InFlightJournal& journal_;
    platform::Path url_;
    std::string lastKey_;
};

} // namespace orlinth::host
