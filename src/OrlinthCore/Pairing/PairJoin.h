#pragma once

#include "OrlinthCore/Pairing/PairingPayload.h"
#include "OrlinthCore/Peers/PeerRecord.h"
#include "platform/System.h"

namespace orlinth {

/// Why joining failed: the payload cannot be used, or the computer did not take the introduction.
class PairJoinError : public Error {
public:
    enum class Case { payload, connect, send, notRead, timedOut };

    [[nodiscard]] static PairJoinError payload(const std::string& why);
    [[nodiscard]] static PairJoinError connect(const std::string& text);
    [[nodiscard]] static PairJoinError send(const std::string& text);
    [[nodiscard]] static PairJoinError notRead();
    [[nodiscard]] static PairJoinError timedOut();

    [[nodiscard]] Case which() const noexcept { return case_; }

private:
    PairJoinError(Case which, std::string description) : Error(std::move(description)), case_(which) {}
    Case case_;
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
    double timeout;            ///< seconds for the whole exchange
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
