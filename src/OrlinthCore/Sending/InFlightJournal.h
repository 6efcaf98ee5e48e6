#pragma once

#include "base/Json.h"
#include "platform/Directories.h"
#include "platform/FileSystem.h"

#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace orlinth {

/// A cheap look at a file's content.
struct FileFingerprint {
    /// How many leading bytes of a file enter the fingerprint.
    static constexpr std::int64_t bytes = 65536;

    /// The first 8 bytes of the SHA-256 of the file's front, as 16 lower-case hex digits.
    /// @throws platform::SystemError if the file cannot be opened or read
    [[nodiscard]] static std::string compute(platform::FileSystem& files, const platform::Path& url);
};

/// Gives every outgoing file a transfer id that stays the same until the file has been sent completely, across failed
/// attempts and restarts: it is what a phone finds its partial download by.
///
/// One JSON file, `{"entries" : {"name|size|mime|fingerprint" : "UUID"}}`. No call ever fails: an unreadable journal
/// reads as empty, a failed write leaves the file as it was. Values are taken as they are, "|" in a name is not
/// escaped; a name that is not UTF-8 is kept with U+FFFD for its odd bytes and "|" + all its bytes in hex behind the
/// key. Threading: any thread; one call at a time by an own lock. An advisory file lock keeps processes apart.
class InFlightJournal {
public:
    static constexpr const char* defaultFileName = "inflight.json";

    /// The journal in the folder "Orlinth" of the user's application data. Touches no file.
    InFlightJournal(platform::FileSystem& files, const platform::UserDirectories& directories);
    /// The journal elsewhere. `files` must outlive it.
    InFlightJournal(platform::FileSystem& files, platform::Path fileURL);

    [[nodiscard]] const platform::Path& fileURL() const noexcept { return fileURL_; }

    /// The id for this file; a new one is on disk before it is returned (if the disk takes it).
    [[nodiscard]] std::string getOrCreate(const std::string& name, std::int64_t size, const std::string& mime,
                                          const std::string& fingerprint);
    /// Forgets the file's id.
    void complete(const std::string& name, std::int64_t size, const std::string& mime, const std::string& fingerprint);
    [[nodiscard]] std::map<std::string, std::string> snapshotEntries() const;
    /// Deletes the journal file.
    void wipe();

    /// The entries of a journal file's content. @throws JsonError if it is no journal, down to the last entry
    [[nodiscard]] static std::map<std::string, std::string> decodeEntries(const Json& snapshot);

private:
    using Entries = std::map<std::string, std::string>;
    [[nodiscard]] Entries load() const;
    void write(const Entries& entries);

    platform::FileSystem& files_;
    platform::Path fileURL_;
    mutable std::mutex lock_;
};

} // namespace orlinth
