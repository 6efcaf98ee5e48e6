#pragma once

#include "OrlinthCore/Peers/PeerRecord.h"
#include "base/Error.h"
#include "platform/Crypto.h"

#include <string>
#include <vector>

namespace orlinth {

/// An introduction that cannot be taken; the text says why.
class PairIntroductionError : public Error {
public:
    explicit PairIntroductionError(const std::string& why) : Error("not a valid introduction: " + why), why_(why) {}
    [[nodiscard]] const std::string& why() const noexcept { return why_; }

private:
    std::string why_;
};

/// What the phone says of itself inside the sealed introduction: one JSON object with keys of a peer record.
///
/// `peer_pubkey`, `peer_ip`, `peer_port` and `peer_hostname` are required, though `peer_ip` may be empty;
/// `peer_subnet`, `peer_mac`, `peer_fcm_token` and `peer_android` may be absent, and one that cannot be used counts as
/// absent. Others are ignored.
class PairIntroduction {
public:
    static constexpr std::size_t maxHostnameBytes = 255;
    static constexpr std::size_t maxFieldBytes = 64;   ///< of address, subnet, hardware address and Android identifier
    static constexpr std::size_t maxTokenBytes = 4096; ///< of the push token

    PairIntroduction() = delete;

    /// A phone, and what of its introduction was not taken as it stood.
    struct Decoded {
        PeerRecord record;
        std::vector<std::string> leftOut;  ///< why, for each field; no value is quoted
        bool hasConnectionAddress = false; ///< `peer_ip` was empty
    };

    /// The record of the phone, with `self_pubkey` set and `paired_at_epoch_ms` 0. Every field has been checked:
    /// lengths, no control characters, a key that is somebody else's and not of low order, an address that one
    /// computer can have, a port from 1 to 65535. An optional field that fails is left empty. An empty `peer_ip`
    /// becomes `connectionAddress`, the address that the introduction came from. @throws PairIntroductionError
    [[nodiscard]] static Decoded decodeFrom(const std::string& connectionAddress, ByteView plaintext,
                                            const platform::PublicKey& ownKey);
    /// The same of an introduction that came from nowhere: its `peer_ip` may not be empty.
    [[nodiscard]] static PeerRecord decode(ByteView plaintext, const platform::PublicKey& ownKey);
    /// The same of a record that was put together otherwise: its fields are checked as those of an introduction are.
    /// Bytes of a text that are not UTF-8 become U+FFFD. @throws PairIntroductionError
    [[nodiscard]] static Decoded check(const PeerRecord& claimed, const platform::PublicKey& ownKey);
    /// The introduction of the one that `self` describes; checks nothing.
    [[nodiscard]] static Bytes encode(const PeerRecord& self);
};

/// Why this cannot be somebody else's static key: it is ours, is not in its one canonical form, or is a point of low
/// order, with which everybody agrees on the same secret (RFC 7748 §6.1). Nothing where it can be.
[[nodiscard]] std::optional<std::string> objectionToKey(const platform::PublicKey& key,
                                                        const platform::PublicKey& ownKey);

/// Why no computer of a local network can have this address; nothing for an IPv4 or IPv6 literal that one can have.
[[nodiscard]] std::optional<std::string> objectionToAddress(const std::string& address);

} // namespace orlinth
