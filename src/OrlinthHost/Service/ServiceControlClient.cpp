#include "OrlinthHost/Service/ServiceControlClient.h"

#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Service/ControlLine.h"
#include "OrlinthHost/Service/ControlMessage.h"
#include "OrlinthHost/Service/LastText.h"
#include "OrlinthHost/Service/ServiceLock.h"
#include "base/Json.h"
#include "platform/Cancelled.h"
#include "platform/ServiceManager.h"
#include "platform/SystemError.h"

#include <asio/this_coro.hpp>

#include <system_error>
#include <utility>

namespace orlinth::host {

namespace {

/// How long a reply may take: the service may have others to get rid of first.
constexpr Seconds replyLimit = 3 * controlLineLimit;
/// The same for what is only shown beside something else.
constexpr Seconds presenceLimit = 1s;
/// How long a service gets to start in.
constexpr std::chrono::seconds startLimit = 10s;

/// A request that was answered, and the connection that it was made on.
struct Conversation {
    std::unique_ptr<platform::Stream> stream; ///< null: no service runs
    ControlReply reply = {};
};

/// Null where nobody listens.
Task<std::unique_ptr<platform::Stream>> connectToService(Home& home) {
    const Executor executor = co_await asio::this_coro::executor;
    try {
        co_return co_await home.system.unixSockets.connect(controlSocket(home), executor);
    } catch (const platform::SystemError& error) {
        if (error.code() == std::errc::no_such_file_or_directory || error.code() == std::errc::connection_refused) {
            co_return nullptr;
        }
        throw;
    }
}

Task<Conversation> converse(Home& home, ControlRequest request) {
    platform::Clock& clock = home.system.clock;
    Conversation conversation{.stream = co_await connectToService(home)};
    if (conversation.stream) {
        co_await sendControlLine(*conversation.stream, clock, encodeControlRequestFrom(home.version, request));
        const std::string line = co_await readControlLine(*conversation.stream, clock, replyLimit);
        conversation.reply = decodeControlReply(line);
        if (const auto* error = std::get_if<ErrorReply>(&conversation.reply)) {
            throw HostError(error->problem);
        }
    }
    co_return conversation;
}

/// The reply, which must be of this kind; nothing if no service runs.
template <typename Reply>
Task<std::optional<Reply>> ask(Home& home, ControlRequest request) {
    std::string problem;
    try {
        const Conversation conversation = co_await converse(home, std::move(request));
        if (!conversation.stream) {
            co_return std::nullopt;
        }
        if (const auto* reply = std::get_if<Reply>(&conversation.reply)) {
            co_return *reply;
        }
        problem = "its answer makes no sense";
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        problem = describe(error);
    }
    throw notDone(problem);
}

Task<std::optional<bool>> askWhetherFound(Home& home, ControlRequest request) {
    const std::optional<FoundReply> reply = co_await ask<FoundReply>(home, std::move(request));
    co_return reply ? std::optional(reply->isFound) : std::nullopt;
}

Task<std::unique_ptr<platform::Listener>> receivePort(Home& home, platform::Stream& stream) {
    const Executor executor = co_await asio::this_coro::executor;
    co_return co_await home.system.unixSockets.receivePort(stream, executor);
}

/// Null where nobody listens; else the request was sent.
Task<std::unique_ptr<platform::Stream>> sendRequest(Home& home, ControlRequest request) {
    std::string problem;
    try {
        std::unique_ptr<platform::Stream> stream = co_await connectToService(home);
        if (stream) {
            co_await sendControlLine(*stream, home.system.clock, encodeControlRequestFrom(home.version, request));
        }
        co_return stream;
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        problem = describe(error);
    }
    throw notDone(problem);
}

/// Whether the service has closed the connection, with or without reading everything.
bool isEndOfService(const std::exception& error) {
    const auto* const system = dynamic_cast<const platform::SystemError*>(&error);
    return dynamic_cast<const ConnectionEnded*>(&error) != nullptr ||
           (system != nullptr && system->code() == std::errc::connection_reset);
}

/// The next line of one who tells; nothing if its end came instead, which is none before everything `isCurrent`.
/// What is referred to outlives the call.
Task<std::optional<std::string>> nextLine(platform::Clock& clock, platform::Stream& stream, bool isCurrent) {
    std::string problem;
    try {
        std::string line;
        if (isCurrent) {
            line = co_await readControlLine(stream, maxNewsLine);
        } else {
            line = co_await readControlLine(stream, clock, replyLimit, maxNewsLine);
        }
        co_return line;
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        if (isCurrent && isEndOfService(error)) {
            co_return std::nullopt;
        }
        problem = describe(error);
    }
    throw notDone(problem);
}

ServiceNews newsIn(const std::string& line) {
    try {
        return decodeServiceNews(line);
    } catch (const JsonError& error) {
        throw notDone(error.description());
    }
}

/// False if no service runs; true when everything was told, and, of a request to watch, when the service has ended.
Task<bool> follow(Home& home, ControlRequest request, std::function<void(const ServiceNews&)> onNews) {
    const bool goesOn = std::holds_alternative<WatchRequest>(request);
    const std::unique_ptr<platform::Stream> stream = co_await sendRequest(home, std::move(request));
    if (!stream) {
        co_return false;
    }
    bool isCurrent = false;
    while (goesOn || !isCurrent) {
        const std::optional<std::string> line = co_await nextLine(home.system.clock, *stream, isCurrent);
        if (!line) {
            break;
        }
        const ServiceNews news = newsIn(*line);
        isCurrent = isCurrent || std::holds_alternative<CurrentLine>(news);
        onNews(news);
    }
    co_return true;
}

HostError notLent(const std::string& text) {
    return HostError("the running service does not lend its port: " + text,
                     "Is another pairing under way? `--port 0` takes a port that is free.");
}

} // namespace

Task<bool> isServiceRunning(Home& home) {
    try {
        const std::unique_ptr<platform::Stream> stream = co_await connectToService(home);
        if (stream) {
            co_return true;
        }
    } catch (const platform::SystemError& error) {
        home.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "control", error.description());
    }
    co_return ServiceLock::isHeld(home);
}

Task<std::optional<std::uint16_t>> askServicePort(Home& home) {
    const std::optional<PortReply> reply = co_await ask<PortReply>(home, PortRequest{});
    co_return reply ? std::optional(reply->port) : std::nullopt;
}

Task<std::optional<PortReply>> findServiceDetails(Home& home) {
    try {
        co_return co_await ask<PortReply>(home, PortRequest{});
    } catch (const HostError& error) {
        home.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "control", error.description());
    }
    co_return std::nullopt;
}

Task<std::optional<std::uint16_t>> findServicePort(Home& home) {
    const std::optional<PortReply> reply = co_await findServiceDetails(home);
    co_return reply ? std::optional(reply->port) : std::nullopt;
}

Task<std::optional<std::vector<PhonePresence>>> findPresence(Home& home) {
    try {
        std::optional<PresenceReply> reply =
            co_await withinLimit(home.system.clock, presenceLimit, ask<PresenceReply>(home, PresenceRequest{}));
        if (reply) {
            co_return std::move(reply->phones);
        }
    } catch (const HostError& error) {
        home.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "control", error.description());
    }
    co_return std::nullopt;
}

Task<std::optional<bool>> askServiceToRetry(Home& home, std::optional<BatchId> batch) {
    co_return co_await askWhetherFound(home, OutboxRetryRequest{std::move(batch)});
}

Task<std::optional<bool>> askServiceToDrop(Home& home, BatchId batch) {
    co_return co_await askWhetherFound(home, OutboxDropRequest{std::move(batch)});
}

Task<std::optional<bool>> askServiceToCancel(Home& home, TransferNumber transfer) {
    co_return co_await askWhetherFound(home, CancelRequest{static_cast<std::uint64_t>(transfer)});
}

Task<std::optional<bool>> askServiceToAnswerOffer(Home& home, OfferNumber offer, bool isAccepted) {
    co_return co_await askWhetherFound(
        home, AnswerOfferRequest{.offer = static_cast<std::uint64_t>(offer), .isAccepted = isAccepted});
}

Task<LastTextAnswer> askServiceForLastText(Home& home) {
    std::string problem;
    try {
        Conversation conversation = co_await converse(home, LastTextRequest{});
        if (!conversation.stream) {
            co_return LastTextAnswer{};
        }
        if (std::holds_alternative<FoundReply>(conversation.reply)) {
            co_return LastTextAnswer{.isServiceThere = true};
        }
        if (auto* const reply = std::get_if<TextReply>(&conversation.reply)) {
            SecretBytes text =
                co_await withinLimit(home.system.clock, replyLimit,
                                     home.system.unixSockets.receiveSecret(*conversation.stream, LastText::maxBytes));
            LastTextAnswer answer{.isServiceThere = true};
            answer.text.emplace(std::move(text), std::move(reply->from), reply->received);
            co_return answer;
        }
        problem = "its answer makes no sense";
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        problem = describe(error);
    }
    throw notDone(problem);
}

Task<std::optional<bool>> askServiceToForgetText(Home& home) {
    co_return co_await askWhetherFound(home, ForgetTextRequest{});
}

Task<bool> readServiceStatus(Home& home, std::function<void(const ServiceNews&)> onNews) {
    co_return co_await follow(home, StatusRequest{}, std::move(onNews));
}

Task<bool> watchService(Home& home, std::function<void(const ServiceNews&)> onNews) {
    co_return co_await follow(home, WatchRequest{}, std::move(onNews));
}

Task<std::optional<BorrowedPort>> BorrowedPort::borrow(Home& home, std::optional<std::uint16_t> wanted) {
    std::string problem;
    try {
        Conversation conversation = co_await converse(home, LendPortRequest{wanted});
        if (!conversation.stream || std::holds_alternative<NotLentReply>(conversation.reply)) {
            co_return std::nullopt;
        }
        const auto* const reply = std::get_if<PortReply>(&conversation.reply);
        if (reply == nullptr) {
            problem = "its answer makes no sense";
        } else if (wanted && *wanted != reply->port) {
            co_return std::nullopt;
        } else {
            std::unique_ptr<platform::Listener> listener =
                co_await withinLimit(home.system.clock, replyLimit, receivePort(home, *conversation.stream));
            co_return BorrowedPort(std::move(conversation.stream), reply->port, std::move(listener));
        }
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        problem = describe(error);
    }
    throw notLent(problem);
}

Task<std::optional<BorrowedPort>> BorrowedPort::borrowFromSleeping(Home& home, std::uint16_t port) {
    // not by a connection, which would be the only one of a pairing that has the port instead
    if (!platform::startSleepingService("orlinth.socket", "orlinth.service", startLimit)) {
        co_return std::nullopt;
    }
    co_return co_await borrow(home, port);
}

} // namespace orlinth::host
