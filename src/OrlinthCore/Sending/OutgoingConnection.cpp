#include "OrlinthCore/Sending/OutgoingConnection.h"

#include "OrlinthCore/Sending/SendError.h"
#include "base/OneShot.h"
#include "platform/Cancelled.h"
#include "platform/Deadline.h"

namespace orlinth {
namespace {

/// Connection or error, whichever of connecting and the deadline comes first.
using SendOnceContinuation = OneShot<std::unique_ptr<platform::Stream>>;

Task<std::unique_ptr<platform::Stream>> connectReady(platform::Network& network, std::string host, std::uint16_t port,
                                                     Executor queue) {
    try {
        co_return co_await network.connect(std::move(host), port, std::move(queue));
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        throw SendError::network(describe(error));
    }
}

} // namespace

Task<std::unique_ptr<platform::Stream>> openConnection(platform::System& system, std::string host, std::uint16_t port,
                                                       Executor queue, double timeout) {
    if (port == 0) {
        throw SendError::network("invalid port " + std::to_string(port));
    }
    SendOnceContinuation continuation;
    Task<std::unique_ptr<platform::Stream>> ready =
        connectReady(system.network, std::move(host), port, std::move(queue));
    const auto timedOut = std::make_exception_ptr(SendError::network("connect timed out"));
    co_await platform::settleFirst(continuation, system.clock, timeout, timedOut, std::move(ready));
    co_return continuation.take();
}

} // namespace orlinth
