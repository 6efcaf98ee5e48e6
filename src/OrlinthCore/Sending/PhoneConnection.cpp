#include "OrlinthCore/Sending/PhoneConnection.h"

#include "OrlinthCore/Sending/FcmWake.h"
#include "OrlinthCore/Sending/SendError.h"
#include "base/Base64.h"
#include "base/ConstantTime.h"
#include "base/Precondition.h"
#include "base/Text.h"
#include "platform/Cancelled.h"
#include "platform/TimeLimit.h"

#include <limits>
#include <utility>

namespace orlinth {
namespace {

/// What a phone gets between the push and the first attempt to reach it.
constexpr Seconds pauseAfterPush = 500ms;

std::uint16_t portOf(const PeerRecord& peer) {
    if (!std::in_range<std::uint16_t>(peer.peer_port)) {
        preconditionFailed("peer_port is outside 0 to 65535");
    }
    return static_cast<std::uint16_t>(peer.peer_port);
}

/// Whether a failed attempt to connect looks like a phone that sleeps.
bool looksAsleep(const std::exception& error) {
    const auto* sendError = dynamic_cast<const SendError*>(&error);
    return sendError != nullptr &&
           (sendError->reason() == SendError::Reason::timedOut || sendError->reason() == SendError::Reason::refused);
}

void checkInterval(Seconds interval) {
    constexpr Seconds longest(9.2e9);                           // in whole nanoseconds it has to fit a 64-bit counter
    const bool isValid = interval >= 0s && interval <= longest; // which what is not a number is not
    if (!isValid) {
        preconditionFailed("the retry interval is negative, not finite or out of range");
    }
}

Task<> pushTo(platform::System& system, std::string fcmBaseURL, std::string token) {
    try {
        FcmWake wake({.files = system.files, .clock = system.clock, .https = system.https, .queues = system.queues},
                     FcmWake::defaultServiceAccountURL(system.directories), std::move(fcmBaseURL));
        co_await wake.sendWake(std::move(token));
    } catch (const std::exception& error) {
        throw SendError::network("FCM wake failed: " + platform::textOfFailure(error), SendError::Reason::pushFailed,
                                 std::current_exception());
    }
}

/// What became of one attempt to connect: a connection, or the error that it failed with.
struct ConnectResult {
    std::unique_ptr<platform::Stream> stream;
    std::exception_ptr error;
};

/// Tries once; only cancellation is thrown.
Task<ConnectResult> tryToConnect(Task<std::unique_ptr<platform::Stream>> connecting) {
    try {
        std::unique_ptr<platform::Stream> stream = co_await std::move(connecting);
        co_return ConnectResult{std::move(stream), nullptr};
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        co_return ConnectResult{nullptr, std::current_exception()};
    }
}

/// Decides whether the failed first attempt is worth a push; rethrows its error if not.
void decideOnWake(const ConnectRequest& request, const std::exception_ptr& warmError) {
    try {
        std::rethrow_exception(warmError);
    } catch (const std::exception& error) {
        if (request.onWarmFailure) {
            request.onWarmFailure(error);
        }
        const bool needsWake = looksAsleep(error);
        const bool hasFcm = request.mayWake && !request.peer.peer_fcm_token.empty();
        if (request.onDecision) {
            request.onDecision(needsWake, hasFcm);
        }
        if (!needsWake || !hasFcm) {
            throw;
        }
    }
}

} // namespace

Task<std::unique_ptr<platform::Stream>> connectOrWake(platform::System& system, ConnectRequest request) {
    Task<std::unique_ptr<platform::Stream>> warm =
        connectOnce(system.network, system.clock, request.peer, request.queue, request.warmConnectTimeout);
    ConnectResult first = co_await tryToConnect(std::move(warm));
    if (first.stream) {
        co_return std::move(first.stream);
    }
    decideOnWake(request, first.error);
    if (request.onWakeBegins) {
        request.onWakeBegins();
    }
    co_await pushTo(system, request.fcmBaseURL, request.peer.peer_fcm_token);
    if (request.onWoken) {
        request.onWoken();
    }
    co_await system.clock.sleep(pauseAfterPush);
    co_return co_await request.connectAfterWake();
}

Task<std::unique_ptr<platform::Stream>> connectWithin(platform::Network& network, platform::Clock& clock,
                                                      PeerRecord peer, Executor queue, Seconds window,
                                                      Seconds attemptTimeout, Seconds retryInterval) {
    checkInterval(retryInterval);
    const platform::Clock::Instant end = clock.now() + window;
    std::exception_ptr lastError =
        std::make_exception_ptr(SendError::network("connect timed out after wake", SendError::Reason::timedOut));
    while (clock.now() < end) {
        Task<std::unique_ptr<platform::Stream>> connecting = connectOnce(network, clock, peer, queue, attemptTimeout);
        ConnectResult next = co_await tryToConnect(std::move(connecting));
        if (next.stream) {
            co_return std::move(next.stream);
        }
        lastError = next.error;
        co_await clock.sleep(retryInterval);
    }
    std::rethrow_exception(lastError);
}

Task<std::unique_ptr<platform::Stream>> connectOnce(platform::Network& network, platform::Clock& clock, PeerRecord peer,
                                                    Executor queue, Seconds timeout, WhenRefused whenRefused) {
    co_return co_await openConnection(network, clock, peer.peer_ip, portOf(peer), std::move(queue), timeout,
                                      whenRefused);
}

Bytes pubkeyOf(const PeerRecord& peer) {
    std::optional<Bytes> pubkey = base64Decode(peer.peer_pubkey.text());
    if (!pubkey) {
        throw SendError::unauthorizedPeer();
    }
    return std::move(*pubkey);
}

Task<TransportFramer> authenticate(WireConnection& wire, platform::Clock& clock, Executor queue, Authentication who) {
    NoiseHandshake handshake(NoiseRole::initiator, who.staticKey.clone(), asBytes(who.prologue));
    platform::TimeLimit limit(clock, queue, [&wire] { wire.close(); });
    limit.begin(who.limit);
    try {
        co_await exchangeAsInitiator(wire, handshake);
    } catch (const std::exception& error) {
        throw SendError::noiseHandshakeFailed(limit.hasExpired() ? "timed out after " + timeInWords(who.limit)
                                                                 : platform::textOfFailure(error));
    }
    NoiseTransport transport = std::move(handshake).finalize();
    if (!constantTimeEquals(transport.remoteStaticPublicKey().raw(), who.peerKey)) {
        throw SendError::unauthorizedPeer();
    }
    co_return TransportFramer(std::move(transport));
}

} // namespace orlinth
