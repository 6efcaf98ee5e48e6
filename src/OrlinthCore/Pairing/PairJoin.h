#pragma once

#include "OrlinthCore/Pairing/PairingPayload.h"
#include "OrlinthCore/Peers/PeerRecord.h"
#include "base/CaseError.h"
#include "platform/System.h"

namespace orlinth {

/// Why joining failed: the payload cannot be used, or the computer did not take the introduction.
class PairJoinError : public CaseError<PairJoinError> {
public:
    enum class Case { payload, connect, send, notRead, timedOut };

    [[nodiscard]] static PairJoinError payload(const std::string& why);
    [[nodiscard]] static PairJoinError connect(const std::string& text);
    [[nodiscard]] static PairJoinError send(const std::string& text);
    [[nodiscard]] static PairJoinError notRead();
    [[nodiscard]] static PairJoinError timedOut();

private:
    PairJoinError(Case which, const std::string& prefix, const std::string& detail = {})
        : CaseError(which, prefix, detail) {}
};

/// A payload that was looked into: whoever it names could be paired with.
struct CheckedPayload {
    PeerRecord computer; ///< what is recorded of it; `paired_at_epoch_ms` is 0
    platform::PublicKey key;
    SecretBytes secret;
};

/// Checks every field as those of an introduction are checked, and that the version is one that we know.
/// @throws PairJoinError::payload
[[nodiscard]] CheckedPayload checkPayload(const PairingPayload& payload, const platform::PublicKey& ownKey);

struct PairJoinRequest {
    PairingPayload payload;
    platform::PublicKey ownKey;
    std::uint16_t receivePort; ///< where this machine receives
    Seconds timeout;           ///< for the whole exchange
    std::string ownName = {};  ///< what this machine calls itself; "": its host name
};

struct PairJoinResult {
    PeerRecord computer;
    std::string confirmationCode; ///< four digits, which the computer shows too
};

/// Takes the phone's part of a pairing: connects to the computer, sends the introduction of this machine (its address
/// being the one it has towards the computer), and waits until the computer has closed, having read it.
/// @throws PairJoinError; Cancelled
[[nodiscard]] Task<PairJoinResult> joinPairing(platform::System& system, PairJoinRequest request);

} // namespace orlinth
