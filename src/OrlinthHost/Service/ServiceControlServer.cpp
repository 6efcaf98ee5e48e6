#include "OrlinthHost/Service/ServiceControlServer.h"

#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Service/ControlLine.h"
#include "platform/Cancelled.h"
#include "platform/SystemError.h"

#include <asio/this_coro.hpp>

#include <string>
#include <utility>

namespace orlinth::host {

namespace {

/// Connections at once; whoever comes further waits.
constexpr std::size_t maxConversations = 16;
/// After the system was short of something.
constexpr Seconds restInShortage = 100ms;

} // namespace

void ServiceControlServer::start(std::uint16_t port) {
    aboutPort_.port = port;
    aboutPort_.since = home_.system.clock.epochMilliseconds();
    accepting_.add(run(), [this](const std::exception_ptr& error) {
        try {
            std::rethrow_exception(error);
        } catch (const std::exception& failure) {
            if (!platform::isCancellation(failure)) {
                events_.controlFailed(describe(failure));
            }
        }
    });
}

Task<> ServiceControlServer::finish() {
    accepting_.cancelAll();
    co_await accepting_.join();
}

/// Ends by an exception only.
Task<> ServiceControlServer::run() {
    const Executor executor = co_await asio::this_coro::executor;
    std::unique_ptr<platform::Listener> listener = home_.system.unixSockets.listen(controlSocket(home_), executor);
    std::exception_ptr failure;
    try {
        co_await acceptAll(*listener);
    } catch (...) {
        failure = std::current_exception();
    }
    listener.reset();
    co_await asio::this_coro::reset_cancellation_state(asio::disable_cancellation());
    conversations_.cancelAll();
    co_await conversations_.join(); // they refer to this object
    std::rethrow_exception(failure);
}

Task<> ServiceControlServer::acceptAll(platform::Listener& listener) {
    const Executor executor = co_await asio::this_coro::executor;
    for (;;) {
        Seconds rest{0};
        try {
            std::unique_ptr<platform::Stream> stream = co_await listener.accept(executor);
            begin(std::move(stream));
        } catch (const platform::SystemError& error) {
            if (!platform::isShortage(error.code())) {
                throw;
            }
            rest = restInShortage; // that passes
        }
        if (rest > 0s) {
            co_await home_.system.clock.sleep(rest);
        }
        co_await conversations_.untilFewerThan(maxConversations);
    }
}

void ServiceControlServer::begin(std::unique_ptr<platform::Stream> stream) {
    conversations_.add(answer(std::move(stream)), [this](const std::exception_ptr& error) {
        if (error && !loan_.isLent()) {
            // somebody went away in the middle of a sentence, or we are ending: nobody to tell
            home_.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "control", describe(error));
        }
    });
}

Task<> ServiceControlServer::answer(std::unique_ptr<platform::Stream> stream) {
    ControlReply reply;
    bool isForLoan = false;
    try {
        ControlRequest request = co_await receiveRequest(*stream);
        isForLoan = isToBeLent(request);
        if (!isForLoan) {
            reply = co_await replyTo(std::move(request));
        }
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        reply = ErrorReply{describe(error)};
    }
    if (isForLoan) {
        co_await loan_.lend(*stream, aboutPort_.port);
    } else {
        co_await sendControlLine(*stream, home_.system.clock, encodeControlReply(reply));
    }
}

Task<ControlRequest> ServiceControlServer::receiveRequest(platform::Stream& stream) {
    const std::string line = co_await readControlLine(stream, home_.system.clock, controlLineLimit);
    co_return decodeControlRequest(line);
}

bool ServiceControlServer::isToBeLent(const ControlRequest& request) const {
    const auto* const lend = std::get_if<LendPortRequest>(&request);
    return lend != nullptr && lend->port.value_or(aboutPort_.port) == aboutPort_.port && !loan_.isLent();
}

Task<ControlReply> ServiceControlServer::replyTo(ControlRequest request) {
    if (const auto* const lend = std::get_if<LendPortRequest>(&request)) {
        if (lend->port.value_or(aboutPort_.port) != aboutPort_.port) {
            co_return NotLentReply{aboutPort_.port};
        }
        throw HostError("the port is lent already");
    }
    if (const auto* const retry = std::get_if<OutboxRetryRequest>(&request)) {
        co_return FoundReply{outbox_.retry(retry->batch)};
    }
    if (auto* const drop = std::get_if<OutboxDropRequest>(&request)) {
        const bool isFound = co_await outbox_.remove(std::move(drop->batch));
        co_return FoundReply{isFound};
    }
    if (std::holds_alternative<PresenceRequest>(request)) {
        co_return PresenceReply{presence_()};
    }
    co_return aboutPort_;
}

} // namespace orlinth::host
