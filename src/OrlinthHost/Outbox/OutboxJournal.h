#pragma once

#include "OrlinthCore/Sending/SendTransfer.h"
#include "base/StrongText.h"
#include "platform/FileSystem.h"
#include "platform/MimeTypes.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace orlinth::host {

/// The transfer ids of what goes of one batch to one phone. They are written for several files at once: two writes for
/// each small file, flushed to the disk, would take longer than the file itself.
///
/// An id ends when complete() says that the phone has the file, and not before. Threading: one call at a time.
class OutboxJournal {
public:
    /// Each is examined for that, which reads its first 64 KiB.
    static constexpr std::size_t filesPreparedAtOnce = 16;

    /// `files` and `mimeTypes` outlive this. Touches no file.
    OutboxJournal(platform::FileSystem& files, const platform::MimeTypes& mimeTypes, platform::Path file);

    /// Whether the file has its id.
    [[nodiscard]] bool isPrepared(const platform::Path& file) const { return prepared_.contains(file); }
    /// Bytes of a file that is prepared; else 0.
    [[nodiscard]] std::int64_t sizeOf(const platform::Path& file) const;
    /// Gives these files their ids. One with which something is wrong gets none.
    void prepare(const std::vector<platform::Path>& files);
    /// What to send of a file, which is prepared now if it was not.
    /// @throws as examineFile() of one with which something is wrong
    [[nodiscard]] PreparedFile take(const platform::Path& file);
    /// The phone has the file. Written with the next prepare(), or when this goes.
    void complete(const platform::Path& file);

private:
    platform::FileSystem& files_;
    const platform::MimeTypes& mimeTypes_;
    InFlightJournal journal_;
    InFlightJournal::Batch batch_;
    struct Prepared {
        OutgoingFile file;
        TransferId id; ///< under which it was offered last
    };
    std::map<platform::Path, Prepared> prepared_;
};

} // namespace orlinth::host
