#pragma once

#include "base/CaseError.h"
#include "base/Json.h"
#include "base/StrongText.h"
#include "base/Time.h"
#include "platform/Clock.h"
#include "platform/Directories.h"
#include "platform/FileSystem.h"
#include "platform/WholeFile.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orlinth {

/// Everything this computer knows about one paired phone. The JSON keys are the field names.
struct PeerRecord {
    PeerKey peer_pubkey;        ///< the phone's static public key, 32 bytes; the record's identity
    std::string peer_ip;        ///< last known address of the phone
    std::int64_t peer_port = 0; ///< TCP port on which the phone receives
    std::string peer_subnet;    ///< subnet of the network at pairing time
    std::string peer_hostname;  ///< the phone's name, which selectors match
    std::string peer_mac;       ///< hardware address
    EpochMilliseconds paired_at_epoch_ms{};
    PeerKey self_pubkey;        ///< this computer's key that was paired; "" if unknown
    std::string peer_fcm_token; ///< push token; "" if none
    std::string peer_android;   ///< the phone's Android identifier; "" if unknown

    [[nodiscard]] PeerRecord withFcmToken(std::string token) const;
    [[nodiscard]] PeerRecord withHostname(std::string name) const;

    /// All ten keys.
    [[nodiscard]] Json toJson() const;
    /// The last three keys may be absent. @throws JsonError
    [[nodiscard]] static PeerRecord fromJson(const Json& json);

    bool operator==(const PeerRecord&) const = default;
};

/// The content of the peer store's file.
struct PeerBook {
    std::vector<PeerRecord> peers;

    [[nodiscard]] Json toJson() const;
    /// @throws JsonError
    [[nodiscard]] static PeerBook fromJson(const Json& json);
    /// The first record of this key; null if there is none.
    [[nodiscard]] const PeerRecord* find(const PeerKey& peerKey) const noexcept;

    bool operator==(const PeerBook&) const = default;
};

class PeerStoreError : public CaseError<PeerStoreError> {
public:
    enum class Case { directoryCreate, write, read, decode };

    [[nodiscard]] static PeerStoreError directoryCreate(const std::string& text);
    [[nodiscard]] static PeerStoreError write(const std::string& text);
    [[nodiscard]] static PeerStoreError read(const std::string& text);
    [[nodiscard]] static PeerStoreError decode(const std::string& text);

private:
    PeerStoreError(Case which, const std::string& prefix, const std::string& detail)
        : CaseError(which, prefix, detail) {}
};

/// The paired phones, in one JSON file that is read fresh by every call, unless it was made by keepingBook(), and
/// replaced whole by every change.
///
/// A file that does not decode is never overwritten. Changes hold an advisory lock from reading to writing, so that
/// two processes (or threads) do not lose each other's. All calls block and throw PeerStoreError. Copies are the same
/// store: they refer to the same `files`, which must outlive them.
class PeerStore {
public:
    static constexpr const char* defaultDirectoryName = "Orlinth";
    static constexpr const char* defaultFileName = "peer.json";

    /// The store in the folder "Orlinth" of the user's application data. `files` must outlive the store.
    PeerStore(platform::FileSystem& files, const platform::UserDirectories& directories,
              const std::string& fileName = defaultFileName);
    /// The store in another folder.
    PeerStore(platform::FileSystem& files, platform::Path directoryURL, const std::string& fileName = defaultFileName);

    /// The first one, for whoever asks all the time: it, and every copy of it, reads the file only when it may have
    /// changed since one of them read it. `clock` outlives them too.
    [[nodiscard]] static PeerStore keepingBook(platform::FileSystem& files,
                                               const platform::UserDirectories& directories,
                                               const platform::Clock& clock);

    [[nodiscard]] const platform::Path& fileURL() const noexcept { return filePath_; }
    [[nodiscard]] const platform::Path& directoryURL() const noexcept { return directoryPath_; }

    /// Empty if there is no file yet. A file of the older form, one bare record, reads as a book of one.
    /// @throws PeerStoreError::read, decode. Of a file that is neither form, the text is about the form that it
    ///         resembles: a book if it has "peers", else a record.
    [[nodiscard]] PeerBook loadBook() const;
    /// Replaces the file whole, whatever it held; makes the folder. For the owner alone (0600, 0700).
    /// @throws PeerStoreError::directoryCreate, write
    void writeBook(const PeerBook& book);

    /// mostRecent(), for callers with a single phone.
    [[nodiscard]] std::optional<PeerRecord> load() const;
    /// upsert(), likewise.
    void save(const PeerRecord& record);
    /// Removes every record with the same key and appends this one.
    void upsert(const PeerRecord& record);
    /// The same, and also removes records of other keys with the same host name and address: the phone has paired anew
    /// with a new identity. Returns those.
    std::vector<PeerRecord> upsertReplacingStale(const PeerRecord& record);
    /// What upsertUnderFreeName() has recorded, and which records it has replaced.
    struct Recorded {
        PeerRecord record;
        std::vector<PeerRecord> replaced;
        /// Others of the name, each of which may be the same phone; none for a phone that was recorded already.
        std::vector<PeerRecord> namesakes = {};
    };
    /// Whether a record is one of the same phone before it got a new key: it has another key, and the same Android
    /// identifier, or the same address and the same name, with a number behind it or without.
    [[nodiscard]] static bool isEarlierIdentity(const PeerRecord& earlier, const PeerRecord& record);
    /// upsert() that also removes the phone's earlier identities, and those that the caller knows to be some by
    /// `isEarlier`; for a record whose name others may have: the phone is recorded under freeName().
    Recorded upsertUnderFreeName(const PeerRecord& record,
                                 const std::function<bool(const PeerRecord& earlier)>& isEarlier = {});
    /// Removes and returns the first match; nothing, and no write, when there is none.
    std::optional<PeerRecord> removeFirst(const std::function<bool(const PeerRecord&)>& predicate);
    /// Reads, lets `change` change the book, and writes it if `change` returns true; under the lock throughout.
    /// Where there is no folder yet, `change` is asked about an empty book first: a change that changes nothing makes
    /// no folder, any other is asked again under the lock.
    void update(const std::function<bool(PeerBook&)>& change);
    /// The record paired last.
    [[nodiscard]] std::optional<PeerRecord> mostRecent() const;
    /// The record that a person means: exact host name, else unambiguous host-name prefix, else unambiguous prefix of
    /// the key's text, in any letter case. @throws PeerStoreError::decode if it is ambiguous.
    [[nodiscard]] std::optional<PeerRecord> resolve(const std::string& selector) const;
    /// Removes the file if there is one.
    void wipe();

private:
    using IsSamePhone = std::function<bool(const PeerRecord& earlier)>;
    /// Takes out the records of this key, and those that `isSamePhone` picks, which it returns.
    [[nodiscard]] static std::vector<PeerRecord> takeOut(PeerBook& book, const PeerKey& peerKey,
                                                         const IsSamePhone& isSamePhone);
    [[nodiscard]] PeerBook readBook() const;
    void createDirectory();
    [[nodiscard]] platform::FileLock lock();

    platform::FileSystem& files_;
    platform::Path directoryPath_;
    platform::Path filePath_;
    struct KeptBook;
    std::shared_ptr<KeptBook> kept_; ///< null: none is kept
};

} // namespace orlinth
