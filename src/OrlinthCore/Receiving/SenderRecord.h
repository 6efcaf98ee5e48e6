#pragma once

#include "OrlinthCore/Peers/PeerNames.h"
#include "OrlinthCore/Peers/PeerRecord.h"
#include "base/StrongText.h"
#include "platform/Crypto.h"

#include <optional>
#include <string>

namespace orlinth {

/// What a phone says of itself. What is absent stays as it is.
struct RecordChange {
    std::optional<std::string> token = {};
    std::optional<std::string> name = {};

    /// A later one: its values count.
    void add(RecordChange later);
    [[nodiscard]] bool isEmpty() const noexcept { return !token && !name; }
};

/// What the peer store says of a phone that has proved its key, and the changes that a phone may make there. The file
/// is read afresh in every call; a change holds its lock from reading to writing. Calls block on the disk.
class SenderRecord {
public:
    /// Longest name taken over into a record, bytes of UTF-8.
    static constexpr std::size_t maxNameBytes = maxPeerNameBytes;
    /// Longest push token taken over, bytes. They have a few hundred.
    static constexpr std::size_t maxTokenBytes = 4096;

    SenderRecord(PeerStore store, const platform::PublicKey& key);

    /// Nothing if there is none. @throws PeerStoreError
    [[nodiscard]] std::optional<PeerRecord> find() const;
    /// The host name; "(unknown peer)" if there is no record or the store cannot be read.
    [[nodiscard]] std::string displayName() const noexcept;

    /// Changes the record, if there is one and it differs, in one write; else nothing is locked or written, and a store
    /// that may only be read is no failure. Returns whether something was written. @throws PeerStoreError
    ///
    /// With a token the record moves to the end of the store, as with PeerStore::upsert(). A name that another phone
    /// has becomes freeName(). Not taken over: a token that is too long; a name that nobody could be called by.
    [[nodiscard]] bool apply(const RecordChange& change);
    /// Whether a name is fit to be one: not blank, not too long, no control characters.
    [[nodiscard]] static bool isUsableName(const std::string& name);
    /// What a phone that calls itself so is called here: this name, or freeName() if another phone has it. Nothing for
    /// a name that is not fit. @throws PeerStoreError
    [[nodiscard]] std::optional<std::string> nameHere(const std::string& name) const;
    /// Takes the record out of the store, if it is there. @throws PeerStoreError
    void remove();

private:
    [[nodiscard]] bool applyTo(PeerBook& book, const RecordChange& change) const;

    PeerStore store_;
    PeerKey peerKey_;
};

} // namespace orlinth
