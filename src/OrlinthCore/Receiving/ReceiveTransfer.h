#pragma once

#include "OrlinthCore/Receiving/Downloads.h"
#include "OrlinthCore/Receiving/ReceiveError.h"
#include "OrlinthCore/SecureChannel/HandshakeExchange.h"
#include "platform/System.h"

#include <memory>

namespace orlinth {

/// Watches one receive, on the queue that the receive runs on. Every call does nothing unless it is overridden.
class ReceiveProgress {
public:
    virtual ~ReceiveProgress() = default;
    /// The port is open.
    virtual void onListening(std::uint16_t port);
    /// Somebody has connected; nothing is known of them yet.
    virtual void onConnected(const std::string& remoteEndpoint);
    /// The phone has proved its key.
    virtual void onHandshakeComplete();
    virtual void onOffer(const TransportMessage::FileOffer& offer, ByteOffset resumedFromOffset);
    /// In place of onOffer(): an earlier attempt has delivered this file, and it is still there, unchanged.
    virtual void onAlreadyHere(const TransportMessage::FileOffer& offer, const platform::Path& savedAt);
    /// Bytes held so far, of the advertised size; once a frame.
    virtual void onProgress(std::int64_t bytesWritten, std::int64_t totalBytes);
};

/// One receive. What is referred to outlives it.
struct ReceiveRequest {
    const platform::PrivateKey& staticKey;
    platform::PublicKey expectedPeerPubkey;
    platform::Path downloadsDir;
    std::uint16_t port = 0;
    /// A port that is already open, for a host that had the system choose it; `port` is then not looked at.
    std::unique_ptr<platform::Listener> listener = nullptr;
    std::string prologue = std::string(kOrlinthPrologue);
    Seconds acceptTimeout{0};  ///< how long to wait for a connection; zero or less waits for ever
    Seconds handshakeLimit{0}; ///< in which the phone has to prove its key; 0: no limit
    ReceiveProgress* progress = nullptr;
};

/// Takes exactly one connection from one expected phone and exactly one file, resuming an earlier attempt of the same
/// transfer, and moves it into the downloads folder. The port is closed as soon as somebody connects. A transfer that
/// was delivered already, and whose file is still there, unchanged, is acknowledged without its data; the result is
/// that file.
///
/// Cancelling the task closes the connection and leaves the partial file for a resume; so does every failure.
/// @throws ReceiveError; WireConnection::Error and TransportFramer::Error as they come in the frame loop;
///         platform::SystemError if the downloads folder cannot be created.
[[nodiscard]] Task<ReceivedFile> receiveOneTransfer(platform::System& system, ReceiveRequest request);

} // namespace orlinth
