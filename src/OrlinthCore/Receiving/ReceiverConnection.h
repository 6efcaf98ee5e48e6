#pragma once

#include "OrlinthCore/Receiving/CancelledTransfers.h"
#include "OrlinthCore/Receiving/FrameRoom.h"
#include "OrlinthCore/Receiving/PhonePlaces.h"
#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthCore/Receiving/RecordUpdates.h"

namespace orlinth {

/// What one connection of the receive service works with; all of it outlives the connection.
struct ReceiverConnectionContext {
    platform::Clock& clock;
    platform::WorkQueues& queues;
    const PeerStore& peers;
    const platform::PrivateKey& staticKey;
    Downloads& downloads;
    const std::string& prologue;
    RecordUpdates& updates;
    PhonePlaces& places;
    FrameRoom& frames;
    const CancelledTransfers& cancelled;
    /// When the handshake must be complete; absent: each of its reads may take its time.
    std::optional<platform::Clock::Instant> handshakeEnd;
    /// The first message of the handshake has come.
    std::function<void()> onGreeting;
    /// The other side has only looked: it said its first message and then ended the connection in good order, with our
    /// answer, which proves our key, on its way. Any thread.
    std::function<void()> onLook;
    /// What becomes of whoever has proved this key.
    enum class Standing { unknown, expected, removed };
    /// May be called on several threads at once, like all that follow.
    std::function<Standing(const platform::PublicKey&)> standingOf;
    /// What becomes of the next offer of this phone.
    std::function<Receiver::Reception(const PeerKey&)> receptionOf;
    /// Asked if that says so; it is there then.
    std::function<Task<bool>(Receiver::Offer)> approveOffer;
    /// Ends this connection soon after; the text says why. Any thread, also when it has ended.
    std::function<void(const char* because)> dismiss;
    /// Keeps this until the host has been told how the connection ended.
    std::function<void(std::shared_ptr<const void>)> keepUntilTold;
    /// The phone has proved its key; its record, if it has one.
    std::function<void(const std::optional<PeerRecord>&)> onAuthenticated;
    /// A file begins to come in; everything of it but its number.
    std::function<void(Receiver::Transfer)> onTransferStarted;
    /// So many bytes of it are here; not more often than Receiver::progressInterval.
    std::function<void(std::int64_t)> onTransferProgress;
    /// Something has just come from the phone that has proved its key, or it has hung up in good order.
    std::function<void()> onHeard;
    /// It is settled how the connection ends, though it may still have to wait for the disk: nothing that is said of it
    /// from now on, as by `dismiss`, is the reason.
    std::function<void()> onOver;
    /// Something went wrong that does not end the connection.
    std::function<void(std::exception_ptr)> onTrouble;
};

/// Serves one connection from the handshake to its outcome, as the registry's `self`. On the stream's queue.
/// Cancelling the task closes the connection; what has arrived of a file is kept for a resume, in every case.
/// Returns nothing if the connection ended well and there is nothing to report: an earlier one has delivered its file,
/// and that was reported; or it has brought a push token and nothing else; or it was a look.
/// @throws ReceiveError; WireConnection::Error, TransportFramer::Error as they come in the frame loop; Cancelled
[[nodiscard]] Task<std::optional<Receiver::ProcessOutcome>> processConnection(const ReceiverConnectionContext& context,
                                                                              std::unique_ptr<platform::Stream> stream);

} // namespace orlinth
