#pragma once

#include "OrlinthCore/Peers/PeerRecord.h"
#include "platform/Crypto.h"
#include "platform/System.h"

#include <functional>
#include <optional>
#include <string>

namespace orlinth {

/// What the peer store says of a phone that has proved its key, and the changes that a phone may make there. The file
/// is read afresh in every call; a change holds its lock from reading to writing. Calls block on the disk.
class SenderRecord {
public:
    /// Longest name taken over into a record, bytes of UTF-8.
    static constexpr std::size_t maxNameBytes = 255;
    /// Longest push token taken over, bytes. They have a few hundred.
    static constexpr std::size_t maxTokenBytes = 4096;

    SenderRecord(platform::System& system, const platform::PublicKey& key);

    /// Nothing if there is none. @throws PeerStoreError
    [[nodiscard]] std::optional<PeerRecord> find() const;
    /// The host name; "(unknown peer)" if there is no record or the store cannot be read.
    [[nodiscard]] std::string displayName() const noexcept;

    /// Each changes the record, if there is one and it differs; else nothing is locked or written, and a store that may
    /// only be read is no failure. @throws PeerStoreError
    ///
    /// The record moves to the end of the store, as with PeerStore::upsert(). Not taken over: a token that is too long.
    void setFcmToken(const std::string& token);
    /// The name that the phone calls itself by, or freeName() if another phone has it. Returns what it is called now.
    /// Not taken over, and nothing returned: a name that is blank, too long or has control characters.
    [[nodiscard]] std::optional<std::string> setHostname(const std::string& name);
    /// `address` is where the phone has connected from. Not taken over: loopback in place of something else (a tunnel
    /// ends there), and anything in place of a host name, which somebody has chosen by hand.
    void setAddress(const std::string& address);
    /// Whether setAddress() would change this record.
    [[nodiscard]] static bool isAddressNew(const PeerRecord& record, const std::string& address);
    void remove();

private:
    /// `change` is given the book and a copy of the record in it, and says whether it has changed that.
    void change(const std::function<bool(const PeerBook&, PeerRecord&)>& change);

    platform::System& system_;
    std::string pubkey_;
};

} // namespace orlinth
