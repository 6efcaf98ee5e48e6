#include "OrlinthCore/Receiving/ReceiveTransfer.h"

#include "OrlinthCore/Receiving/IncomingTransfer.h"
#include "OrlinthCore/Receiving/OpenTransfer.h"
#include "base/ConstantTime.h"
#include "base/OneShot.h"
#include "base/Text.h"
#include "platform/Cancelled.h"
#include "platform/Deadline.h"
#include "platform/Spawn.h"
#include "platform/TimeLimit.h"

#include <optional>
#include <utility>

namespace orlinth {
namespace {

/// Connection or error, whichever of the first phone and the deadline comes first.
using OnceContinuation = OneShot<std::unique_ptr<platform::Stream>>;

/// Takes the first connection and closes the port, so that it is the only one ever served.
Task<std::unique_ptr<platform::Stream>> acceptFirst(std::unique_ptr<platform::Listener> listener, Executor queue) {
    try {
        std::unique_ptr<platform::Stream> connection = co_await listener->accept(std::move(queue));
        listener->close();
        co_return connection;
    } catch (const std::exception& error) {
        throw ReceiveError::listenerStartFailed(platform::textOfFailure(error));
    }
}

std::unique_ptr<platform::Listener> startListener(platform::Network& network, std::uint16_t port,
                                                  const Executor& queue) {
    if (port == 0) {
        throw ReceiveError::listenerStartFailed("invalid port " + std::to_string(port));
    }
    try {
        return network.listen({.port = port, .keepAlive = std::nullopt}, queue);
    } catch (const Error& error) {
        throw ReceiveError::listenerStartFailed(error.description());
    }
}

Task<std::unique_ptr<platform::Stream>> acceptOneConnection(platform::Clock& clock,
                                                            std::unique_ptr<platform::Listener> listener,
                                                            Executor queue, Seconds timeout) {
    OnceContinuation continuation;
    Task<std::unique_ptr<platform::Stream>> first = acceptFirst(std::move(listener), std::move(queue));
    const auto timedOut = std::make_exception_ptr(ReceiveError::timedOut());
    co_await platform::settleFirst(continuation, clock, timeout, timedOut, std::move(first));
    co_return continuation.take();
}

/// Runs the handshake and checks that the phone is the expected one.
Task<TransportFramer> authenticate(WireConnection& wire, const ReceiveRequest& request) {
    NoiseHandshake handshake(NoiseRole::responder, request.staticKey.clone(), asBytes(request.prologue));
    std::optional<NoiseTransport> transport;
    try {
        co_await exchangeAsResponder(wire, handshake);
        transport.emplace(std::move(handshake).finalize());
    } catch (const NoiseError& error) {
        throw ReceiveError::noiseHandshakeFailed(error.description());
    } catch (const platform::CryptoError& error) {
        throw ReceiveError::noiseHandshakeFailed(error.description());
    }
    if (!constantTimeEquals(transport->remoteStaticPublicKey().raw(), request.expectedPeerPubkey.raw())) {
        throw ReceiveError::unauthorizedPeer();
    }
    co_return TransportFramer(std::move(*transport));
}

/// The same within the limit of time.
Task<TransportFramer> authenticateInTime(WireConnection& wire, const ReceiveRequest& request, platform::Clock& clock,
                                         Executor queue) {
    platform::TimeLimit limit(clock, queue, [&wire] { wire.close(); });
    limit.begin(request.handshakeLimit);
    try {
        co_return co_await authenticate(wire, request);
    } catch (const std::exception&) {
        if (limit.hasExpired()) {
            throw ReceiveError::noiseHandshakeFailed("timed out after " + timeInWords(request.handshakeLimit));
        }
        throw;
    }
}

/// What the frames of one transfer ask for (IncomingTransfer), done in the downloads folder.
class OneTransfer {
public:
    OneTransfer(const platform::System& system, const ReceiveRequest& request, ReceiveProgress& progress,
                WireConnection& wire)
        : clock_(system.clock),
          request_(request),
          progress_(progress),
          wire_(wire),
          downloads_(system.storage(), system.queues, request.downloadsDir) {}

    [[nodiscard]] IncomingTransfer::Action take(const TransportMessage& message) { return transfer_.take(message); }
    /// `data` outlives the task.
    [[nodiscard]] Task<> append(ByteView data) {
        transfer_.takeData(static_cast<std::int64_t>(data.size()));
        co_await downloads_.append(*file_, data);
        progress_.onProgress(file_->bytesWritten(), file_->offer().size);
    }
    /// Begins the file that is offered; returns the answer.
    [[nodiscard]] Task<TransportMessage> accept(TransportMessage::FileOffer offer) {
        open_.emplace(wire_);
        IncomingFile incoming = co_await downloads_.begin(request_.expectedPeerPubkey.peerKey(), offer, clock_.now());
        file_.emplace(std::move(incoming));
        transfer_.accept(file_->resumeOffset());
        if (const DeliveredTransfers::Delivery* const delivery = file_->delivered()) {
            progress_.onAlreadyHere(offer, delivery->path);
        } else {
            progress_.onOffer(offer, file_->resumeOffset());
        }
        co_return file_->resumeMessage();
    }
    [[nodiscard]] Task<ReceivedFile> finish() {
        ReceivedFile received = co_await downloads_.finish(*file_, wire_.remoteEndpoint());
        open_->settle();
        co_return received;
    }

private:
    platform::Clock& clock_;
    const ReceiveRequest& request_;
    ReceiveProgress& progress_;
    WireConnection& wire_;
    Downloads downloads_;
    IncomingTransfer transfer_{IncomingTransfer::Scope::oneFile};
    std::optional<IncomingFile> file_;
    std::optional<OpenTransfer> open_; // behind the file, so that the sender hears of a failure before that is closed
};

Task<ReceivedFile> receiveFile(platform::WorkQueues& queues, WireConnection& wire, TransportFramer& framer,
                               OneTransfer& transfer) {
    FrameBuffer buffer;
    for (;;) {
        co_await wire.receiveFrame(buffer);
        const FrameView frame = co_await framer.decodeInPlace(queues, buffer.body());
        if (const auto* data = std::get_if<MutableBytes>(&frame)) {
            co_await transfer.append(*data);
            continue;
        }
        const IncomingTransfer::Action next = transfer.take(std::get<TransportMessage>(frame));
        if (const auto* answer = std::get_if<IncomingTransfer::Answer>(&next)) {
            const TransportMessage message = co_await transfer.accept(answer->offer);
            const Bytes resume = framer.encodeJSON(message);
            co_await wire.sendLengthPrefixed(resume);
        } else if (std::holds_alternative<IncomingTransfer::Finish>(next)) {
            co_return co_await transfer.finish();
        }
        // a push token is nothing for a receive of one file
    }
}

/// The whole receive, on its own queue.
Task<ReceivedFile> receiveOnQueue(platform::System& system, ReceiveRequest request, Executor queue) {
    ReceiveProgress unwatched;
    ReceiveProgress& progress = request.progress != nullptr ? *request.progress : unwatched;

    system.files.createDirectories(request.downloadsDir);
    std::unique_ptr<platform::Listener> listener =
        request.listener ? std::move(request.listener) : startListener(system.network, request.port, queue);
    progress.onListening(listener->port());
    std::unique_ptr<platform::Stream> connection =
        co_await acceptOneConnection(system.clock, std::move(listener), queue, request.acceptTimeout);
    WireConnection wire(std::move(connection), system.clock);
    progress.onConnected(wire.remoteEndpoint());

    TransportFramer framer = co_await authenticateInTime(wire, request, system.clock, queue);
    progress.onHandshakeComplete();
    OneTransfer transfer(system, request, progress, wire);
    co_return co_await receiveFile(system.queues, wire, framer, transfer);
}

} // namespace

void ReceiveProgress::onListening(std::uint16_t) {}
void ReceiveProgress::onConnected(const std::string&) {}
void ReceiveProgress::onHandshakeComplete() {}
void ReceiveProgress::onOffer(const TransportMessage::FileOffer&, ByteOffset) {}
void ReceiveProgress::onAlreadyHere(const TransportMessage::FileOffer&, const platform::Path&) {}
void ReceiveProgress::onProgress(std::int64_t, std::int64_t) {}

Task<ReceivedFile> receiveOneTransfer(platform::System& system, ReceiveRequest request) {
    const Executor queue = system.queues.makeSerialQueue("orlinth.receive");
    Task<ReceivedFile> receive = receiveOnQueue(system, std::move(request), queue);
    co_return co_await platform::runOn(queue, std::move(receive));
}

} // namespace orlinth
