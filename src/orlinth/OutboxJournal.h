#pragma once

#include "OrlinthCore/Sending/InFlightJournal.h"
#include "platform/System.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace orlinth::host {

/// The transfer ids of what goes of one batch to one phone. They are written for several files at once: two writes for
/// each small file, flushed to the disk, would take longer than the file itself.
///
/// Threading: one call at a time; the journal itself may be used by any thread.
class OutboxJournal {
public:
    /// Each is examined for that, which reads its first 64 KiB.
    static constexpr std::size_t filesPreparedAtOnce = 16;

    /// `system` outlives this. Touches no file.
    OutboxJournal(platform::System& system, platform::Path file);

    [[nodiscard]] InFlightJournal& journal() noexcept { return journal_; }
    /// Whether the file has its id, and is not forgotten.
    [[nodiscard]] bool isPrepared(const platform::Path& file) const { return prepared_.contains(file); }
    /// Bytes of a file that is prepared; else 0.
    [[nodiscard]] std::int64_t sizeOf(const platform::Path& file) const;
    /// Gives these files their ids. One with which something is wrong gets none: the attempt will meet the same and
    /// report it.
    void prepare(const std::vector<platform::Path>& files);
    /// The journal is to keep the id of this file, if it was prepared, although its end was sent.
    void takeBack(const platform::Path& file);
    /// The file was sent.
    void forget(const platform::Path& file) { prepared_.erase(file); }

private:
    struct Prepared {
        InFlightKey key;
        std::string id;
    };

    platform::System& system_;
    InFlightJournal journal_;
    InFlightJournal::Batch batch_;
    std::map<platform::Path, Prepared> prepared_;
};

} // namespace orlinth::host
