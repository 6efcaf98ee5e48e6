#pragma once

#include "OrlinthCore/Sending/InFlightJournal.h"
#include "platform/System.h"

#include <cstddef>
#include <map>
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
    /// Whether the file was among those that were prepared last.
    [[nodiscard]] bool isPrepared(const platform::Path& file) const { return prepared_.contains(file); }
    /// Gives these files their ids. One with which something is wrong gets none: the attempt will meet the same and
    /// report it.
    void prepare(const std::vector<platform::Path>& files);
    /// The journal is to keep the id of this file, which is prepared, although its end was sent.
    void takeBack(const platform::Path& file);

private:
    platform::System& system_;
    InFlightJournal journal_;
    InFlightJournal::Batch batch_;
    std::map<platform::Path, InFlightKey> prepared_;
};

} // namespace orlinth::host
