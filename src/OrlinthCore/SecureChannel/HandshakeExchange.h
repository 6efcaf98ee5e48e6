#pragma once

#include "OrlinthCore/SecureChannel/NoiseXX.h"
#include "OrlinthCore/SecureChannel/WireConnection.h"

#include <functional>

namespace orlinth {

/// The Noise prologue that both sides pass by default.
inline constexpr std::string_view kOrlinthPrologue = "Orlinth_v1";

/// Carries the three messages of the handshake over a connection, each in one frame, with empty payloads; received
/// payloads are ignored. On return the handshake is complete; finalizing it is the caller's step.
///
/// Both references must outlive the call, which the caller awaits where it makes it.
/// @throws WireConnection::Error, NoiseError, platform::CryptoError as they come; the caller wraps them and closes.
[[nodiscard]] Task<> exchangeAsInitiator(WireConnection& wire, NoiseHandshake& handshake);
/// As responder: `limit` is the largest message taken from somebody who has proved nothing yet; `onFirstMessage` is
/// called when the first one was good.
[[nodiscard]] Task<> exchangeAsResponder(WireConnection& wire, NoiseHandshake& handshake,
                                         std::size_t limit = NoiseHandshake::maxMessageBytes,
                                         std::function<void()> onFirstMessage = {});

} // namespace orlinth
