#pragma once

#include "OrlinthCore/SecureChannel/HandshakeExchange.h"
#include "base/CaseError.h"
#include "platform/Clock.h"
#include "platform/Crypto.h"
#include "platform/Network.h"

#include <memory>
#include <string>

namespace orlinth {

/// Why nobody proved a key.
///
/// Callers decide by the case. The text is for logs: parts of it come from the operating system.
class ResponderError : public CaseError<ResponderError> {
public:
    enum class Case {
        noFrame,       ///< what came is no frame of the length of a second message, or the connection ended before one
        silent,        ///< the time is over, and no whole frame has come
        otherProtocol, ///< such a frame came, and it is no second message of this handshake with this prologue
        network        ///< the connection broke
    };

    [[nodiscard]] static ResponderError noFrame(const std::string& what) {
        return {Case::noFrame, "no frame of 96 to 4096 bytes: ", what};
    }
    [[nodiscard]] static ResponderError silent(Seconds limit);
    [[nodiscard]] static ResponderError otherProtocol(const std::string& what) {
        return {Case::otherProtocol, "not this protocol: ", what};
    }
    [[nodiscard]] static ResponderError network(const std::string& what) {
        return {Case::network, "the connection broke: ", what};
    }

private:
    ResponderError(Case which, const std::string& prefix, const std::string& detail = {})
        : CaseError(which, prefix, detail) {}
};

/// Lengths of a second message that are taken: two public keys, one of them sealed, and the tag of an empty payload;
/// and what any payload that a peer may think of has room in.
inline constexpr std::size_t minSecondMessageBytes = 2 * platform::PublicKey::size + 2 * CipherState::tagBytes;
inline constexpr std::size_t maxSecondMessageBytes = 4096;
static_assert(minSecondMessageBytes == 96); // as the text of ResponderError::noFrame says

/// Asks whoever accepted this connection to prove its static key, and hangs up: the first message of the handshake goes
/// out, 36 bytes with the length in front, the second comes in, and not a byte of ours follows. The caller compares the
/// key with those it knows.
///
/// The second message is proof: its tag needs the private key that belongs to the one in it, and the ephemeral key that
/// was just made for this call. It does not prove that nobody relays it.
///
/// For talking to strangers: it takes no key of this computer's, and so none can leave. The third message, which would
/// tell the other side who we are, is never written.
///
/// Owns `stream` and closes it, however it ends; runs on its executor. `limit` is for all of it and greater than 0.
/// `clock` outlives the call.
/// @throws ResponderError; platform::Cancelled; platform::CryptoError if this computer cannot make a key
[[nodiscard]] Task<platform::PublicKey> proveResponder(std::unique_ptr<platform::Stream> stream, platform::Clock& clock,
                                                       Seconds limit, std::string prologue);

} // namespace orlinth
