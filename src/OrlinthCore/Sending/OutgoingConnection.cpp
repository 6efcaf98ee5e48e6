#include "OrlinthCore/Sending/OutgoingConnection.h"

#include "OrlinthCore/Sending/SendError.h"
#include "base/OneShot.h"
#include "platform/Cancelled.h"
#include "platform/ConnectFailure.h"
#include "platform/Deadline.h"
#include "platform/SystemError.h"

#include <optional>
#include <utility>

namespace orlinth {
namespace {

/// Between a try that failed and the next one under the same deadline.
constexpr Seconds pauseBetweenTries = 500ms;

/// Connection or error, whichever of connecting and the deadline comes first.
using SendOnceContinuation = OneShot<std::unique_ptr<platform::Stream>>;

SendError::Reason reasonOf(const std::exception& error) {
    using platform::ConnectFailure;
    const auto* systemError = dynamic_cast<const platform::SystemError*>(&error);
    switch (systemError != nullptr ? platform::connectFailureOf(systemError->code()) : ConnectFailure::other) {
    case ConnectFailure::timedOut:
        return SendError::Reason::timedOut;
    case ConnectFailure::refused:
        return SendError::Reason::refused;
    case ConnectFailure::hostUnreachable:
        return SendError::Reason::hostUnreachable;
    case ConnectFailure::networkUnreachable:
        return SendError::Reason::networkUnreachable;
    case ConnectFailure::unknownName:
        return SendError::Reason::unknownName;
    case ConnectFailure::other:
        break;
    }
    return SendError::Reason::other;
}

/// Whether a failure for this reason may be over in a moment, so that it is worth waiting for.
bool mayPass(SendError::Reason reason, WhenRefused whenRefused) {
    switch (reason) {
    case SendError::Reason::hostUnreachable:
    case SendError::Reason::networkUnreachable:
    case SendError::Reason::unknownName: // as of a sleeping phone, which does not answer for its name either
        return true;
    case SendError::Reason::refused:
        return whenRefused == WhenRefused::tryAgain;
    default:
        return false;
    }
}

/// What became of one try: a connection, or why there is none.
struct Try {
    std::unique_ptr<platform::Stream> stream;
    std::optional<SendError> failure;
};

/// Only cancellation is thrown.
Task<Try> tryToConnect(platform::Network& network, std::string host, std::uint16_t port, Executor queue) {
    try {
        std::unique_ptr<platform::Stream> stream = co_await network.connect(std::move(host), port, std::move(queue));
        co_return Try{std::move(stream), std::nullopt};
    } catch (const std::exception& error) {
        co_return Try{nullptr, SendError::network(platform::textOfFailure(error), reasonOf(error))};
    }
}

/// Tries until there is a connection or a failure that does not pass by waiting. Whoever calls sets the deadline, and
/// finds in `lastFailure`, which outlives the call, what was waited for.
Task<std::unique_ptr<platform::Stream>> connectReady(platform::Network& network, platform::Clock& clock,
                                                     std::string host, std::uint16_t port, Executor queue,
                                                     WhenRefused whenRefused, bool hasDeadline,
                                                     std::optional<SendError>& lastFailure) {
    for (;;) {
        Try next = co_await tryToConnect(network, host, port, queue);
        if (next.stream) {
            co_return std::move(next.stream);
        }
        if (!hasDeadline || !mayPass(next.failure->reason(), whenRefused)) {
            throw SendError(*next.failure);
        }
        lastFailure = std::move(next.failure);
        co_await clock.sleep(pauseBetweenTries);
    }
}

} // namespace

Task<std::unique_ptr<platform::Stream>> openConnection(platform::Network& network, platform::Clock& clock,
                                                       std::string host, std::uint16_t port, Executor queue,
                                                       Seconds timeout, WhenRefused whenRefused) {
    if (port == 0) {
        throw SendError::network("invalid port " + std::to_string(port));
    }
    SendOnceContinuation continuation;
    std::optional<SendError> lastFailure;
    Task<std::unique_ptr<platform::Stream>> ready =
        connectReady(network, clock, std::move(host), port, std::move(queue), whenRefused, timeout > 0s, lastFailure);
    const auto timedOut = std::make_exception_ptr(SendError::network("connect timed out", SendError::Reason::timedOut));
    co_await platform::settleFirst(continuation, clock, timeout, timedOut, std::move(ready));
    try {
        co_return continuation.take();
    } catch (const SendError& error) {
        if (error.reason() == SendError::Reason::timedOut && lastFailure) {
            throw SendError::network(error.detail(), error.reason(), std::make_exception_ptr(*lastFailure));
        }
        throw;
    }
}

} // namespace orlinth
