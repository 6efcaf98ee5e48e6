#pragma once

#include "OrlinthHost/Service/PairingView.h"

#include <string>
#include <string_view>

namespace orlinth::host {

/// What is said over the control socket while the service pairs for whoever is at its other end: one object of JSON a
/// line, in both directions. Members that are not named here are nobody's business.
///
/// The service encodes pairings and decodes confirmations; decodePairing() and encodeConfirmation() are the other half,
/// for programs that pair by the socket.

/// `{"event":"pairing","state":"confirming","confirmation_code":"4183","phone":"Pixel 8",
/// "expires_epoch_ms":1731686400000}`; "digits" while it is announced, "message" and "hint" if it failed. As one line,
/// without its end.
[[nodiscard]] std::string encodePairing(const PairingView& pairing);
/// `line` is without its end. @throws JsonError or HostError, also with the text of `{"error":"…"}`
[[nodiscard]] PairingView decodePairing(std::string_view line);

/// `{"confirm":true}`: whether both screens show the same.
[[nodiscard]] std::string encodeConfirmation(bool isSame);
/// @throws JsonError or HostError
[[nodiscard]] bool decodeConfirmation(std::string_view line);

/// "waiting", "confirming", "done", "failed".
[[nodiscard]] const char* textOf(PairingView::State state) noexcept;

} // namespace orlinth::host
