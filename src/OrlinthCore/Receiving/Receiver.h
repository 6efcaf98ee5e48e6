#pragma once

#include "OrlinthCore/Peers/PeerRecord.h"
#include "OrlinthCore/Receiving/Downloads.h"
#include "OrlinthCore/Receiving/ReceiveError.h"
#include "OrlinthCore/Receiving/ReceivingLimits.h"
#include "OrlinthCore/SecureChannel/HandshakeExchange.h"
#include "OrlinthCore/Sending/ActiveTransfers.h"
#include "base/CaseError.h"
#include "base/StrongText.h"
#include "platform/System.h"

#include <functional>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace orlinth {

/// The receive service: listens on one port and serves every paired phone that connects, side by side.
///
/// Threading: run() is awaited on any executor and does its accepting, and every callback, on a serial queue of its
/// own, "orlinth.receiver"; each connection has a queue of its own on the worker threads. The setters and stop() may
/// be called from any thread. The object outlives run().
class Receiver {
public:
    class Error;

    /// What a name is called whose phone has no record.
    static constexpr const char* unknownPeer = "(unknown peer)";
    /// How long any single read may take before the connection is given up.
    static constexpr Seconds idleTimeout = limits::readLimit;
    /// Connections that have not yet proved a paired key; when one more comes, the oldest of the source that has most
    /// of them is closed, first of those who have said nothing.
    static constexpr std::size_t maxStrangers = limits::strangers;
    /// Largest handshake message taken: every one that Noise allows. Ours have at most 96 bytes, but payloads are
    /// legal. A stranger's takes memory only as it arrives.
    static constexpr std::size_t maxHandshakeFrame = NoiseHandshake::maxMessageBytes;

    /// Between two calls of onTransferProgress for one file.
    static constexpr Seconds progressInterval = 250ms;

    /// A dead phone is noticed after 25 seconds, also while we only wait for it.
    static constexpr platform::KeepAlive keepAlive{.idle = 10s, .interval = 5s, .count = 3};

    /// How one connection ended well. SetName and NameUpdate mean the same: the sender's own name is this now. `from`
    /// is the display name of the sender, `peerKey` its key.
    struct File {
        ReceivedFile file;
        std::string from;
        PeerKey peerKey = {};
    };
    struct Clipboard {
        std::string text;
        std::string mime;
        std::string from;
        PeerKey peerKey = {};
    };
    struct SetName {
        std::string name;
        std::string from; ///< as it was called before
        bool isTakenOver =
            true; ///< false for a name that nobody could be called by, and where no record could be changed
        std::string calledHere =
            {}; ///< now: `name`, or, if another phone has that, with a number; "" if not taken over
        PeerKey peerKey = {};
    };
    struct NameUpdate {
        std::string name;
        std::string from;
        bool isTakenOver = true;
        std::string calledHere = {};
        PeerKey peerKey = {};
    };
    struct Unpair {
        std::string from;
        PeerKey peerKey;
        bool isForgotten =
            true; ///< its record is gone; false: the store cannot be changed, which was told as a failure
    };
    /// A phone that was removed here has connected and was told so.
    struct UnpairReplied {
        PeerKey peerKey;
        std::string remoteEndpoint;
    };
    /// An offer was refused here, or the phone has sent a refusal.
    struct Declined {
        std::string from;
        std::string name;                         ///< of the refused file; "" for a refusal by the phone
        std::optional<DownloadRefusal> refusal{}; ///< why, if nobody was asked
        PeerKey peerKey = {};
    };
    using ProcessOutcome = std::variant<File, Clipboard, SetName, NameUpdate, Unpair, UnpairReplied, Declined>;

    /// How one connection failed.
    struct Failure {
        std::exception_ptr error;
        std::string remoteEndpoint;
        std::string from;     ///< the phone's display name; "" if no paired key was proved
        PeerKey peerKey = {}; ///< likewise
    };

    struct Offer {
        std::string name; ///< as the sender says; not to be trusted as a path
        std::int64_t size;
        std::string from;
        PeerKey peerKey = {};       ///< the sender's key: names may be alike
        TransferId transferId = {}; ///< as the sender says; the same when it offers the same transfer again
    };

    /// A paired phone that has proved its key.
    struct Arrival {
        PeerRecord phone;
        std::string remoteEndpoint; ///< where it has connected from, which may be a router's address
    };

    /// What becomes of the files that a phone offers.
    struct Reception {
        enum class Approval {
            given,   ///< every file is taken
            refused, ///< none is
            asked    ///< as approveOffer says
        };
        DownloadPlace place;
        Approval approval = Approval::given;
    };

    /// Names a file that comes in. No two of a receiver have the same.
    enum class TransferNumber : std::uint64_t {};

    /// A file that comes in: its offer was accepted, and its data is on its way.
    struct Transfer {
        TransferNumber number{};
        std::string name;             ///< as the sender says; not to be trusted as a path
        std::int64_t size = 0;        ///< bytes, as the sender says
        std::int64_t resumedFrom = 0; ///< bytes that were here before
        std::string from;
        PeerKey peerKey = {};
        TransferId transferId = {};
    };

    /// How far a file has come.
    struct TransferProgress {
        TransferNumber number{};
        std::int64_t bytesHere = 0;
    };

    /// What has become of a file that came in.
    struct TransferEnd {
        enum class How {
            delivered, ///< it was told as a File
            cancelled, ///< by cancelTransfer()
            failed     ///< or was cut by the end of the service
        };
        TransferNumber number{};
        How how{};
        std::exception_ptr error{}; ///< why it failed; null if the phone has gone over to another message
        platform::Path savedAt{};   ///< where it was delivered
    };

    /// A paired phone whose connection has ended.
    struct Departure {
        PeerKey peerKey;
        /// When it last sent something by this connection, or hung up in good order. A phone that is gone is noticed
        /// much later.
        platform::Clock::Instant heardAt{};
    };

    /// What happens, told on the receiver's queue. Every one may be empty. None may throw.
    struct Callbacks {
        std::function<void(std::uint16_t port)> onListening;
        std::function<void(const File&)> onTransfer;
        std::function<void(const Clipboard&)> onClipboard;
        std::function<void(const ProcessOutcome&)> onSync; ///< the other outcomes
        std::function<void(const Failure&)> onError;
        /// A paired phone has proved its key; told before its outcome is.
        std::function<void(const Arrival&)> onAuthenticated;
        /// The connection of such a phone has ended; told behind its outcome, once for each onAuthenticated.
        std::function<void(const Departure&)> onLeft = {};
        /// A file begins to come in. One that an earlier connection has delivered is none.
        std::function<void(const Transfer&)> onTransferStarted = {};
        /// Of each of those at most once in `progressInterval`.
        std::function<void(const TransferProgress&)> onTransferProgress = {};
        /// Once for each of those; told behind the outcome or the failure of its connection, of which a transfer that
        /// was cancelled has none.
        std::function<void(const TransferEnd&)> onTransferEnded = {};
    };

    /// `expectedPeerPubkeys` are the phones that may connect. What is referred to outlives the receiver.
    Receiver(platform::System& system, const platform::PrivateKey& staticKey,
             std::vector<platform::PublicKey> expectedPeerPubkeys, platform::Path downloadsDir, std::uint16_t port,
             std::string prologue = std::string(kOrlinthPrologue));
    Receiver(platform::System& system, const platform::PrivateKey& staticKey, platform::PublicKey expectedPeerPubkey,
             platform::Path downloadsDir, std::uint16_t port, std::string prologue = std::string(kOrlinthPrologue));
    ~Receiver();
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    /// Asked for each offer, on the receiver's queue; absent: every offer is taken. It is cancelled when the phone
    /// hangs up, and when the service ends the connection. A yes is a yes to the size that was offered: more than
    /// limits::dataFrameBytes beyond it is a protocol violation. Set before run().
    std::function<Task<bool>(Offer offer)> approveOffer;
    /// What the receive service lets others do. Set before run().
    ReceiverLimits limits;
    /// How a port is opened, the first time and after stepAside(); absent: by the platform's network, everywhere. Set
    /// before run(). May throw SystemError.
    std::function<std::unique_ptr<platform::Listener>(const platform::ListenOptions& options, Executor executor)>
        openListener;
    /// A port that is open already is used first, in place of opening `port`. Set before run().
    std::unique_ptr<platform::Listener> listener;
    /// Called on the connection's queue before a proved key is looked up, for a host whose lists live in files; may
    /// call the setters below. Must be safe to call from several threads at once. Set before run().
    std::function<void()> beforeAuthorising;

    /// Offers beyond these are refused without asking approveOffer. Set before run().
    DownloadLimits downloadLimits;
    /// Asked for each offer of this phone, on the connection's queue; what it says may be another thing at the next
    /// one. A file that is under way stays in its folder and under its limits. Must be safe to call from several
    /// threads at once. Absent: the folder of the constructor and `downloadLimits`; approveOffer is asked if there is
    /// one. Set before run().
    std::function<Reception(const PeerKey& peerKey)> receptionOf;

    /// From the next connection on.
    void setExpectedPeerPubkeys(std::vector<platform::PublicKey> keys);
    void setRemovedPeerPubkeys(std::vector<platform::PublicKey> keys);
    [[nodiscard]] std::vector<platform::PublicKey> removedPeerPubkeys() const;

    /// How many connections were looks, of all runs: somebody said the first message of the handshake, got the answer
    /// that proves our key, and hung up in good order without proving one. That is how a computer finds out whether we
    /// are the one it seeks; it is no failure, and no callback hears of it. Any thread.
    [[nodiscard]] std::uint64_t lookCount() const noexcept;

    /// Ends a file that comes in, soon after: its connection is closed, what has come of it stays for a resume, and for
    /// CancelledTransfers::lifetime further offers of the same transfer are declined. Nothing if there is no such
    /// transfer any more, or if it gets delivered first. Any thread.
    void cancelTransfer(TransferNumber number);

    /// Runs the service until stop(). On return every connection has ended, its partial file kept for a resume; then it
    /// may be called again, which opens the port that was used before unless there is another `listener`.
    /// Cancelling the task ends the service in the same way, with Cancelled.
    /// @throws Error
    [[nodiscard]] Task<> run(Callbacks callbacks);
    /// Ends the run() that was called last, soon after, and none that is called later; before the first one it makes
    /// that end at once, with nothing opened.
    void stop();

    /// Closes the port and leaves the connections that are there; returns once it is closed. For somebody who needs the
    /// port for a moment, while run() runs.
    [[nodiscard]] Task<> stepAside();
    /// Opens the port again; nothing if it is open, or if the service is ending. @throws Error::listenerStartFailed; it
    /// may be called again then
    [[nodiscard]] Task<> comeBack();

private:
    struct Service;
    std::shared_ptr<Service> service_;
};

/// What Receiver throws.
class Receiver::Error : public CaseError<Receiver::Error> {
public:
    enum class Case { listenerStartFailed, listenerStopped };

    [[nodiscard]] static Error listenerStartFailed(const std::string& text);
    [[nodiscard]] static Error listenerStopped(const std::string& text);

private:
    Error(Case which, const std::string& prefix, const std::string& detail = {}) : CaseError(which, prefix, detail) {}
};

} // namespace orlinth
