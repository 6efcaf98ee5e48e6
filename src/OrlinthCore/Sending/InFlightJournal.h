#pragma once

#include "base/Json.h"
#include "platform/Directories.h"
#include "platform/FileSystem.h"

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace orlinth {

/// A cheap look at a file's content.
struct FileFingerprint {
    /// How many leading bytes of a file enter the fingerprint.
    static constexpr std::int64_t bytes = 65536;

    /// The first 8 bytes of the SHA-256 of the file's front, as 16 lower-case hex digits.
    /// @throws platform::SystemError if the file cannot be opened or read
    [[nodiscard]] static std::string compute(platform::FileSystem& files, const platform::Path& url);
};

/// What the journal knows a file by.
struct InFlightKey {
    std::string name;
    std::int64_t size = 0;
    std::string mime;
    std::string fingerprint; ///< may be empty

    /// The entry's name in the journal file.
    [[nodiscard]] std::string text() const;
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

    class Batch;

    /// The entries of a journal file's content. @throws JsonError if it is no journal, down to the last entry
    [[nodiscard]] static std::map<std::string, std::string> decodeEntries(const Json& snapshot);

private:
    using Entries = std::map<std::string, std::string>;
    /// An entry that a batch has reserved.
    struct Reserved {
        std::string id;
        int uses = 0; ///< sends that have yet to complete
        bool isNew = false;
        bool isBegun = false;
    };
    [[nodiscard]] Entries load() const;
    void write(const Entries& entries);

    platform::FileSystem& files_;
    platform::Path fileURL_;
    mutable std::mutex lock_;
    Batch* batch_ = nullptr;
};

/// Many sends with one journal, at the cost of two writes for many files instead of two for each.
///
/// While it lives, getOrCreate() answers for reserved files without reading, and complete() of one is written with the
/// next reserve() or at the end of the batch. A process that is killed before leaves ids of files that were sent or not
/// begun; the next send of such a file uses the id, which is as good as a fresh one. One batch a journal at a time.
class InFlightJournal::Batch {
public:
    struct Wanted {
        InFlightKey key;
        bool isFresh = false; ///< an id that was recorded before is not to be used again
    };

    explicit Batch(InFlightJournal& journal);
    /// Writes what is left to write. The ids of reserved files that were never begun are dropped, if they were new.
    ~Batch();
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

    /// As getOrCreate() for each, with one write. An entry is forgotten once so many sends of it have completed: a file
    /// for several phones keeps its id until the last of them has it. Returns the ids. Never fails.
    std::vector<std::string> reserve(const std::vector<Wanted>& files, int uses);
    /// Gives a file that was completed the id again that it had, for one use more: the phone may not have got the end
    /// after all. Never fails.
    void restore(const InFlightKey& file, const std::string& id);

private:
    friend class InFlightJournal;
    InFlightJournal& journal_;
    std::map<std::string, Reserved> reserved_; ///< by entry key; guarded by the journal's lock, like the next
    std::set<std::string> finished_;           ///< entry keys that are to go from the file
};

} // namespace orlinth
