#include "OrlinthCore/Sending/ClipboardSender.h"

#include "OrlinthCore/Sending/PhoneConnection.h"
#include "base/Text.h"
#include "platform/Cancelled.h"
#include "platform/Spawn.h"
#include "platform/TimeLimit.h"

#include <optional>
#include <utility>

namespace orlinth {
namespace {

/// How the sender of one message connects: a single attempt after the wake, which lasts as long as it may, since the
/// phone's port opens only some time after the phone is up; and a line in the log for each step.
ConnectRequest connectRequest(platform::System& system, const OneOffRequest& request, const Executor& queue) {
    const auto attemptOnce = [&system, peer = request.peer, queue, timeout = request.postWakeConnectTimeout] {
        return connectOnce(system.network, system.clock, peer, queue, timeout, WhenRefused::tryAgain);
    };
    ClipLog clipLog(system.log);
    const auto yesOrNo = [](bool value) { return std::string(value ? "true" : "false"); };
    return {.peer = request.peer,
            .queue = queue,
            .warmConnectTimeout = request.warmConnectTimeout,
            .connectAfterWake = attemptOnce,
            .fcmBaseURL = request.fcmBaseURL,
            .mayWake = request.mayWake,
            .onWarmFailure =
                [clipLog, onUnreached = request.onUnreached](const std::exception& error) mutable {
                    clipLog.write("warm connect failed: " + describe(error));
                    if (onUnreached) {
                        onUnreached(error);
                    }
                },
            .onDecision =
                [clipLog, yesOrNo](bool needsWake, bool hasFcm) mutable {
                    clipLog.write("needsWake=" + yesOrNo(needsWake) + " hasFcm=" + yesOrNo(hasFcm));
                },
            .onWakeBegins = [clipLog]() mutable { clipLog.write("firing FCM wake"); },
            .onWoken = request.onWaking};
}

/// Writes the sealed message; returns whether the system has taken it. A failure is logged and no more: the phone may
/// have said Unpair and closed. `what` is what errors call the message: "text".
Task<bool> deliver(platform::Log& log, WireConnection& wire, ByteView sealed, std::string what,
                   platform::TimeLimit& limit, const OneOffRequest& request) {
    limit.begin(request.sendLimit);
    try {
        co_await wire.sendLengthPrefixed(sealed);
        limit.end();
        if (limit.hasExpired()) { // in the same moment: the connection is closed, and what the phone says is lost
            throw WireConnection::Error::eof();
        }
        if (request.onSent) {
            request.onSent();
        }
        co_return true;
    } catch (const std::exception& error) {
        if (limit.hasExpired()) {
            throw SendError::network("the phone did not take the " + what + " in " + timeInWords(request.sendLimit),
                                     SendError::Reason::stalled, std::current_exception());
        }
        limit.end();
        ClipLog(log).write("write failed, checking for Unpair: " + platform::textOfFailure(error));
        co_return false;
    }
}

/// Reads the phone's answer, if one comes. Only Unpair counts; the end of the connection is the usual one.
Task<bool> phoneRemovedUs(platform::WorkQueues& queues, WireConnection& wire, TransportFramer& framer) {
    FrameBuffer buffer;
    try {
        co_await wire.receiveFrame(buffer);
        const FrameView frame = co_await framer.decodeInPlace(queues, buffer.body());
        const auto* message = std::get_if<TransportMessage>(&frame);
        co_return message != nullptr && message->as<TransportMessage::Unpair>() != nullptr;
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        co_return false;
    }
}

Task<OneOffEnd> sendOnQueue(platform::System& system, TransportMessage message, OneOffRequest request, Executor queue) {
    // Sealing would say so too, but only after a phone had been woken for nothing.
    if (const std::size_t size = message.toJson().size() + 1; size > TransportFramer::maxPlaintextBytes) {
        throw TransportFramer::Error::plaintextTooLarge(size);
    }
    Bytes peerKey = pubkeyOf(request.peer);
    std::unique_ptr<platform::Stream> connection =
        co_await connectOrWake(system, connectRequest(system, request, queue));
    if (request.keepAlive) {
        connection->setKeepAlive(*request.keepAlive);
    }
    if (request.onConnected) {
        request.onConnected();
    }
    WireConnection wire(std::move(connection), system.clock);
    Authentication who{.staticKey = request.staticKey,
                       .prologue = request.prologue,
                       .peerKey = std::move(peerKey),
                       .limit = request.handshakeLimit};
    TransportFramer framer = co_await authenticate(wire, system.clock, queue, std::move(who));
    if (request.onHandshakeComplete) {
        request.onHandshakeComplete();
    }
    const Bytes sealed = framer.encodeJSON(message);
    platform::TimeLimit limit(system.clock, queue, [&wire] { wire.close(); });
    const std::string what = message.tag() == TransportMessage::Tag::Clipboard ? "text" : "message";
    const bool wasTaken = co_await deliver(system.log, wire, sealed, what, limit, request);
    limit.begin(request.answerLimit);
    const bool removed = co_await phoneRemovedUs(system.queues, wire, framer);
    if (removed) {
        throw SendError::peerRemoved();
    }
    if (!wasTaken) {
        co_return OneOffEnd::brokeOff;
    }
    co_return limit.hasExpired() ? OneOffEnd::silent : OneOffEnd::ended;
}

} // namespace

Task<OneOffEnd> sendOneOff(platform::System& system, TransportMessage message, OneOffRequest request) {
    const Executor queue = system.queues.makeSerialQueue("orlinth.clipboard");
    Task<OneOffEnd> send = sendOnQueue(system, std::move(message), std::move(request), queue);
    co_return co_await platform::runOn(queue, std::move(send));
}

Task<OneOffEnd> sendClipboard(platform::System& system, std::string text, std::string mime, OneOffRequest request) {
    TransportMessage message = TransportMessage::clipboard(std::move(text), std::move(mime));
    co_return co_await sendOneOff(system, std::move(message), std::move(request));
}

} // namespace orlinth
