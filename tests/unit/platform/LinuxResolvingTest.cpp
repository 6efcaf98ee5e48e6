// Names, with the system's resolver replaced: getaddrinfo() below is found before the C library's.
#include "fakes/CancelMidway.h"
#include "fakes/RunTask.h"
#include "platform/SystemError.h"
#include "platform/linux/LinuxNetwork.h"
#include "platform/linux/LinuxSystem.h"

#include <gmock/gmock.h>

#include <chrono>
#include <cstring>
#include <dlfcn.h>
#include <netdb.h>
#include <netinet/in.h>
#include <semaphore>

namespace {

std::counting_semaphore<> questions(0); ///< for the slow name, that have come
std::counting_semaphore<> answers(0);   ///< what it waits for

/// Until a question has come: one that is cancelled before is never asked.
[[nodiscard]] bool isAsked() {
    return questions.try_acquire_for(std::chrono::seconds(30));
}

} // namespace

extern "C" int getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** found) {
    using Function = int(const char*, const char*, const addrinfo*, addrinfo**);
    static Function* const real = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, "getaddrinfo"));
    const std::string_view asked = name != nullptr ? name : "";
    if (asked == "unknown.test") {
        return EAI_NONAME;
    }
    if (asked == "slow.test") {
        questions.release();
        answers.acquire();
        return real("127.0.0.1", service, hints, found);
    }
    if (asked == "several.test") {
        const int code = real("127.0.0.2", service, hints, found);
        if (code != 0) {
            return code;
        }
        addrinfo* last = *found;
        while (last->ai_next != nullptr) {
            last = last->ai_next;
        }
        return real("127.0.0.1", service, hints, &last->ai_next); // the C library frees a list entry by entry
    }
    return real(name, service, hints, found);
}

namespace orlinth::platform {
namespace {

/// Listens on 127.0.0.1 only, so that 127.0.0.2 refuses.
asio::ip::tcp::acceptor listenOnOneAddress(asio::io_context& context) {
    return {context, asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), 0)};
}

Task<std::string> endpointReached(Network& network, std::string host, std::uint16_t port, Executor executor) {
    const std::unique_ptr<Stream> stream = co_await network.connect(std::move(host), port, executor);
    co_return stream->remoteEndpoint();
}

Task<> connectAndForget(Network& network, std::string host, std::uint16_t port, Executor executor) {
    const std::unique_ptr<Stream> stream = co_await network.connect(std::move(host), port, executor);
}

class LinuxResolving : public testing::Test {
protected:
    asio::io_context context_;
    LinuxNetwork network_{context_};

    std::string failureOf(std::string host, std::uint16_t port) {
        try {
            fakes::runTask(context_, endpointReached(network_, std::move(host), port, context_.get_executor()));
        } catch (const SystemError& error) {
            return error.description();
        }
        return "";
    }
};

TEST_F(LinuxResolving, TriesEachAddressOfANameInTurn) {
    const asio::ip::tcp::acceptor acceptor = listenOnOneAddress(context_);
    const std::uint16_t port = acceptor.local_endpoint().port();
    EXPECT_EQ(fakes::runTask(context_, endpointReached(network_, "several.test", port, context_.get_executor())),
              "127.0.0.1:" + std::to_string(port));
    EXPECT_FALSE(network_.isResolving());
}

TEST_F(LinuxResolving, ReportsTheLastAddressesFailure) {
    const std::uint16_t port = listenOnOneAddress(context_).local_endpoint().port();
    EXPECT_EQ(failureOf("several.test", port), "Connection refused");
}

TEST_F(LinuxResolving, ReportsAnUnknownNameInTheResolversWords) {
    EXPECT_THAT(failureOf("unknown.test", 1), testing::StartsWith("Host not found"));
}

TEST_F(LinuxResolving, KnowsThisComputersOwnName) {
    const asio::ip::tcp::acceptor acceptor = listenOnOneAddress(context_);
    const std::uint16_t port = acceptor.local_endpoint().port();
    EXPECT_EQ(fakes::runTask(context_, endpointReached(network_, "localhost", port, context_.get_executor())),
              "127.0.0.1:" + std::to_string(port));
}

TEST_F(LinuxResolving, ResolvesWithoutBlockingAndThenConnects) {
    const asio::ip::tcp::acceptor acceptor = listenOnOneAddress(context_);
    const std::uint16_t port = acceptor.local_endpoint().port();
    // The answer comes only once another task has had its turn and found the name being resolved.
    std::function<void()> answer = [&] {
        if (network_.isResolving()) {
            answers.release();
        } else {
            asio::post(context_, answer);
        }
    };
    asio::post(context_, answer);
    EXPECT_EQ(fakes::runTask(context_, endpointReached(network_, "slow.test", port, context_.get_executor())),
              "127.0.0.1:" + std::to_string(port));
    EXPECT_TRUE(isAsked());
}

TEST_F(LinuxResolving, LeavesAtOnceWhenItIsCancelledWhileTheResolverStillWorks) {
    asio::cancellation_signal signal;
    std::optional<std::exception_ptr> end;
    spawn(context_.get_executor(), connectAndForget(network_, "slow.test", 1, context_.get_executor()), signal.slot(),
          [&end](std::exception_ptr error) { end = std::move(error); });
    context_.poll();
    ASSERT_TRUE(isAsked());
    EXPECT_FALSE(end.has_value());
    signal.emit(asio::cancellation_type::terminal);
    context_.poll();
    ASSERT_TRUE(end.has_value()) << "it waits for the resolver";
    EXPECT_TRUE(fakes::isCancelled(*end));
    EXPECT_TRUE(network_.isResolving());
    answers.release();
    context_.restart();
    context_.run_for(std::chrono::seconds(30));
    EXPECT_TRUE(context_.stopped());
    EXPECT_FALSE(network_.isResolving());
}

TEST(LinuxSystemResolving, OutlivesTheSystemThatAskedForIt) {
    asio::io_context context;
    auto system = std::make_unique<LinuxSystem>(context);
    asio::cancellation_signal signal;
    bool cancelled = false;
    spawn(context.get_executor(), connectAndForget(system->system().network, "slow.test", 1, context.get_executor()),
          signal.slot(), [&cancelled](std::exception_ptr error) { cancelled = fakes::isCancelled(error); });
    context.poll();
    ASSERT_TRUE(isAsked());
    EXPECT_TRUE(system->isResolving());
    signal.emit(asio::cancellation_type::terminal);
    context.poll();
    EXPECT_TRUE(cancelled);
    system.reset();
    answers.release();
    context.restart();
    context.run_for(std::chrono::seconds(30));
    EXPECT_TRUE(context.stopped());
}

} // namespace
} // namespace orlinth::platform
