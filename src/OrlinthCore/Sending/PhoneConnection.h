#pragma once

#include "OrlinthCore/Peers/PeerRecord.h"
#include "OrlinthCore/SecureChannel/HandshakeExchange.h"
#include "OrlinthCore/SecureChannel/TransportFrame.h"
#include "OrlinthCore/Sending/OutgoingConnection.h"
#include "platform/System.h"

#include <functional>
#include <memory>

namespace orlinth {

/// The way to an awake, authenticated phone, which every sender goes: connect; if the phone sleeps, wake it and connect
/// again; shake hands; check its key.

/// How a sender connects.
struct ConnectRequest {
    PeerRecord peer;
    Executor queue;
    Seconds warmConnectTimeout; ///< for the first attempt
    /// Connects to the phone that has just been woken: the only difference between the senders.
    std::function<Task<std::unique_ptr<platform::Stream>>()> connectAfterWake;
    std::string fcmBaseURL;
    bool mayWake = true; ///< whether a phone that sleeps is woken, if its push token is known
    /// What happens on the way, for an observer or a log; each may be empty.
    std::function<void(const std::exception&)> onWarmFailure = {};
    std::function<void(bool needsWake, bool hasFcm)> onDecision = {};
    std::function<void()> onWakeBegins = {}; ///< before the push
    std::function<void()> onWoken = {};      ///< the push was delivered
};

/// @throws SendError::network
[[nodiscard]] Task<std::unique_ptr<platform::Stream>> connectOrWake(platform::System& system, ConnectRequest request);

/// Attempts until `window` has passed, `attemptTimeout` each, `retryInterval` between them; the window alone
/// bounds their number. `network` and `clock` outlive the call, as those of connectOnce().
/// @throws the last attempt's error; SendError::network("connect timed out after wake") if there
/// was none
[[nodiscard]] Task<std::unique_ptr<platform::Stream>> connectWithin(platform::Network& network, platform::Clock& clock,
                                                                    PeerRecord peer, Executor queue, Seconds window,
                                                                    Seconds attemptTimeout, Seconds retryInterval);

/// One attempt, as openConnection() makes it.
[[nodiscard]] Task<std::unique_ptr<platform::Stream>> connectOnce(platform::Network& network, platform::Clock& clock,
                                                                  PeerRecord peer, Executor queue, Seconds timeout,
                                                                  WhenRefused whenRefused = WhenRefused::fail);

/// The phone's key from its record. @throws SendError::unauthorizedPeer if it is not Base64
[[nodiscard]] Bytes pubkeyOf(const PeerRecord& peer);

/// Who has to prove what in a handshake, and until when.
struct Authentication {
    const platform::PrivateKey& staticKey; ///< ours
    std::string prologue;
    Bytes peerKey; ///< the phone's, as it was paired
    Seconds limit; ///< for the whole handshake; 0: no limit
};

/// Runs the handshake as its initiator and checks that the phone is the one that was paired. The connection, whose
/// queue this runs on, is closed when the time is over. The references outlive the call, which is awaited where it is
/// made.
/// @throws SendError::noiseHandshakeFailed, also "timed out after 10 seconds"; unauthorizedPeer; what finalizing
///         throws, unchanged
[[nodiscard]] Task<TransportFramer> authenticate(WireConnection& wire, platform::Clock& clock, Executor queue,
                                                 Authentication who);

} // namespace orlinth
