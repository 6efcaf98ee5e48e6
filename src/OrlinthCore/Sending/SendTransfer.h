#pragma once

#include "OrlinthCore/Peers/PeerRecord.h"
#include "OrlinthCore/SecureChannel/HandshakeExchange.h"
#include "OrlinthCore/SecureChannel/WireConnection.h"
#include "OrlinthCore/Sending/FcmWake.h"
#include "OrlinthCore/Sending/InFlightJournal.h"
#include "OrlinthCore/Sending/OutgoingFile.h"
#include "OrlinthCore/Sending/SendError.h"
#include "base/StrongText.h"
#include "platform/System.h"

#include <functional>
#include <optional>

namespace orlinth {

/// What a completed send came to.
struct SentFile {
    std::string savedPath;           ///< the local file that was sent
    std::int64_t bytesSent = 0;      ///< bytes that the phone holds at the end: the resume offset and what was sent now
    std::int64_t advertisedSize = 0; ///< as the offer said
    Seconds durationSeconds{0};      ///< from the acceptance of the Resume to the end
    ByteOffset resumedFromOffset;    ///< the start for a fresh transfer

    bool operator==(const SentFile&) const = default;
};

/// Watches one send, on the queue that the send runs on. Every call does nothing unless it is overridden.
class SendProgress {
public:
    virtual ~SendProgress() = default;
    /// The file has been examined.
    virtual void onFile(const std::string& name, std::int64_t size, const std::string& mime);
    /// The first attempt to connect has failed. What follows, a push or the end of the send, comes behind it.
    virtual void onUnreached(const std::exception& error);
    /// A connection to the phone is up.
    virtual void onConnected();
    /// A wake push was delivered and connecting begins again.
    virtual void onWaking();
    /// The phone has proved its key.
    virtual void onHandshakeComplete();
    /// Bytes that the phone holds so far, of the advertised size.
    virtual void onProgress(std::int64_t bytesSent, std::int64_t totalBytes);
    /// The end of the file was sent; what is in the buffers is still on its way.
    virtual void onComplete(const SentFile& result);
};

/// To whom a file goes, and how. What is referred to outlives the send.
struct SendTerms {
    PeerRecord peer;
    const platform::PrivateKey& staticKey;
    std::string prologue = std::string(kOrlinthPrologue);
    Seconds warmConnectTimeout;     ///< for the first attempt to connect
    Seconds postWakeConnectTimeout; ///< in which attempts are made after a wake
    Seconds postWakeAttemptTimeout; ///< for each of those
    Seconds postWakeRetryInterval;  ///< between them
    std::string fcmBaseURL = FcmWake::defaultBaseURL;
    std::function<bool()> cancel = {}; ///< asked before each chunk, on any thread; true ends the transfer
    SendProgress* progress = nullptr;
    bool mayWake = true;       ///< whether a phone that does not answer is woken, if its push token is known
    Seconds handshakeLimit{0}; ///< in which the phone has to prove its key; 0: no limit
    /// How long the phone may take to answer the offer, and then for each chunk; 0: no limit.
    Seconds silenceLimit{0};
    Seconds farewellLimit = 1s; ///< how long the phone may take to close after Done
    /// Notices a phone that is gone, as the phone's answer to the offer may be waited for without limit. Absent: off.
    std::optional<platform::KeepAlive> keepAlive = {};
};

/// One send by the journal, which outlives it.
struct SendRequest {
    platform::Path fileURL;
    InFlightJournal& journal;
    SendTerms terms;
};

/// Sends one file to one paired phone: connects, by a wake push if the phone sleeps, proves and checks keys, offers the
/// file under an id that survives restarts, lets the phone say from where it wants it, streams the rest and says Done.
///
/// The journal entry is written before the first connection and removed after Done was sent, so a failed send can be
/// resumed by the next one. Memory is about one chunk, whatever the file's size.
/// Cancelling the task closes the connection and leaves the journal entry.
/// @throws SendError for the cases named there; platform::SystemError if the file's attributes cannot be read;
///         WireConnection::Error and TransportFramer::Error as they come after the handshake.
[[nodiscard]] Task<SentFile> sendOneFile(platform::System& system, SendRequest request);

/// A file that was examined, once, with the id to offer it under.
struct PreparedFile {
    platform::Path path;
    OutgoingFile file; ///< with what it was when it was examined
    TransferId transferId;
};

/// What came of a file whose end was sent. Only a farewell in good order says that the phone has it.
struct SendOutcome {
    SentFile sent;
    WireConnection::Farewell farewell;
};

/// The same without a journal, for whoever keeps ids by himself and wants to know how the phone took its leave.
/// @throws as sendOneFile()
[[nodiscard]] Task<SendOutcome> sendPrepared(platform::System& system, PreparedFile file, SendTerms terms);

} // namespace orlinth
