#include "OrlinthHost/Service/ServiceControl.h"

#include "OrlinthHost/HostError.h"
#include "platform/Cancelled.h"
#include "platform/Deadline.h"
#include "platform/ServiceManager.h"
#include "platform/SystemError.h"

#include <asio/this_coro.hpp>

#include <chrono>
#include <limits>
#include <string>

namespace orlinth::host {
namespace {

constexpr const char* socketName = "service.sock";
constexpr std::size_t maxLine = 4096;
/// Seconds for a whole request to come, and for a whole answer.
constexpr double lineLimit = 5;
/// Seconds that a borrower waits for an answer: the service may have others to get rid of first.
constexpr double borrowerLimit = 3 * lineLimit;
/// Connections at once; whoever comes further waits.
constexpr std::size_t maxConversations = 16;
/// Seconds between two attempts to open the port again.
constexpr double retrySeconds = 1;
constexpr double restSeconds = 0.1;
/// Seconds that a service gets to start in.
constexpr std::chrono::seconds startLimit{10};

constexpr const char* requestKey = "request";
constexpr const char* lendRequest = "lend_port";
constexpr const char* portRequest = "port";
constexpr const char* portKey = "port";
constexpr const char* lentKey = "lent";
constexpr const char* errorKey = "error";

/// `operation` outlives the call, whose caller awaits it in the expression that makes it.
template <typename T>
Task<T> within(platform::Clock& clock, double limit, Task<T> operation) {
    OneShot<T> outcome;
    co_await platform::settleFirst(outcome, clock, limit, std::make_exception_ptr(HostError("no answer in time")),
                                   std::move(operation));
    co_return outcome.take();
}

/// Without the line end, and not a byte further: a socket may follow.
Task<std::string> readLine(platform::Stream& stream) {
    std::string line;
    for (;;) {
        std::byte next{};
        const std::size_t count = co_await stream.readExact(MutableBytes(&next, 1));
        if (count == 0) {
            throw HostError("the connection has ended");
        }
        if (next == std::byte{'\n'}) {
            co_return line;
        }
        if (line.size() == maxLine) {
            throw HostError("a line is too long");
        }
        line += static_cast<char>(next);
    }
}

Task<bool> writeLine(platform::Stream& stream, std::string line) {
    line += '\n';
    co_await stream.writeAll(asBytes(line));
    co_return true;
}

Task<> sendLine(platform::Stream& stream, platform::Clock& clock, Json value) {
    co_await within(clock, lineLimit, writeLine(stream, compactJson(value)));
}

/// Until the other end closes; what it says meanwhile means nothing.
Task<> untilItEnds(platform::Stream& stream) {
    std::byte ignored{};
    std::size_t count = 1;
    while (count != 0) {
        count = co_await stream.readExact(MutableBytes(&ignored, 1));
    }
}

std::optional<std::uint16_t> portIn(const Json& object) {
    if (!object.is_object() || !object.contains(portKey)) {
        return std::nullopt;
    }
    const std::int64_t number = requireInt64(object, portKey);
    if (number < 1 || number > std::numeric_limits<std::uint16_t>::max()) {
        throw HostError("a port that is none");
    }
    return static_cast<std::uint16_t>(number);
}

} // namespace

void ServiceControl::start(std::uint16_t port) {
    port_ = port;
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

Task<> ServiceControl::finish() {
    accepting_.cancelAll();
    co_await accepting_.join();
}

/// Ends by an exception only.
Task<> ServiceControl::run() {
    const Executor executor = co_await asio::this_coro::executor;
    std::unique_ptr<platform::Listener> listener =
        home_.system.local.listen(home_.dataDirectory() / socketName, executor);
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

Task<> ServiceControl::acceptAll(platform::Listener& listener) {
    const Executor executor = co_await asio::this_coro::executor;
    for (;;) {
        double rest = 0;
        try {
            std::unique_ptr<platform::Stream> stream = co_await listener.accept(executor);
            begin(std::move(stream));
        } catch (const platform::SystemError& error) {
            if (!platform::isShortage(error.code())) {
                throw;
            }
            rest = restSeconds; // that passes
        }
        if (rest > 0) {
            co_await home_.system.clock.sleep(rest);
        }
        co_await conversations_.untilFewerThan(maxConversations);
    }
}

void ServiceControl::begin(std::unique_ptr<platform::Stream> stream) {
    conversations_.add(answer(std::move(stream)), [this](const std::exception_ptr& error) {
        if (error && !lent_) {
            // somebody went away in the middle of a sentence, or we are ending: nobody to tell
            home_.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "control", describe(error));
        }
    });
}

Task<> ServiceControl::answer(std::unique_ptr<platform::Stream> stream) {
    platform::Clock& clock = home_.system.clock;
    Json reply;
    bool isForLoan = false;
    try {
        const std::string line = co_await within(clock, lineLimit, readLine(*stream));
        const Json request = parseJson(line);
        const std::optional<std::uint16_t> wanted = portIn(request);
        const std::string what = requireString(request, requestKey);
        if (what == portRequest) {
            reply[portKey] = port_;
        } else if (what != lendRequest) {
            reply = co_await answerOther(request);
        } else if (wanted && *wanted != port_) {
            reply = Json{{portKey, port_}, {lentKey, false}};
        } else if (lent_) {
            reply[errorKey] = "the port is lent already";
        } else {
            isForLoan = true;
        }
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        reply[errorKey] = describe(error);
    }
    if (isForLoan) {
        co_await lend(*stream);
    } else {
        co_await sendLine(*stream, clock, std::move(reply));
    }
}

Task<Json> ServiceControl::answerOther(Json request) {
    Json reply;
    if (onRequest) {
        reply = co_await onRequest(std::move(request));
    }
    if (reply.is_null()) {
        reply[errorKey] = "unknown request";
    }
    co_return reply;
}

/// From stepping aside to coming back.
Task<> ServiceControl::lend(platform::Stream& stream) {
    lent_ = true;
    Json problem;
    try {
        co_await receiver_.stepAside();
        co_await handOver(stream);
        events_.portLent();
        co_await untilItEnds(stream);
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw; // the service ends, and the port with it
        }
        problem[errorKey] = describe(error);
    }
    const bool hasFailed = !problem.is_null();
    if (hasFailed) {
        try {
            co_await sendLine(stream, home_.system.clock, std::move(problem));
        } catch (const platform::SystemError&) {
            // the borrower is gone, which is how most loans end that do not end well
        } catch (const HostError&) {
            // or does not read
        }
    }
    co_await takeBack();
    lent_ = false;
    if (!hasFailed) {
        events_.portReturned();
    }
}

Task<> ServiceControl::handOver(platform::Stream& stream) {
    const Executor executor = co_await asio::this_coro::executor;
    const platform::ListenOptions options{.port = port_, .keepAlive = std::nullopt};
    const std::unique_ptr<platform::Listener> port =
        openLoan ? openLoan(options, executor) : home_.system.network.listen(options, executor);
    co_await sendLine(stream, home_.system.clock, Json{{portKey, port_}});
    co_await home_.system.local.sendPort(stream, *port);
}

/// Until it has worked. The port may be in use for a moment, by whoever has borrowed it.
Task<> ServiceControl::takeBack() {
    bool isTold = false;
    for (;;) {
        std::string problem;
        try {
            co_await receiver_.comeBack();
            co_return;
        } catch (const Receiver::Error& error) {
            problem = error.description();
        }
        if (!isTold) {
            isTold = true;
            events_.portMissing(problem);
        }
        co_await home_.system.clock.sleep(retrySeconds);
    }
}

namespace {

/// Null where nobody listens.
Task<std::unique_ptr<platform::Stream>> connectToService(Home& home) {
    const Executor executor = co_await asio::this_coro::executor;
    try {
        co_return co_await home.system.local.connect(home.dataDirectory() / socketName, executor);
    } catch (const platform::SystemError& error) {
        if (error.code() == std::errc::no_such_file_or_directory || error.code() == std::errc::connection_refused) {
            co_return nullptr;
        }
        throw;
    }
}

Task<std::unique_ptr<platform::Listener>> receivePort(Home& home, platform::Stream& stream) {
    const Executor executor = co_await asio::this_coro::executor;
    co_return co_await home.system.local.receivePort(stream, executor);
}

HostError notLent(const std::string& text) {
    return HostError("the running service does not lend its port: " + text,
                     "Is another pairing under way? `--port 0` takes a port that is free.");
}

} // namespace

namespace {

/// Whether somebody holds the lock of a service. What cannot be found out counts as no.
bool isServiceLocked(const Home& home) {
    const platform::Path lock = home.dataDirectory() / ServiceControl::lockName;
    try {
        return home.system.files.exists(lock) && !home.system.files.open(lock, platform::OpenMode::read)->tryLock();
    } catch (const platform::SystemError& error) {
        home.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "control",
                              "cannot look at " + lock.string() + ": " + error.description());
        return false;
    }
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
    co_return isServiceLocked(home);
}

Task<std::optional<Json>> askService(Home& home, Json request) {
    platform::Clock& clock = home.system.clock;
    std::string problem;
    try {
        std::unique_ptr<platform::Stream> stream = co_await connectToService(home);
        if (!stream) {
            co_return std::nullopt;
        }
        co_await sendLine(*stream, clock, std::move(request));
        const std::string line = co_await within(clock, borrowerLimit, readLine(*stream));
        Json reply = parseJson(line);
        const std::optional<std::string> refusal = optionalString(reply, errorKey);
        if (!refusal) {
            co_return reply;
        }
        problem = *refusal;
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        problem = describe(error);
    }
    throw HostError("the running service did not do it: " + problem);
}

Task<std::optional<std::uint16_t>> askServicePort(Home& home) {
    const std::optional<Json> reply = co_await askService(home, {{requestKey, portRequest}});
    if (!reply) {
        co_return std::nullopt;
    }
    try {
        co_return portIn(*reply);
    } catch (const JsonError& error) {
        throw HostError(error.description());
    }
}

Task<std::optional<BorrowedPort>> BorrowedPort::borrow(Home& home, std::optional<std::uint16_t> wanted) {
    platform::Clock& clock = home.system.clock;
    std::string problem;
    try {
        std::unique_ptr<platform::Stream> stream = co_await connectToService(home);
        if (!stream) {
            co_return std::nullopt;
        }
        Json request{{requestKey, lendRequest}};
        if (wanted) {
            request[portKey] = *wanted;
        }
        co_await sendLine(*stream, clock, std::move(request));
        const std::string line = co_await within(clock, borrowerLimit, readLine(*stream));
        const Json reply = parseJson(line);
        const std::optional<std::string> refusal = optionalString(reply, errorKey);
        const std::optional<std::uint16_t> port = portIn(reply);
        if (refusal || !port) {
            problem = refusal.value_or("its answer makes no sense");
        } else if (wanted && *wanted != *port) {
            co_return std::nullopt;
        } else {
            std::unique_ptr<platform::Listener> listener =
                co_await within(clock, borrowerLimit, receivePort(home, *stream));
            co_return BorrowedPort(std::move(stream), *port, std::move(listener));
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
