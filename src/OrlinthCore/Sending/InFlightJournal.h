#pragma once

#include "base/Json.h"
#include "base/Mutex.h"
#include "base/StrongText.h"
#include "platform/Directories.h"
#include "platform/FileSystem.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace orlinth {

/// A cheap look at a file's content.
struct FileFingerprint {
    /// How many leading bytes of a file enter the fingerprint.
    static constexpr std::int64_t bytes = 65536;

    /// The first 8 bytes of the SHA-256 of the file's front, as 16 lower-case hex digits.
    /// @throws platform::SystemError if the file cannot be opened or read
    [[nodiscard]] static std::string compute(platform::FileSystem& files, const platform::Path& path);
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

struct OutgoingFile;
/// What the journal knows an examined file by.
[[nodiscard]] InFlightKey keyOf(const OutgoingFile& file);

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

    [[nodiscard]] const platform::Path& fileURL() const noexcept { return filePath_; }

    /// The id for this file; a new one is on disk before it is returned (if the disk takes it).
    [[nodiscard]] std::string getOrCreate(const std::string& name, std::int64_t size, const std::string& mime,
                                          const std::string& fingerprint);
    /// Forgets the file's id.
    void complete(const std::string& name, std::int64_t size, const std::string& mime, const std::string& fingerprint);
    [[nodiscard]] std::map<std::string, std::string> snapshotEntries() const;
    /// Deletes the journal file.
    void wipe();

    class Batch;

    /// A journal file's content.
    struct Snapshot {
        std::map<std::string, std::string> entries; ///< transfer id by entry key

        [[nodiscard]] Json toJson() const { return {{"entries", entries}}; }
        /// @throws JsonError if it is no journal, down to the last entry
        [[nodiscard]] static Snapshot fromJson(const Json& json) { return {decodeEntries(json)}; }
    };

    /// The entries of a journal file's content. @throws JsonError if it is no journal, down to the last entry
    [[nodiscard]] static std::map<std::string, std::string> decodeEntries(const Json& snapshot);

private:
    using Entries = std::map<std::string, std::string>;
    [[nodiscard]] Entries load() const ORLINTH_REQUIRES(lock_);
    /// Returns whether the file holds them now.
    bool write(const Entries& entries) ORLINTH_REQUIRES(lock_);

    platform::FileSystem& files_;
    platform::Path filePath_;
    mutable Mutex lock_; ///< of the journal file, and of what its batches know
};

/// Many sends with one journal, at the cost of two writes for many files instead of two for each.
///
/// Only complete() ends an id, and it is the caller's to say when: ids of files that were not begun, or whose end is in
/// doubt, stay in the journal, so that neither a kill nor the end of this process takes one from the next attempt, or
/// from another process that has found it there meanwhile. What another process has written is read again.
/// Threading: as the journal. One process may have several; the journal outlives them.
class InFlightJournal::Batch {
public:
    struct Wanted {
        InFlightKey key;
        bool isFresh = false; ///< an id that was recorded before is not to be used again
        int uses = 1;         ///< sends that it is for: a file for several phones keeps its id until the last has it
    };

    explicit Batch(InFlightJournal& journal) : journal_(journal) {}
    /// Flushes.
    ~Batch();
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

    /// As getOrCreate() for each, with one write. Returns the ids. Never fails: if the disk does not take them, they
    /// hold for this batch.
    std::vector<TransferId> reserve(const std::vector<Wanted>& files);
    /// The id of a file, which is reserved now if it was not, for the next attempt. A look at the journal file's
    /// attributes, unless another process has written it since: then what it says now, and where it says nothing any
    /// more, a new id. Never fails.
    [[nodiscard]] TransferId idOf(const InFlightKey& file);
    /// One send of a file under this id has completed. If that was the last, the id is used no more; this is written
    /// with the next reserve() or flush().
    void complete(const InFlightKey& file, const TransferId& id);
    /// A send under this id has not completed, and another process may have ended the id meanwhile: the next attempt is
    /// to find it all the same. Never fails.
    void keep(const InFlightKey& file, const TransferId& id);
    /// Writes what is left to write. Never fails.
    void flush();

private:
    struct Reserved {
        TransferId id;
        TransferId superseded{}; ///< an id that is not to be used, and that the journal file may still hold; or ""
        int uses = 0;            ///< sends that have yet to complete
        bool isWritten = false;  ///< the journal file has held it
    };
    /// What the journal file looked like when this batch knew all of it.
    using Look = std::optional<platform::FileStatus>;

    [[nodiscard]] Look look() const;
    void makeFolder() noexcept;
    void eraseFinished(Entries& entries) ORLINTH_REQUIRES(journal_.lock_);
    void update() ORLINTH_REQUIRES(journal_.lock_);
    void adopt(const Entries& entries) ORLINTH_REQUIRES(journal_.lock_);

    InFlightJournal& journal_;
    std::map<std::string, Reserved> reserved_ ORLINTH_GUARDED_BY(journal_.lock_); ///< by entry key
    /// Entry keys, with their ids, that are to go from the file.
    std::map<std::string, TransferId> finished_ ORLINTH_GUARDED_BY(journal_.lock_);
    Look known_ ORLINTH_GUARDED_BY(journal_.lock_);
};

} // namespace orlinth
