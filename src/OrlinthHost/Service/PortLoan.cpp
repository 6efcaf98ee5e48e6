#include "OrlinthHost/Service/PortLoan.h"

#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Service/ControlLine.h"
#include "OrlinthHost/Service/ControlMessage.h"
#include "platform/Cancelled.h"
#include "platform/SystemError.h"

#include <asio/this_coro.hpp>

#include <optional>
#include <utility>

namespace orlinth::host {

namespace {

/// Between two attempts to open the port again.
constexpr Seconds retryInterval = 1s;

/// Until the other end closes; what it says meanwhile means nothing.
Task<> untilItEnds(platform::Stream& stream) {
    std::byte ignored{};
    std::size_t count = 1;
    while (count != 0) {
        count = co_await stream.readExact(MutableBytes(&ignored, 1));
    }
}

} // namespace

Task<> PortLoan::lend(platform::Stream& stream, std::uint16_t number) {
    std::optional<std::string> problem;
    try {
        co_await handOver(stream, number);
        co_await untilItEnds(stream);
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw; // the service ends, and the port with it
        }
        problem = describe(error);
    }
    if (problem) {
        try {
            co_await sendControlLine(stream, home_.system.clock, encodeControlReply(ErrorReply{*problem}));
        } catch (const platform::SystemError&) {
            // the borrower is gone, which is how most loans end that do not end well
        } catch (const HostError&) {
            // or does not read
        }
    }
    co_await giveBack();
}

Task<std::unique_ptr<platform::Listener>> PortLoan::take(std::uint16_t number) {
    set(true);
    co_await receiver_.stepAside();
    const Executor executor = co_await asio::this_coro::executor;
    std::unique_ptr<platform::Listener> port =
        port_.listenForPairing({.port = number, .keepAlive = std::nullopt}, executor);
    isLentReported_ = true;
    events_.portLent();
    co_return port;
}

Task<> PortLoan::giveBack() {
    co_await takeBack();
    set(false);
    if (std::exchange(isLentReported_, false)) {
        events_.portReturned();
    }
}

void PortLoan::set(bool isLent, std::string problem) {
    lent_ = isLent;
    problem_ = std::move(problem);
    if (onChanged) {
        onChanged();
    }
}

Task<> PortLoan::handOver(platform::Stream& stream, std::uint16_t number) {
    const std::unique_ptr<platform::Listener> port = co_await take(number);
    co_await sendControlLine(stream, home_.system.clock, encodeControlReply(PortReply{number}));
    co_await home_.system.unixSockets.sendPort(stream, *port);
}

/// Until it has worked. The port may be in use for a moment, by whoever has borrowed it.
Task<> PortLoan::takeBack() {
    bool isReported = false;
    for (;;) {
        std::string problem;
        try {
            co_await receiver_.comeBack();
            co_return;
        } catch (const Receiver::Error& error) {
            problem = error.description();
        }
        if (!isReported) {
            isReported = true;
            set(true, problem);
            events_.portMissing(problem);
        }
        co_await home_.system.clock.sleep(retryInterval);
    }
}

} // namespace orlinth::host
