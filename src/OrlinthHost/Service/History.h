#pragma once

#include "base/StrongText.h"
#include "base/Time.h"
#include "platform/Clock.h"
#include "platform/FileSystem.h"
#include "platform/Log.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orlinth::host {

/// One file that came or went, or did not, as the history has it. A file that takes several attempts has an entry for
/// each that got as far as the first byte.
struct HistoryEntry {
    enum class Direction { in, out };
    enum class Outcome { done, failed, cancelled };

    EpochMilliseconds time{}; ///< when it ended
    Direction direction = Direction::in;
    std::string phone = {}; ///< its name then
    PeerKey peerKey = {};
    std::string file = {}; ///< its name, as whoever sent it called it
    std::int64_t size = 0; ///< bytes, as whoever sent it said
    Outcome outcome = Outcome::done;
    std::string problem = {}; ///< why it failed; else ""
    std::string path = {};    ///< where a file that came in was put; else ""

    friend bool operator==(const HistoryEntry&, const HistoryEntry&) = default;
};

/// "in", "out".
[[nodiscard]] const char* textOf(HistoryEntry::Direction direction) noexcept;
/// "done", "failed", "cancelled".
[[nodiscard]] const char* textOf(HistoryEntry::Outcome outcome) noexcept;

/// What came and went: a file beside the peer store, "history.jsonl", for the owner alone (0600); one line of JSON an
/// entry, in the order in which they ended. No texts, and nothing of what was in the files.
///
///     {"direction":"in","file":"a.jpg","outcome":"done","path":"/home/ann/Downloads/a.jpg","peer_pubkey":"hSDw…",
///      "phone":"Pixel 8","size":4100000,"time":1731686400000}
///
/// An entry is one write at the end of the file, so a kill leaves it whole, absent, or cut; what is cut, or makes no
/// sense, is skipped. When the file has maxEntries and `slack` more, or an entry of more than maxAge and a day, it is
/// replaced whole by one with what counts. A history of somebody else's, or one that is no regular file, is left alone.
///
/// Threading: any thread. Calls block on the disk. One writer, the service; any number of readers.
class History {
public:
    static constexpr const char* fileName = "history.jsonl";
    /// Older entries, and more of them, do not count.
    static constexpr std::size_t maxEntries = 1000;
    static constexpr std::chrono::days maxAge{90};
    /// A larger file is read from so far before its end on.
    static constexpr std::size_t maxFileBytes = 4 * 1024 * 1024;
    /// No line that add() writes is longer, and no longer one counts.
    static constexpr std::size_t maxLineBytes = 32 * 1024;
    static constexpr std::size_t slack = 100;

    /// `directory` is the core's data folder. The others outlive this. Touches no file.
    History(platform::FileSystem& files, platform::Clock& clock, platform::Log& log, platform::Path directory);

    /// Puts it behind the others. What cannot be written is logged, once until it can be again.
    void add(const HistoryEntry& entry) noexcept;
    /// Removes the file. @throws platform::SystemError, and then it is there; also if it is not one of this user alone
    void clear();
    /// What counts, the newest last. @throws platform::SystemError; no file is an empty history
    [[nodiscard]] std::vector<HistoryEntry> load() const;

    /// The text of one line, without its end; names and texts cut to what fits. And back: nothing if it makes no sense.
    [[nodiscard]] static std::string encode(const HistoryEntry& entry);
    [[nodiscard]] static std::optional<HistoryEntry> decode(std::string_view line);
    /// What counts of the content of a file, at that time. If the clock was set back, entries may seem to come from the
    /// future; they count.
    [[nodiscard]] static std::vector<HistoryEntry> decodeAll(std::string_view content, EpochMilliseconds now);

private:
    void append(const HistoryEntry& entry);
    void rewrite();
    [[nodiscard]] std::vector<HistoryEntry> read(platform::Folder& folder) const;

    platform::FileSystem& files_;
    platform::Clock& clock_;
    platform::Log& log_;
    platform::Path directory_;
    std::optional<std::size_t> lines_; ///< of the file, as far as add() knows
    EpochMilliseconds oldest_{};       ///< of its entries, likewise
    bool isTroubleTold_ = false;
};

} // namespace orlinth::host
