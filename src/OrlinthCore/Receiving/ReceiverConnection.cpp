#include "OrlinthCore/Receiving/ReceiverConnection.h"

#include "OrlinthCore/Receiving/IncomingTransfer.h"
#include "OrlinthCore/Receiving/OpenTransfer.h"
#include "OrlinthCore/Receiving/SenderRecord.h"
#include "base/Precondition.h"
#include "platform/Blocking.h"
#include "platform/Cancelled.h"
#include "platform/Deadline.h"
#include "platform/SystemError.h"

#include <asio/experimental/awaitable_operators.hpp>
#include <asio/this_coro.hpp>

#include <algorithm>
#include <optional>
#include <utility>

namespace orlinth {
namespace {

/// How long a phone gets to read our last word before the connection is closed in any case.
constexpr Seconds farewellLimit = 5s;

/// Closes the connection when the handshake takes longer than it may, as a whole.
class HandshakeAlarm {
public:
    HandshakeAlarm(WireConnection& wire, const Executor& executor, const ReceiverConnectionContext& context)
        : timer_(context.clock.makeTimer(executor)) {
        if (context.handshakeEnd) {
            const Seconds left = *context.handshakeEnd - context.clock.now();
            timer_->arm(left, [this, &wire] {
                hasRung_ = true;
                wire.close();
            });
        }
    }
    HandshakeAlarm(const HandshakeAlarm&) = delete;
    HandshakeAlarm& operator=(const HandshakeAlarm&) = delete;
    ~HandshakeAlarm() = default;

    [[nodiscard]] bool hasRung() const noexcept { return hasRung_; }

private:
    bool hasRung_ = false;
    std::unique_ptr<platform::Timer> timer_; // last: its action uses the member above
};

/// Whether the other side ended the connection in good order where its next message was due.
bool isOrderlyEnd(const std::exception& error) noexcept {
    const auto* wire = dynamic_cast<const WireConnection::Error*>(&error);
    return wire != nullptr && wire->isBetweenFrames();
}

/// Nothing if it was a look.
Task<std::optional<NoiseTransport>> shakeHands(WireConnection& wire, const ReceiverConnectionContext& context) {
    const Executor executor = co_await asio::this_coro::executor;
    bool hasGreeted = false;
    const auto greet = [&context, &hasGreeted] {
        hasGreeted = true;
        context.onGreeting();
    };
    NoiseHandshake handshake(NoiseRole::responder, context.staticKey.clone(), asBytes(context.prologue));
    HandshakeAlarm alarm(wire, executor, context);
    try {
        co_await exchangeAsResponder(wire, handshake, Receiver::maxHandshakeFrame, greet);
        co_return std::move(handshake).finalize();
    } catch (const std::exception& error) {
        if (hasGreeted && isOrderlyEnd(error)) {
            co_return std::nullopt;
        }
        const std::string text = platform::textOfFailure(error);
        throw ReceiveError::noiseHandshakeFailed(alarm.hasRung() ? "not complete in time" : text);
    }
}

/// One transfer of this connection in the registry; given back when it goes, which must be after the file is closed.
class TransferClaim {
public:
    TransferClaim(ActiveTransfers& transfers, TransferId id, TransferConnectionRef self)
        : transfers_(transfers), id_(std::move(id)), self_(std::move(self)) {}
    ~TransferClaim() { transfers_.finish(id_, self_); }
    TransferClaim(const TransferClaim&) = delete;
    TransferClaim& operator=(const TransferClaim&) = delete;

    /// Takes the transfer over from whoever has it, and waits until nobody else touches it. `offeredAt` is when the
    /// offer came. @throws ReceiveError
    [[nodiscard]] Task<> take(ActiveTransfers::Moment offeredAt) {
        using Takeover = ActiveTransfers::Takeover;
        const Takeover takeover = transfers_.takeOver(id_, self_, offeredAt);
        switch (takeover.refusal) {
        case Takeover::Refusal::none:
            break;
        case Takeover::Refusal::ofAnotherPhone:
            throw ReceiveError::protocolViolation("transfer is active from another phone");
        case Takeover::Refusal::hasNewerOwner:
            throw ReceiveError::protocolViolation("transfer is active on a newer connection");
        }
        if (takeover.displaced) {
            takeover.displaced->cancel();
        }
        co_await transfers_.waitUntilDrained(id_, self_);
    }

private:
    ActiveTransfers& transfers_;
    TransferId id_;
    TransferConnectionRef self_;
};

/// The frames of one authenticated phone, up to the one that ends the connection.
class Conversation {
public:
    Conversation(const ReceiverConnectionContext& context, WireConnection& wire, NoiseTransport transport)
        : context_(context),
          wire_(wire),
          endpoint_(wire.remoteEndpoint()),
          framer_(std::move(transport)),
          sender_(context.peers, framer_.session().remoteStaticPublicKey()),
          self_(std::make_shared<const TransferConnection>(
              framer_.session().remoteStaticPublicKey().peerKey(),
              [dismiss = context.dismiss] { dismiss("taken over by a newer connection"); })),
          room_(std::make_shared<FrameRoom::Share>(context.frames, self_->peerKey())) {
        wire_.gate = room_.get();
    }
    Conversation(const Conversation&) = delete;
    Conversation& operator=(const Conversation&) = delete;
    ~Conversation() { wire_.gate = nullptr; }

    /// Nothing: there is nothing to report.
    using Result = std::optional<Receiver::ProcessOutcome>;

    [[nodiscard]] Task<Result> run() {
        place_.emplace(context_.places, context_.clock, self_->peerKey(),
                       [dismiss = context_.dismiss] { dismiss("too many connections of this phone"); });
        welcome();
        FrameBuffer buffer;
        for (;;) {
            const bool hasMore = co_await receiveFrame(buffer);
            if (!hasMore) {
                co_return std::nullopt;
            }
            place_->heard();
            context_.onHeard();
            FrameView frame = co_await framer_.decodeInPlace(context_.queues, buffer.body());
            if (const auto* data = std::get_if<MutableBytes>(&frame)) {
                transfer_.takeData(static_cast<std::int64_t>(data->size()));
                co_await context_.downloads.append(*file_, *data);
                tellProgress();
                giveBack(buffer);
                continue;
            }
            const TransportMessage message = std::move(std::get<TransportMessage>(frame));
            if (message.tag() != TransportMessage::Tag::Clipboard) {
                requireShort(buffer.body().size());
                giveBack(buffer);
            }
            std::optional<Result> result = co_await take(message);
            if (result) {
                co_return std::move(*result);
            }
        }
    }

    /// Sends one last message and closes once the phone has read it.
    [[nodiscard]] Task<> sayFarewell(TransportMessage message) {
        const Bytes body = framer_.encodeJSON(message);
        co_await wire_.sendLengthPrefixed(body);
        static_cast<void>(co_await wire_.closeAfterFarewell(farewellLimit)); // whatever it does, it was told
    }

    /// Leaves what has not been finished for a resume; nothing happens here afterwards. The disk is waited for, but not
    /// on this thread.
    [[nodiscard]] Task<> leave() {
        open_.reset(); // the sender need not wait for the disk to hear of a failure
        if (file_) {
            co_await context_.downloads.close(*file_);
            file_.reset();
        }
        claim_.reset();
    }

private:
    using Row = TransportMessage;

    /// Tells of the phone that has come. Where it came from says nothing of where it can be reached: that may be the
    /// address of a router.
    void welcome() {
        std::optional<PeerRecord> record;
        try {
            record = sender_.find();
        } catch (const PeerStoreError&) {
            context_.onTrouble(std::current_exception());
        }
        if (record) {
            name_ = record->peer_hostname;
        }
        context_.onHeard();
        context_.onAuthenticated(
            record); // before anything that may be told of the phone, which has a name from here on
    }

    /// Only texts are long. What other messages say is kept while they are worked on, which is beyond the room for
    /// frames. @throws ReceiveError::protocolViolation
    static void requireShort(std::size_t frameBytes) {
        if (frameBytes > static_cast<std::size_t>(limits::freeFrameBytes)) {
            throw ReceiveError::protocolViolation("message of " + std::to_string(frameBytes) + " bytes");
        }
    }

    /// The frame was used. While a file comes in, the memory of the next one stays, if it is one of the usual size.
    void giveBack(FrameBuffer& buffer) noexcept {
        const std::int64_t kept = file_ ? limits::dataFrameBytes : limits::freeFrameBytes;
        if (static_cast<std::int64_t>(buffer.bodyCapacity()) > kept) {
            buffer = FrameBuffer();
        }
        room_->release();
    }

    /// False if the phone has hung up in good order and had come for nothing but its token.
    [[nodiscard]] Task<bool> receiveFrame(FrameBuffer& buffer) {
        try {
            co_await wire_.receiveFrame(buffer);
        } catch (const WireConnection::Error& error) {
            if (error.which() == WireConnection::Error::Case::eof) {
                context_.onHeard();
            }
            const bool isEnd = transfer_.mayHangUp() && error.isBetweenFrames();
            if (!isEnd) {
                throw;
            }
            co_return false;
        }
        co_return true;
    }

    /// What the message comes to; nothing if the conversation goes on.
    [[nodiscard]] Task<std::optional<Result>> take(const TransportMessage& message) {
        const bool isRemoved = !file_ && isRemovedMeanwhile();
        if (isRemoved) {
            co_await sayFarewell(TransportMessage::unpair());
            co_return Receiver::UnpairReplied{.peerKey = self_->peerKey(), .remoteEndpoint = endpoint_};
        }
        const IncomingTransfer::Action next = transfer_.take(message);
        if (const auto* answer = std::get_if<IncomingTransfer::Answer>(&next)) {
            co_return co_await takeOffer(answer->offer);
        }
        if (std::holds_alternative<IncomingTransfer::Finish>(next)) {
            Result result = co_await finishFile();
            co_return std::optional<Result>(std::in_place, std::move(result));
        }
        if (const auto* update = std::get_if<IncomingTransfer::Update>(&next)) {
            co_await changeRecord([&] { say({.token = update->token.peer_fcm_token}); });
            co_return std::nullopt;
        }
        Result result = co_await end(message);
        co_return std::optional<Result>(std::in_place, std::move(result));
    }

    /// It may have been here for long. @throws ReceiveError::unauthorizedPeer if nobody knows it any more
    [[nodiscard]] bool isRemovedMeanwhile() const {
        using Standing = ReceiverConnectionContext::Standing;
        const Standing standing = context_.standingOf(framer_.session().remoteStaticPublicKey());
        if (standing == Standing::unknown) {
            throw ReceiveError::unauthorizedPeer();
        }
        return standing == Standing::removed;
    }

    [[nodiscard]] Task<std::optional<Result>> takeOffer(Row::FileOffer offer) {
        Downloads::requireSensible(offer); // the id is a key of what all connections share
        open_.emplace(wire_);
        const platform::Clock::Instant offerTime = context_.clock.now();
        const ActiveTransfers::Moment offeredAt = ActiveTransfers::shared().now();
        if (context_.cancelled.contains(self_->peerKey(), TransferId(offer.transfer_id), offerTime)) {
            co_return co_await decline(offer, std::nullopt);
        }
        using Approval = Receiver::Reception::Approval;
        const Receiver::Reception reception = context_.receptionOf(self_->peerKey());
        bool mustBeHere = false;
        if (reception.approval != Approval::given) {
            const Downloads::Prospect prospect =
                co_await context_.downloads.prospectOf(self_->peerKey(), offer, reception.place);
            mustBeHere = prospect.isDelivered; // nobody is asked twice about the same file
            bool isWanted = mustBeHere;
            if (!mustBeHere && !prospect.refusal && reception.approval == Approval::asked) {
                isWanted = co_await isApproved(offer);
            }
            if (!isWanted) {
                co_return co_await decline(offer, prospect.refusal);
            }
        }
        claim_.emplace(ActiveTransfers::shared(), TransferId(offer.transfer_id), self_);
        co_await claim_->take(offeredAt);
        Downloads::Beginning beginning =
            co_await context_.downloads.beginUnlessRefused(self_->peerKey(), offer, offerTime, reception.place);
        if (beginning.refusal) {
            co_return co_await decline(offer, beginning.refusal);
        }
        file_.emplace(std::move(*beginning.file));
        if (mustBeHere && file_->delivered() == nullptr) {
            throw ReceiveError::fileNotTaken("the file that was delivered has changed just now");
        }
        transfer_.accept(file_->resumeOffset(), approvedSize_); // what is here may be of a larger offer
        place_->beginTransfer();
        room_->beginTransfer();
        if (file_->delivered() == nullptr) {
            tellStart(offer);
        }
        const Bytes resume = framer_.encodeJSON(file_->resumeMessage());
        co_await wire_.sendLengthPrefixed(resume);
        co_return std::nullopt;
    }

    void tellStart(const Row::FileOffer& offer) {
        toldAt_ = context_.clock.now();
        context_.onTransferStarted({.name = offer.name,
                                    .size = offer.size,
                                    .resumedFrom = file_->resumeOffset().bytesBefore(),
                                    .from = name_,
                                    .peerKey = self_->peerKey(),
                                    .transferId = TransferId(offer.transfer_id)});
    }

    void tellProgress() {
        const platform::Clock::Instant now = context_.clock.now();
        if (now - toldAt_ >= Receiver::progressInterval) {
            toldAt_ = now;
            context_.onTransferProgress(file_->bytesWritten());
        }
    }

    [[nodiscard]] Task<std::optional<Result>> decline(Row::FileOffer offer, std::optional<DownloadRefusal> refusal) {
        transfer_.refuse();
        open_->settle();
        co_await sayFarewell(Row::decline());
        co_return Receiver::Declined{
            .from = name_, .name = offer.name, .refusal = refusal, .peerKey = self_->peerKey()};
    }

    [[nodiscard]] Task<bool> isApproved(Row::FileOffer offer) {
        approvedSize_ = std::max<std::int64_t>(offer.size, 0);
        co_return co_await ask({.name = offer.name,
                                .size = offer.size,
                                .from = name_,
                                .peerKey = self_->peerKey(),
                                .transferId = TransferId(offer.transfer_id)});
    }

    /// The host's answer. A phone that has hung up, or is gone, is not asked about any longer.
    [[nodiscard]] Task<bool> ask(Receiver::Offer offer) {
        using namespace asio::experimental::awaitable_operators;
        OneShot<bool> answer;
        Task<> asking = platform::settle(answer, context_.approveOffer(std::move(offer)));
        Task<> watching = watchPhone(answer);
        co_await (std::move(asking) || std::move(watching));
        co_return answer.take();
    }

    [[nodiscard]] Task<> watchPhone(OneShot<bool>& answer) {
        std::exception_ptr reason = std::make_exception_ptr(WireConnection::Error::eof());
        try {
            co_await wire_.untilEnded();
        } catch (const platform::SystemError&) {
            reason = std::current_exception(); // nobody would notice that the phone has gone
        }
        answer.fail(reason);
    }

    [[nodiscard]] Task<Result> end(const TransportMessage& message) {
        using Tag = TransportMessage::Tag;
        switch (message.tag()) {
        case Tag::Clipboard: {
            const auto* clip = message.as<Row::Clipboard>();
            context_.keepUntilTold(room_); // texts must not pile up where they are told of
            co_return Receiver::Clipboard{
                .text = clip->text, .mime = clip->mime, .from = sender_.displayName(), .peerKey = self_->peerKey()};
        }
        case Tag::SetName:
            co_return co_await rename<Receiver::SetName>(message.as<Row::SetName>()->name);
        case Tag::NameUpdate:
            co_return co_await rename<Receiver::NameUpdate>(message.as<Row::NameUpdate>()->name);
        case Tag::Unpair: {
            Receiver::Unpair outcome{.from = sender_.displayName(), .peerKey = self_->peerKey(), .isForgotten = false};
            co_await changeRecord([&] {
                context_.updates.forget(framer_.session().remoteStaticPublicKey());
                sender_.remove();
                outcome.isForgotten = true;
            });
            co_return outcome;
        }
        case Tag::Decline:
            co_return Receiver::Declined{.from = sender_.displayName(), .name = {}, .peerKey = self_->peerKey()};
        case Tag::FileOffer:
        case Tag::Done:
        case Tag::TokenUpdate:
        case Tag::Resume:
            break;
        }
        preconditionFailed("a conversation cannot end with this message"); // see IncomingTransfer::Conclude
    }

    [[nodiscard]] Task<Result> finishFile() {
        const DeliveredTransfers::Delivery* const delivery = file_->delivered();
        const bool wasReported = delivery != nullptr && delivery->isSettled;
        ReceivedFile received = co_await context_.downloads.finish(*file_, wire_.remoteEndpoint());
        open_->settle();
        file_.reset();
        claim_.reset();
        if (wasReported) {
            co_return std::nullopt;
        }
        co_return Receiver::File{.file = std::move(received), .from = name_, .peerKey = self_->peerKey()};
    }

    template <typename Outcome>
    [[nodiscard]] Task<Receiver::ProcessOutcome> rename(const std::string& name) {
        Outcome outcome{.name = name, .from = sender_.displayName(), .isTakenOver = false, .peerKey = self_->peerKey()};
        co_await changeRecord([&] {
            const std::optional<std::string> called = sender_.nameHere(name);
            say({.name = name});
            outcome.isTakenOver = called.has_value();
            outcome.calledHere = called.value_or("");
        });
        co_return outcome;
    }

    void say(RecordChange change) {
        context_.updates.say(framer_.session().remoteStaticPublicKey(), std::move(change), context_.onTrouble);
    }

    /// Where it may block. A record that cannot be changed is told of, and costs nobody the file that comes next, or
    /// what has been said. What `change` refers to outlives the task.
    template <typename Change>
    [[nodiscard]] Task<> changeRecord(Change change) {
        try {
            co_await platform::blocking(context_.queues, std::move(change));
        } catch (const PeerStoreError&) {
            context_.onTrouble(std::current_exception());
        }
    }

    const ReceiverConnectionContext& context_;
    WireConnection& wire_;
    std::string endpoint_;
    std::string name_ = Receiver::unknownPeer; ///< what it was called when it came; of that its file is said to be
    TransportFramer framer_;
    SenderRecord sender_;
    TransferConnectionRef self_;
    std::shared_ptr<FrameRoom::Share> room_; ///< a text's is still held when the connection has ended
    std::optional<PhonePlaces::Claim> place_;
    IncomingTransfer transfer_{IncomingTransfer::Scope::everything};
    platform::Clock::Instant toldAt_{};        ///< of its progress, or its start
    std::optional<std::int64_t> approvedSize_; ///< of an offer that somebody was asked about
    std::optional<TransferClaim> claim_;
    std::optional<IncomingFile> file_; // behind the claim, so that it is closed before that is given back
    std::optional<OpenTransfer> open_; // behind both: the sender need not wait for the disk to hear of a failure
};

} // namespace

Task<std::optional<Receiver::ProcessOutcome>> processConnection(const ReceiverConnectionContext& context,
                                                                std::unique_ptr<platform::Stream> stream) {
    using Standing = ReceiverConnectionContext::Standing;
    const std::string endpoint = stream->remoteEndpoint();
    WireConnection wire(std::move(stream), context.clock);
    wire.idleTimeout = Receiver::idleTimeout;
    std::optional<NoiseTransport> transport = co_await shakeHands(wire, context);
    if (!transport) {
        context.onLook();
        co_return std::nullopt;
    }
    const platform::PublicKey key = transport->remoteStaticPublicKey();
    const Standing standing = context.standingOf(key);
    if (standing == Standing::unknown) {
        throw ReceiveError::unauthorizedPeer();
    }
    Conversation conversation(context, wire, std::move(*transport));
    if (standing == Standing::removed) {
        co_await conversation.sayFarewell(TransportMessage::unpair());
        co_return Receiver::UnpairReplied{.peerKey = key.peerKey(), .remoteEndpoint = endpoint};
    }
    std::exception_ptr failure;
    std::optional<Receiver::ProcessOutcome> outcome;
    try {
        outcome = co_await conversation.run();
    } catch (...) {
        failure = std::current_exception();
    }
    context.onOver();
    // Once we are cancelled every further await throws, unless this is said first.
    co_await asio::this_coro::reset_cancellation_state(asio::disable_cancellation());
    co_await conversation.leave();
    if (failure) {
        std::rethrow_exception(failure);
    }
    co_return outcome;
}

} // namespace orlinth
