#pragma once

#include "OrlinthCore/Peers/PeerRecord.h"
#include "OrlinthCore/SecureChannel/HandshakeExchange.h"
#include "OrlinthCore/SecureChannel/TransportFrame.h"
#include "OrlinthCore/Sending/FcmWake.h"
#include "OrlinthCore/Sending/SendError.h"
#include "platform/System.h"

#include <functional>
#include <optional>
#include <string>

namespace orlinth {

/// The log of one-off messages: subsystem "com.tarvinex.orlinth", category "clipboard-send". Its lines hold no content.
class ClipLog {
public:
    static constexpr const char* subsystem = "com.tarvinex.orlinth";
    static constexpr const char* category = "clipboard-send";

    explicit ClipLog(platform::Log& log) : log_(log) {}
    void write(const std::string& line) noexcept { log_.write(platform::LogLevel::notice, subsystem, category, line); }

private:
    platform::Log& log_;
};

/// One message to one phone. What is referred to outlives the call.
struct OneOffRequest {
    PeerRecord peer;
    const platform::PrivateKey& staticKey;
    std::string prologue = std::string(kOrlinthPrologue);
    Seconds warmConnectTimeout;     ///< for the first attempt to connect
    Seconds postWakeConnectTimeout; ///< for the single attempt after a wake, which waits for the phone's port
    std::string fcmBaseURL = FcmWake::defaultBaseURL;
    bool mayWake = true;       ///< whether a phone that sleeps is woken, if its push token is known
    Seconds handshakeLimit{0}; ///< in which the phone has to prove its key; 0: no limit
    Seconds sendLimit{0};      ///< in which it has to take the message; 0: no limit
    Seconds answerLimit{0};    ///< in which it may answer or close behind it; 0: no limit
    /// The first attempt to connect has failed. What follows, a push or the end, comes behind it.
    std::function<void(const std::exception&)> onUnreached = {};
    std::function<void()> onConnected = {};         ///< a connection is up
    std::function<void()> onWaking = {};            ///< a push was delivered
    std::function<void()> onHandshakeComplete = {}; ///< the phone has proved its key
    std::function<void()> onSent = {};              ///< the system has taken the whole message
    /// Notices a phone that is gone, also if no limit is set. Absent: off.
    std::optional<platform::KeepAlive> keepAlive = {};
};

/// How the phone behaved behind the message.
enum class OneOffEnd {
    ended,    ///< it has answered, or closed the connection
    silent,   ///< it has done neither in time
    brokeOff, ///< it has broken the connection off before it had the whole message, which may not have arrived
};

/// Delivers one control message over a connection of its own, waking the phone if it sleeps.
///
/// Best effort by design: once the phone has proved its key, success means that no Unpair was seen, even if the write
/// failed. Waits for the phone's answer, or for it to close.
/// @throws SendError, that of a message that was not taken in time as network (stalled);
///         TransportFramer::Error::plaintextTooLarge before anything else is done
[[nodiscard]] Task<OneOffEnd> sendOneOff(platform::System& system, TransportMessage message, OneOffRequest request);

/// The same for clipboard text; `mime` says what it is ("text/plain").
[[nodiscard]] Task<OneOffEnd> sendClipboard(platform::System& system, std::string text, std::string mime,
                                            OneOffRequest request);

} // namespace orlinth
