#include "OrlinthCore/Sending/SendTransfer.h"

#include "OrlinthCore/SecureChannel/TransportFrame.h"
#include "OrlinthCore/Sending/PhoneConnection.h"
#include "base/Text.h"
#include "platform/Spawn.h"
#include "platform/TimeLimit.h"

#include <utility>

namespace orlinth {
namespace {

/// Bytes of the file in one frame.
constexpr std::size_t chunkBytes = 1'048'576;
static_assert(chunkBytes + 1 <= TransportFramer::maxPlaintextBytes);
static_assert(chunkBytes + TransportFramer::overheadBytes <= WireConnection::maxFrameBytes);

/// How the sender of a file connects: attempts until a window has passed after the wake.
ConnectRequest connectRequest(platform::System& system, const SendTerms& terms, const Executor& queue,
                              SendProgress& progress) {
    const auto attemptInWindow = [&system, &terms, queue] {
        return connectWithin(system.network, system.clock, terms.peer, queue, terms.postWakeConnectTimeout,
                             terms.postWakeAttemptTimeout, terms.postWakeRetryInterval);
    };
    return {.peer = terms.peer,
            .queue = queue,
            .warmConnectTimeout = terms.warmConnectTimeout,
            .connectAfterWake = attemptInWindow,
            .fcmBaseURL = terms.fcmBaseURL,
            .mayWake = terms.mayWake,
            .onWarmFailure = [&progress](const std::exception& error) { progress.onUnreached(error); },
            .onWoken = [&progress] { progress.onWaking(); }};
}

/// The offset in the phone's answer to the offer.
ByteOffset acceptedOffset(const FrameView& answer, const TransferId& transferId, std::int64_t size) {
    if (const auto* message = std::get_if<TransportMessage>(&answer)) {
        if (const auto* resume = message->as<TransportMessage::Resume>()) {
            if (resume->transfer_id.size() > TransportMessage::maxTransferIdBytes) {
                throw SendError::malformedResume("transfer_id of " + std::to_string(resume->transfer_id.size()) +
                                                 " bytes, more than " +
                                                 std::to_string(TransportMessage::maxTransferIdBytes));
            }
            if (resume->transfer_id != transferId.text()) {
                throw SendError::malformedResume("transfer_id mismatch (got " + resume->transfer_id + ", want " +
                                                 transferId.text() + ")");
            }
            const ByteOffset offset = resume->accepted_offset;
            if (offset < ByteOffset() || offset > ByteOffset(size)) {
                throw SendError::malformedResume("accepted_offset out of range: " +
                                                 std::to_string(offset.bytesBefore()) + "/" + std::to_string(size));
            }
            return offset;
        }
        if (message->as<TransportMessage::Unpair>() != nullptr) {
            throw SendError::peerRemoved();
        }
        if (message->as<TransportMessage::Decline>() != nullptr) {
            throw SendError::declined();
        }
    }
    throw SendError::unexpectedFrame("expected Resume, got " + describeFrame(answer));
}

/// Runs a step of reading the source; a failure says what was tried.
template <typename Step>
auto readingSource(const std::string& what, Step step) {
    try {
        return step();
    } catch (const Error& error) {
        throw SendError::fileRead(what + error.description());
    }
}

std::unique_ptr<platform::File> openAt(platform::FileSystem& files, const platform::Path& path, ByteOffset offset) {
    std::unique_ptr<platform::File> file =
        readingSource("", [&] { return files.open(path, platform::OpenMode::read); });
    if (offset != ByteOffset()) {
        readingSource("seek to " + std::to_string(offset.bytesBefore()) + " failed: ", [&] { file->seek(offset); });
    }
    return file;
}

/// What a send has at hand once the phone has proved its key.
struct Conversation {
    platform::FileSystem& files;
    platform::Clock& clock;
    platform::WorkQueues& queues;
    const PreparedFile& prepared;
    const SendTerms& terms;
    SendProgress& progress;
    WireConnection& wire;
    TransportFramer& framer;
    platform::TimeLimit& silence; ///< closes the connection
};

/// Streams the file from `offset` to its end, whatever its size was when it was offered; returns how many bytes went.
///
/// A chunk is read, sealed and sent in one buffer. The next is read only when the system has taken the one before, so
/// a slow phone slows the reading down and memory stays at one chunk.
Task<std::int64_t> stream(Conversation& with, FrameBuffer& buffer, platform::File& file, ByteOffset offset) {
    std::int64_t sent = 0;
    for (;;) {
        if (with.terms.cancel && with.terms.cancel()) {
            throw SendError::cancelled();
        }
        const MutableBytes room = TransportFramer::binaryPayload(buffer, chunkBytes);
        const std::size_t count = readingSource("read failed: ", [&] { return file.read(room); });
        if (count == 0) {
            co_return sent;
        }
        with.framer.sealBinary(buffer, count);
        co_await with.wire.sendFrame(buffer);
        with.silence.begin(with.terms.silenceLimit);
        sent += static_cast<std::int64_t>(count);
        with.progress.onProgress((offset + sent).bytesBefore(), with.prepared.file.size);
    }
}

/// From the offer to Done.
Task<SentFile> offerAndStream(Conversation& with) {
    const OutgoingFile& source = with.prepared.file;
    const TransferId& id = with.prepared.transferId;
    const Bytes offer =
        with.framer.encodeJSON(TransportMessage::fileOffer(source.name, source.size, source.mime, id.text()));
    co_await with.wire.sendLengthPrefixed(offer);
    FrameBuffer buffer;
    co_await with.wire.receiveFrame(buffer);
    const FrameView answer = co_await with.framer.decodeInPlace(with.queues, buffer.body());
    const ByteOffset offset = acceptedOffset(answer, id, source.size);

    const platform::Clock::Instant start = with.clock.now();
    const std::unique_ptr<platform::File> file = openAt(with.files, with.prepared.path, offset);
    with.silence.begin(with.terms.silenceLimit);
    with.progress.onProgress(offset.bytesBefore(), source.size);
    const std::int64_t sent = co_await stream(with, buffer, *file, offset);
    const Bytes done = with.framer.encodeJSON(TransportMessage::done());
    co_await with.wire.sendLengthPrefixed(done);
    co_return SentFile{.savedPath = with.prepared.path.native(),
                       .bytesSent = (offset + sent).bytesBefore(),
                       .advertisedSize = source.size,
                       .durationSeconds = with.clock.now() - start,
                       .resumedFromOffset = offset};
}

/// The same within the limit of silence.
Task<SentFile> offerAndStreamInTime(Conversation& with) {
    with.silence.begin(with.terms.silenceLimit);
    try {
        SentFile sent = co_await offerAndStream(with);
        with.silence.end(); // the farewell has a limit of its own
        co_return sent;
    } catch (...) {
        if (with.silence.hasExpired()) {
            throw SendError::network("no progress for " + timeInWords(with.terms.silenceLimit),
                                     SendError::Reason::stalled, std::current_exception());
        }
        throw;
    }
}

/// From the connection to the farewell, on its own queue. `onEndSent` comes right behind Done.
Task<SendOutcome> sendOnQueue(platform::System& system, PreparedFile prepared, SendTerms terms, Executor queue,
                              std::function<void()> onEndSent) {
    SendProgress unwatched;
    SendProgress& progress = terms.progress != nullptr ? *terms.progress : unwatched;
    progress.onFile(prepared.file.name, prepared.file.size, prepared.file.mime);
    Bytes peerKey = pubkeyOf(terms.peer);

    std::unique_ptr<platform::Stream> connection =
        co_await connectOrWake(system, connectRequest(system, terms, queue, progress));
    if (terms.keepAlive) {
        connection->setKeepAlive(*terms.keepAlive);
    }
    progress.onConnected();

    WireConnection wire(std::move(connection), system.clock);
    Authentication who{.staticKey = terms.staticKey,
                       .prologue = terms.prologue,
                       .peerKey = std::move(peerKey),
                       .limit = terms.handshakeLimit};
    TransportFramer framer = co_await authenticate(wire, system.clock, queue, std::move(who));
    progress.onHandshakeComplete();

    platform::TimeLimit silence(system.clock, queue, [&wire] { wire.close(); });
    Conversation conversation{.files = system.files,
                              .clock = system.clock,
                              .queues = system.queues,
                              .prepared = prepared,
                              .terms = terms,
                              .progress = progress,
                              .wire = wire,
                              .framer = framer,
                              .silence = silence};
    SentFile result = co_await offerAndStreamInTime(conversation);
    if (onEndSent) {
        onEndSent();
    }
    progress.onComplete(result);
    const WireConnection::Farewell farewell = co_await wire.closeAfterFarewell(terms.farewellLimit);
    co_return SendOutcome{.sent = std::move(result), .farewell = farewell};
}

/// The whole send by a journal, on its own queue.
Task<SentFile> sendByJournal(platform::System& system, SendRequest request, Executor queue) {
    const OutgoingFile source = examineFile(system.files, system.mimeTypes, request.fileURL);
    InFlightJournal& journal = request.journal;
    TransferId id(journal.getOrCreate(source.name, source.size, source.mime, source.fingerprint));
    const auto forget = [&journal, source] {
        journal.complete(source.name, source.size, source.mime, source.fingerprint);
    };
    PreparedFile prepared{.path = std::move(request.fileURL), .file = source, .transferId = std::move(id)};
    SendOutcome outcome =
        co_await sendOnQueue(system, std::move(prepared), std::move(request.terms), std::move(queue), forget);
    co_return std::move(outcome.sent);
}

} // namespace

void SendProgress::onFile(const std::string&, std::int64_t, const std::string&) {}
void SendProgress::onUnreached(const std::exception&) {}
void SendProgress::onConnected() {}
void SendProgress::onWaking() {}
void SendProgress::onHandshakeComplete() {}
void SendProgress::onProgress(std::int64_t, std::int64_t) {}
void SendProgress::onComplete(const SentFile&) {}

Task<SentFile> sendOneFile(platform::System& system, SendRequest request) {
    const Executor queue = system.queues.makeSerialQueue("orlinth.send");
    Task<SentFile> send = sendByJournal(system, std::move(request), queue);
    co_return co_await platform::runOn(queue, std::move(send));
}

Task<SendOutcome> sendPrepared(platform::System& system, PreparedFile file, SendTerms terms) {
    const Executor queue = system.queues.makeSerialQueue("orlinth.send");
    Task<SendOutcome> send = sendOnQueue(system, std::move(file), std::move(terms), queue, {});
    co_return co_await platform::runOn(queue, std::move(send));
}

} // namespace orlinth
