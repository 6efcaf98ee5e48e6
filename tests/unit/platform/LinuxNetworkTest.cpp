#include "platform/linux/LinuxNetwork.h"

#include "fakes/CancelMidway.h"
#include "fakes/RunTask.h"
#include "platform/SystemError.h"

#include <asio/experimental/awaitable_operators.hpp>
#include <asio/post.hpp>
#include <asio/strand.hpp>
#include <asio/use_awaitable.hpp>
#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace orlinth::platform {
namespace {

using namespace asio::experimental::awaitable_operators;
using Streams = std::pair<std::unique_ptr<Stream>, std::unique_ptr<Stream>>;

/// A peer below Asio: a plain socket that does what no well-behaved one would.
class RawSocket {
public:
    explicit RawSocket(int flags = 0) : number_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0)) {}
    RawSocket(const RawSocket&) = delete;
    RawSocket& operator=(const RawSocket&) = delete;
    RawSocket(RawSocket&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    ~RawSocket() { close(); }

    [[nodiscard]] int get() const { return number_; }
    void close() {
        if (number_ != -1) {
            ::close(std::exchange(number_, -1));
        }
    }
    /// Ends the connection with a reset.
    void reset() {
        const linger atOnce{1, 0};
        ::setsockopt(number_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        close();
    }
    int connect(std::uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return ::connect(number_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    /// Listens on 127.0.0.1; returns the port.
    std::uint16_t listen(int backlog) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ::bind(number_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        ::listen(number_, backlog);
        ::getsockname(number_, reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }

private:
    int number_;
};

/// Whether this machine has ::1; IPv6 may be turned off.
bool hasIpv6Loopback() {
    const int number = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    const bool has = ::bind(number, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(number);
    return has;
}

int optionOf(int socket, int level, int name) {
    int value = -1;
    socklen_t length = sizeof value;
    ::getsockopt(socket, level, name, &value, &length);
    return value;
}

/// The open socket whose peer has this port: the descriptor behind a stream, which the stream does not show.
int socketWithPeerPort(const std::string& endpoint) {
    const auto port = static_cast<std::uint16_t>(std::stoi(endpoint.substr(endpoint.rfind(':') + 1)));
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int number = std::stoi(entry.path().filename());
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        if (::getpeername(number, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
            (address.ss_family == AF_INET || address.ss_family == AF_INET6) &&
            ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port) == port) {
            return number;
        }
    }
    return -1;
}

std::string failureOf(const std::exception_ptr& error) {
    try {
        if (error) {
            std::rethrow_exception(error);
        }
    } catch (const SystemError& failure) {
        return failure.description();
    } catch (const std::exception& other) {
        return std::string("no SystemError: ") + other.what();
    }
    return "";
}

Bytes pattern(std::size_t size) {
    Bytes data(size);
    for (std::size_t i = 0; i < size; ++i) {
        data[i] = static_cast<std::byte>((i * 31) ^ (i >> 8U));
    }
    return data;
}

Task<Bytes> readBytes(Stream& stream, std::size_t count) {
    Bytes data(count);
    const std::size_t got = co_await stream.readExact(data);
    data.resize(got);
    co_return data;
}

Task<> readAndForget(Stream& stream, std::size_t count) {
    Bytes data(count);
    const std::size_t got = co_await stream.readExact(data);
    static_cast<void>(got);
}

Task<> writeBytes(Stream& stream, Bytes data) {
    co_await stream.writeAll(data);
}

Task<> acceptAndForget(Listener& listener, Executor executor) {
    const std::unique_ptr<Stream> stream = co_await listener.accept(executor);
}

Task<> connectAndForget(Network& network, std::string host, std::uint16_t port, Executor executor) {
    const std::unique_ptr<Stream> stream = co_await network.connect(std::move(host), port, executor);
}

class LinuxNetworkTest : public testing::Test {
protected:
    asio::io_context context_;
    LinuxNetwork network_{context_};
    Executor executor_ = context_.get_executor();

    std::unique_ptr<Listener> listen(ListenOptions options = {}) { return network_.listen(options, executor_); }

    /// Both ends of a fresh connection over loopback: the one that connected and the one that was accepted.
    Streams connected(Listener& listener, std::string host = "127.0.0.1") {
        Task<Streams> both = connectBoth(listener, std::move(host));
        return fakes::runTask(context_, std::move(both));
    }
    Streams connected() {
        const std::unique_ptr<Listener> listener = listen();
        return connected(*listener);
    }

    Task<Streams> connectBoth(Listener& listener, std::string host) {
        Task<std::unique_ptr<Stream>> connecting = network_.connect(std::move(host), listener.port(), executor_);
        std::unique_ptr<Stream> outgoing = co_await std::move(connecting);
        std::unique_ptr<Stream> incoming = co_await listener.accept(executor_);
        co_return Streams(std::move(outgoing), std::move(incoming));
    }

    /// What the task fails with: the text of its SystemError, "" if it does not fail.
    template <typename T>
    std::string failureOfTask(Task<T> task) {
        try {
            fakes::runTask(context_, std::move(task));
        } catch (...) {
            return failureOf(std::current_exception());
        }
        return "";
    }
    /// The same for a task that waits, while `meanwhile` is done to it.
    std::string failureWhile(Task<> task, const std::function<void()>& meanwhile) {
        std::optional<std::exception_ptr> end;
        context_.restart();
        spawn(executor_, std::move(task), [&end](std::exception_ptr error) { end = std::move(error); });
        context_.poll();
        EXPECT_FALSE(end.has_value()) << "it did not wait";
        meanwhile();
        context_.restart();
        context_.run_for(std::chrono::seconds(30));
        EXPECT_TRUE(end.has_value()) << "it still waits";
        return end ? failureOf(*end) : "";
    }
};

// Streams

TEST_F(LinuxNetworkTest, CarriesBytesBothWays) {
    const auto [a, b] = connected();
    for (const std::size_t size : {std::size_t{1}, std::size_t{4}, std::size_t{70'000}, std::size_t{5'000'000}}) {
        const Bytes data = pattern(size);
        EXPECT_EQ(fakes::runTask(context_, writeBytes(*a, data) && readBytes(*b, size)), data);
        EXPECT_EQ(fakes::runTask(context_, writeBytes(*b, data) && readBytes(*a, size)), data);
    }
}

TEST_F(LinuxNetworkTest, CarriesBothWaysAtOnceWithMoreThanTheBuffersHold) {
    const auto [a, b] = connected();
    const Bytes data = pattern(20'000'000);
    const auto [atB, atA] = fakes::runTask(context_, writeBytes(*a, data) && writeBytes(*b, data) &&
                                                         readBytes(*b, data.size()) && readBytes(*a, data.size()));
    EXPECT_EQ(atA, data);
    EXPECT_EQ(atB, data);
}

Task<> writeInPieces(Stream& stream, ByteView data, std::size_t step) {
    while (!data.empty()) {
        const std::size_t count = std::min(step, data.size());
        co_await stream.writeAll(data.first(count));
        data = data.subspan(count);
        co_await asio::post(asio::use_awaitable);
    }
}

Task<> readInPieces(Stream& stream, MutableBytes into, const std::vector<std::size_t>& steps) {
    for (std::size_t i = 0; !into.empty(); ++i) {
        const std::size_t count = std::min(steps[i % steps.size()], into.size());
        const std::size_t got = co_await stream.readExact(into.first(count));
        EXPECT_EQ(got, count);
        into = into.subspan(count);
    }
}

TEST_F(LinuxNetworkTest, ReadsSmallAndLargePiecesInTurnWithoutWaitingForMoreThanItWasAskedFor) {
    const auto [a, b] = connected();
    const Bytes data = pattern(3'000'000);
    Bytes got(data.size());
    // Sent in small pieces, so that every read has to wait; a wake-up mark left behind by a large read would make the
    // small one behind it hang.
    const std::vector<std::size_t> steps{4, 300'000, 1, 1'000'000, 7};
    fakes::runTask(context_, writeInPieces(*a, data, 9'973) && readInPieces(*b, got, steps));
    EXPECT_EQ(got, data);
}

TEST_F(LinuxNetworkTest, WakesASmallReadThatFollowsALargeOne) {
    const auto [a, b] = connected();
    fakes::runTask(context_, writeInPieces(*a, pattern(1 << 20), 50'000) && readBytes(*b, 1 << 20));
    Stream& sender = *a;
    EXPECT_EQ(failureWhile(readAndForget(*b, 1),
                           [&] {
                               spawn(executor_, writeBytes(sender, Bytes(1)),
                                     [](std::exception_ptr error) { EXPECT_EQ(error, nullptr); });
                           }),
              "");
}

TEST_F(LinuxNetworkTest, ReturnsWhatCameWhenTheStreamEndsFirst) {
    auto [a, b] = connected();
    fakes::runTask(context_, writeBytes(*a, pattern(100)));
    a->finishWriting();
    EXPECT_EQ(fakes::runTask(context_, readBytes(*b, 1'000'000)), pattern(100));
    EXPECT_EQ(fakes::runTask(context_, readBytes(*b, 10)).size(), 0U);
}

TEST_F(LinuxNetworkTest, SeesTheEndOfTheStreamWhileItWaitsForALargePiece) {
    auto [a, b] = connected();
    fakes::runTask(context_, writeBytes(*a, pattern(100)));
    EXPECT_EQ(failureWhile(readAndForget(*b, 1'000'000), [&] { a.reset(); }), "");
}

TEST_F(LinuxNetworkTest, GoesOnReadingAfterItHasFinishedWriting) {
    const auto [a, b] = connected();
    a->finishWriting();
    EXPECT_EQ(fakes::runTask(context_, readBytes(*b, 1)).size(), 0U);
    EXPECT_EQ(fakes::runTask(context_, writeBytes(*b, pattern(50)) && readBytes(*a, 50)), pattern(50));
    EXPECT_EQ(failureOfTask(writeBytes(*a, pattern(1))), "Broken pipe");
}

TEST_F(LinuxNetworkTest, TouchesNothingForAnEmptyReadOrWrite) {
    const auto [a, b] = connected();
    fakes::runTask(context_, writeBytes(*a, {}));
    EXPECT_EQ(fakes::runTask(context_, readBytes(*b, 0)).size(), 0U);
}

TEST_F(LinuxNetworkTest, ReportsAResetInTheSystemsWords) {
    const std::unique_ptr<Listener> listener = listen();
    RawSocket raw;
    ASSERT_EQ(raw.connect(listener->port()), 0);
    const std::unique_ptr<Stream> stream = fakes::runTask(context_, listener->accept(executor_));
    EXPECT_EQ(failureWhile(readAndForget(*stream, 1), [&] { raw.reset(); }), "Connection reset by peer");
}

TEST_F(LinuxNetworkTest, ReportsAResetToAWriterThatWaits) {
    const std::unique_ptr<Listener> listener = listen();
    RawSocket raw;
    ASSERT_EQ(raw.connect(listener->port()), 0);
    const std::unique_ptr<Stream> stream = fakes::runTask(context_, listener->accept(executor_));
    EXPECT_EQ(failureWhile(writeBytes(*stream, Bytes(20'000'000)), [&] { raw.reset(); }), "Connection reset by peer");
}

TEST_F(LinuxNetworkTest, ShowsThePeerAResetWhenItAborts) {
    const auto [a, b] = connected();
    Stream& stream = *b;
    EXPECT_EQ(failureWhile(readAndForget(*a, 1), [&] { stream.abort(); }), "Connection reset by peer");
    EXPECT_EQ(failureOfTask(readAndForget(*b, 1)), "connection cancelled");
    b->abort(); // as harmless as another cancel()
}

TEST_F(LinuxNetworkTest, ShowsThePeerAResetHoweverItEndsOnceThatIsAskedFor) {
    auto [a, b] = connected();
    b->resetOnClose(true);
    EXPECT_EQ(failureWhile(readAndForget(*a, 1), [&stream = b] { stream.reset(); }), "Connection reset by peer");
    auto [c, d] = connected();
    d->resetOnClose(true);
    EXPECT_EQ(failureWhile(readAndForget(*c, 1), [&stream = d] { stream->cancel(); }), "Connection reset by peer");
    auto [e, f] = connected();
    f->resetOnClose(true);
    f->resetOnClose(false);
    f.reset();
    EXPECT_EQ(fakes::runTask(context_, readBytes(*e, 1)), Bytes()) << "an orderly end";
}

TEST_F(LinuxNetworkTest, CountsWhatThePeersSystemHasNotAcknowledged) {
    const auto [a, b] = connected();
    fakes::runTask(context_, writeBytes(*a, pattern(1000)) && readBytes(*b, 1000));
    EXPECT_EQ(a->unacknowledgedBytes(), 0);
    Stream& writer = *a;
    // Nobody reads: once both buffers are full, what does not fit into the peer's stays here.
    EXPECT_EQ(failureWhile(writeBytes(writer, Bytes(64'000'000)),
                           [&] {
                               EXPECT_GT(writer.unacknowledgedBytes(), 0);
                               writer.cancel();
                           }),
              "connection cancelled");
    EXPECT_EQ(a->unacknowledgedBytes(), std::nullopt);
}

TEST_F(LinuxNetworkTest, SwitchesKeepAliveOnForOneConnection) {
    const auto [a, b] = connected();
    const int socket = socketWithPeerPort(a->remoteEndpoint());
    ASSERT_NE(socket, -1);
    EXPECT_EQ(optionOf(socket, SOL_SOCKET, SO_KEEPALIVE), 0);
    EXPECT_EQ(optionOf(socket, IPPROTO_TCP, TCP_USER_TIMEOUT), 0);
    a->setKeepAlive({.idle = 7s, .interval = 3s, .count = 2});
    EXPECT_EQ(optionOf(socket, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(optionOf(socket, IPPROTO_TCP, TCP_KEEPIDLE), 7);
    EXPECT_EQ(optionOf(socket, IPPROTO_TCP, TCP_KEEPINTVL), 3);
    EXPECT_EQ(optionOf(socket, IPPROTO_TCP, TCP_KEEPCNT), 2);
    EXPECT_EQ(optionOf(socket, IPPROTO_TCP, TCP_USER_TIMEOUT), 13'000) << "for data that nobody acknowledges";
    a->cancel();
    a->setKeepAlive({.idle = 7s, .interval = 3s, .count = 2}); // of no use, and no harm
}

TEST_F(LinuxNetworkTest, FailsPendingAndLaterCallsOfACancelledStream) {
    const auto [a, b] = connected();
    Stream& stream = *b;
    EXPECT_EQ(failureWhile(readAndForget(stream, 10), [&] { stream.cancel(); }), "connection cancelled");
    EXPECT_EQ(failureOfTask(readBytes(stream, 1)), "connection cancelled");
    EXPECT_EQ(failureOfTask(readBytes(stream, 0)), "connection cancelled");
    EXPECT_EQ(failureOfTask(writeBytes(stream, Bytes(1))), "connection cancelled");
    stream.cancel();
    stream.finishWriting();
    EXPECT_EQ(fakes::runTask(context_, readBytes(*a, 1)).size(), 0U) << "the peer sees the end";
}

TEST_F(LinuxNetworkTest, FailsAPendingWriteOfACancelledStream) {
    const auto [a, b] = connected();
    Stream& stream = *a;
    EXPECT_EQ(failureWhile(writeBytes(stream, Bytes(20'000'000)), [&] { stream.cancel(); }), "connection cancelled");
}

TEST_F(LinuxNetworkTest, FailsACallWhoseWaitHadJustEndedWhenTheStreamWasCancelled) {
    const auto [a, b] = connected();
    Stream& stream = *b;
    // The cancelling handler is queued behind the one that ends the read's wait, or before it: both must be safe.
    fakes::runTask(context_, writeBytes(*a, Bytes(5)));
    asio::post(executor_, [&stream] { stream.cancel(); });
    EXPECT_EQ(failureOfTask(readBytes(stream, 10)), "connection cancelled");
}

TEST_F(LinuxNetworkTest, ThrowsCancelledWhereTheTaskIsCancelledAndKeepsTheConnection) {
    const auto [a, b] = connected();
    EXPECT_TRUE(fakes::isCancelled(fakes::cancelMidway(context_, readAndForget(*b, 10))));
    EXPECT_TRUE(fakes::isCancelled(fakes::cancelMidway(context_, readAndForget(*b, 10'000'000))));
    EXPECT_EQ(fakes::runTask(context_, writeBytes(*a, pattern(9)) && readBytes(*b, 9)), pattern(9));
    EXPECT_TRUE(fakes::isCancelled(fakes::cancelMidway(context_, writeBytes(*a, Bytes(20'000'000)))));
}

Task<> writeForEver(Stream& stream, const bool& stop, std::size_t size) {
    const Bytes data(size);
    while (!stop) {
        co_await stream.writeAll(data);
    }
}

TEST_F(LinuxNetworkTest, LetsOthersRunAlsoWhenItNeverHasToWait) {
    for (const std::size_t size : {std::size_t{1}, std::size_t{100'000}}) {
        const std::unique_ptr<Listener> listener = listen();
        RawSocket raw;
        ASSERT_EQ(raw.connect(listener->port()), 0);
        const std::unique_ptr<Stream> stream = fakes::runTask(context_, listener->accept(executor_));
        std::thread drain([&raw] {
            std::vector<char> buffer(1 << 20);
            while (::recv(raw.get(), buffer.data(), buffer.size(), 0) > 0) {
            }
        });
        bool stop = false;
        int turns = 0;
        const std::function<void()> count = [&] {
            stop = ++turns == 100;
            if (!stop) {
                asio::post(executor_, count);
            }
        };
        asio::post(executor_, count);
        fakes::runTask(context_, writeForEver(*stream, stop, size));
        EXPECT_EQ(turns, 100);
        stream->cancel();
        drain.join();
    }
}

TEST_F(LinuxNetworkTest, NamesThePeerAsPeopleDo) {
    const std::unique_ptr<Listener> listener = listen();
    const auto [a, b] = connected(*listener);
    EXPECT_EQ(a->remoteEndpoint(), "127.0.0.1:" + std::to_string(listener->port()));
    EXPECT_THAT(b->remoteEndpoint(), testing::MatchesRegex("127\\.0\\.0\\.1:[0-9]+"));
}

TEST_F(LinuxNetworkTest, NamesAnIPv6PeerInBrackets) {
    if (!hasIpv6Loopback()) {
        GTEST_SKIP() << "IPv6 is turned off here";
    }
    const std::unique_ptr<Listener> listener = listen();
    const auto [a, b] = connected(*listener, "::1");
    EXPECT_EQ(a->remoteEndpoint(), "[::1]:" + std::to_string(listener->port()));
    EXPECT_THAT(b->remoteEndpoint(), testing::MatchesRegex("\\[::1\\]:[0-9]+"));
}

TEST_F(LinuxNetworkTest, TurnsNagleOffOnBothEndsAndLeavesKeepAliveOff) {
    const std::unique_ptr<Listener> listener = listen();
    const auto [a, b] = connected(*listener);
    for (const auto& stream : {a.get(), b.get()}) {
        const int socket = socketWithPeerPort(stream->remoteEndpoint());
        ASSERT_NE(socket, -1);
        EXPECT_EQ(optionOf(socket, IPPROTO_TCP, TCP_NODELAY), 1);
        EXPECT_EQ(optionOf(socket, SOL_SOCKET, SO_KEEPALIVE), 0);
        EXPECT_EQ(::fcntl(socket, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
}

// Listeners

TEST_F(LinuxNetworkTest, ProbesSilentPeersAsAskedFor) {
    ListenOptions options;
    options.keepAlive = KeepAlive{10s, 5s, 3};
    const std::unique_ptr<Listener> listener = listen(options);
    const auto [a, b] = connected(*listener);
    const int socket = socketWithPeerPort(b->remoteEndpoint());
    ASSERT_NE(socket, -1);
    EXPECT_EQ(optionOf(socket, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(optionOf(socket, IPPROTO_TCP, TCP_KEEPIDLE), 10);
    EXPECT_EQ(optionOf(socket, IPPROTO_TCP, TCP_KEEPINTVL), 5);
    EXPECT_EQ(optionOf(socket, IPPROTO_TCP, TCP_KEEPCNT), 3);
    EXPECT_EQ(optionOf(socket, IPPROTO_TCP, TCP_USER_TIMEOUT), 0);
    EXPECT_EQ(optionOf(socket, IPPROTO_TCP, TCP_NODELAY), 1);
}

TEST_F(LinuxNetworkTest, RefusesAPortThatIsTaken) {
    const std::unique_ptr<Listener> listener = listen();
    EXPECT_NE(listener->port(), 0);
    ListenOptions same;
    same.port = listener->port();
    try {
        static_cast<void>(listen(same));
        FAIL();
    } catch (const SystemError& error) {
        EXPECT_EQ(error.description(), "Address already in use");
        EXPECT_EQ(error.code(), std::errc::address_in_use);
    }
}

TEST_F(LinuxNetworkTest, ListensAgainOnAPortWhoseConnectionsLinger) {
    ListenOptions options;
    std::unique_ptr<Listener> listener = listen();
    options.port = listener->port();
    Streams streams = connected(*listener);
    streams.second.reset(); // this end closes first, so it is the one that lingers
    EXPECT_EQ(fakes::runTask(context_, readBytes(*streams.first, 1)).size(), 0U);
    streams.first.reset();
    listener.reset();
    EXPECT_EQ(listen(options)->port(), options.port);
}

TEST_F(LinuxNetworkTest, EndsAPendingAcceptOnClose) {
    const std::unique_ptr<Listener> listener = listen();
    EXPECT_EQ(failureWhile(acceptAndForget(*listener, executor_), [&] { listener->close(); }), "listener cancelled");
    EXPECT_EQ(failureOfTask(acceptAndForget(*listener, executor_)), "listener cancelled");
    listener->close();
    EXPECT_EQ(failureOfTask(connectAndForget(network_, "127.0.0.1", listener->port(), executor_)),
              "Connection refused");
}

TEST_F(LinuxNetworkTest, ThrowsCancelledFromAnAcceptWhoseTaskIsCancelledAndListensOn) {
    const std::unique_ptr<Listener> listener = listen();
    EXPECT_TRUE(fakes::isCancelled(fakes::cancelMidway(context_, acceptAndForget(*listener, executor_))));
    const auto [a, b] = connected(*listener);
    EXPECT_NE(b, nullptr);
}

TEST_F(LinuxNetworkTest, SkipsAPeerThatIsGoneBeforeItIsAccepted) {
    const std::unique_ptr<Listener> listener = listen();
    RawSocket gone;
    ASSERT_EQ(gone.connect(listener->port()), 0);
    gone.reset();
    RawSocket here;
    ASSERT_EQ(here.connect(listener->port()), 0);
    ASSERT_EQ(::send(here.get(), "!", 1, 0), 1);
    const std::unique_ptr<Stream> stream = fakes::runTask(context_, listener->accept(executor_));
    EXPECT_EQ(toText(fakes::runTask(context_, readBytes(*stream, 1))), "!");
}

TEST_F(LinuxNetworkTest, ReportsThatDescriptorsHaveRunOutAndAcceptsOnceThereAreSome) {
    const std::unique_ptr<Listener> listener = listen();
    RawSocket raw;
    ASSERT_EQ(raw.connect(listener->port()), 0);
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const int lowestFree = ::fcntl(raw.get(), F_DUPFD_CLOEXEC, 0);
    ::close(lowestFree);
    const rlimit none{static_cast<rlim_t>(lowestFree), before.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
    const std::string failure = failureOfTask(acceptAndForget(*listener, executor_));
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(failure, "Too many open files");
    EXPECT_NE(fakes::runTask(context_, listener->accept(executor_)), nullptr);
}

TEST_F(LinuxNetworkTest, ClosesTheConnectionWithTheStream) {
    Streams streams = connected();
    streams.first.reset();
    EXPECT_EQ(fakes::runTask(context_, readBytes(*streams.second, 1)).size(), 0U);
}

// Connecting

TEST_F(LinuxNetworkTest, ReportsARefusedConnectionAtOnce) {
    const std::uint16_t port = listen()->port();
    EXPECT_EQ(failureOfTask(connectAndForget(network_, "127.0.0.1", port, executor_)), "Connection refused");
    if (hasIpv6Loopback()) {
        EXPECT_EQ(failureOfTask(connectAndForget(network_, "::1", port, executor_)), "Connection refused");
    }
}

/// A port at which nobody ever answers: its queue is full, so the system lets further attempts wait.
class SilentPort {
public:
    SilentPort() : port_(listener_.listen(0)) {
        for (int i = 0; i < 4; ++i) {
            waiting_.emplace_back(SOCK_NONBLOCK);
            waiting_.back().connect(port_);
        }
    }
    [[nodiscard]] std::uint16_t port() const { return port_; }

private:
    RawSocket listener_;
    std::uint16_t port_;
    std::vector<RawSocket> waiting_;
};

TEST_F(LinuxNetworkTest, ThrowsCancelledFromAConnectWhoseTaskIsCancelled) {
    const SilentPort silent;
    const std::exception_ptr end =
        fakes::cancelMidway(context_, connectAndForget(network_, "127.0.0.1", silent.port(), executor_));
    EXPECT_TRUE(fakes::isCancelled(end)) << failureOf(end);
}

TEST_F(LinuxNetworkTest, RunsAConnectionsWorkOnTheQueueThatWasAskedFor) {
    const Executor queue = asio::make_strand(context_);
    const std::unique_ptr<Listener> listener = network_.listen({}, queue);
    const std::unique_ptr<Stream> a = fakes::runTask(context_, network_.connect("127.0.0.1", listener->port(), queue));
    const std::unique_ptr<Stream> b = fakes::runTask(context_, listener->accept(queue));
    EXPECT_TRUE(a->executor() == queue);
    EXPECT_TRUE(b->executor() == queue);
}

TEST_F(LinuxNetworkTest, AsksNoResolverForWhatCannotBeAName) {
    for (const std::string& host : {std::string(), std::string("127.0.0.1\0.example", 18)}) {
        EXPECT_THAT(failureOfTask(connectAndForget(network_, host, 1, executor_)), testing::HasSubstr("not found"));
        EXPECT_FALSE(network_.isResolving());
    }
}

TEST_F(LinuxNetworkTest, ListensOnlyWhereItIsTold) {
    const std::unique_ptr<Listener> one = listen({.port = 0, .keepAlive = {}, .places = {"127.0.0.2"}});
    EXPECT_EQ(connected(*one, "127.0.0.2").second->localAddress(), "127.0.0.2");
    EXPECT_EQ(failureOfTask(connectAndForget(network_, "127.0.0.1", one->port(), executor_)), "Connection refused");
    const std::unique_ptr<Listener> loopback = listen({.port = 0, .keepAlive = {}, .places = {"lo"}});
    EXPECT_EQ(connected(*loopback, "127.0.0.3").second->localAddress(), "127.0.0.3");
    if (hasIpv6Loopback()) {
        EXPECT_EQ(connected(*loopback, "::1").second->localAddress(), "::1");
        EXPECT_EQ(failureOfTask(connectAndForget(network_, "::1", one->port(), executor_)), "Connection refused");
    }
}

TEST_F(LinuxNetworkTest, ListensAtSeveralPlacesOnOnePort) {
    const std::unique_ptr<Listener> several =
        listen({.port = 0, .keepAlive = {}, .places = {"127.0.0.2", "127.0.0.3"}});
    for (const char* place : {"127.0.0.3", "127.0.0.2", "127.0.0.3"}) {
        EXPECT_EQ(connected(*several, place).second->localAddress(), place);
    }
    EXPECT_EQ(failureOfTask(connectAndForget(network_, "127.0.0.1", several->port(), executor_)), "Connection refused");
    EXPECT_EQ(failureWhile(acceptAndForget(*several, executor_), [&several] { several->close(); }),
              "listener cancelled");
    const std::unique_ptr<Listener> again =
        listen({.port = several->port(), .keepAlive = {}, .places = {"127.0.0.2"}}); // and the port is free again
    EXPECT_EQ(again->port(), several->port());
}

TEST_F(LinuxNetworkTest, KnowsWhereItListens) {
    const auto placeOf = [this](std::vector<std::string> places) {
        return listen({.port = 0, .keepAlive = {}, .places = std::move(places)})->place();
    };
    EXPECT_EQ(placeOf({}), "");
    EXPECT_EQ(placeOf({"0.0.0.0"}), "");
    EXPECT_EQ(placeOf({"127.0.0.2"}), "127.0.0.2");
    EXPECT_EQ(placeOf({"127.0.0.3", "127.0.0.2"}), "127.0.0.3");
    EXPECT_EQ(placeOf({"lo"}), "lo");
    if (hasIpv6Loopback()) {
        EXPECT_EQ(placeOf({"::1"}), "::1");
        EXPECT_EQ(placeOf({"::"}), "::") << "no IPv4 connection comes there";
    }
    const std::unique_ptr<Listener> closed = listen({.port = 0, .keepAlive = {}, .places = {"127.0.0.2"}});
    closed->close();
    EXPECT_EQ(closed->place(), "");
}

TEST_F(LinuxNetworkTest, SaysThatAPlaceToListenAtIsNone) {
    for (const auto& [place, reason] :
         {std::pair{"no-such-iface", "No such device"}, std::pair{"192.0.2.1", "Cannot assign requested address"},
          std::pair{"an-interface-with-a-long-name", "No such device"}}) {
        try {
            const auto listener = listen({.port = 0, .keepAlive = {}, .places = {place}});
            ADD_FAILURE() << place;
        } catch (const SystemError& error) {
            EXPECT_EQ(error.description(), reason) << place;
        }
    }
}

TEST_F(LinuxNetworkTest, KnowsThatThePeerHasEndedWithoutReading) {
    Streams streams = connected();
    EXPECT_FALSE(streams.first->hasEnded());
    fakes::runTask(context_, writeBytes(*streams.second, pattern(1000)));
    EXPECT_FALSE(streams.first->hasEnded()) << "what has come is no end";
    streams.second->finishWriting();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!streams.first->hasEnded() && std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
    }
    EXPECT_TRUE(streams.first->hasEnded()) << "although there is something to be read";
    EXPECT_EQ(fakes::runTask(context_, readBytes(*streams.first, 2000)), pattern(1000));
    EXPECT_FALSE(streams.second->hasEnded());
    streams.first->abort();
    while (!streams.second->hasEnded() && std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
    }
    EXPECT_TRUE(streams.second->hasEnded());
    EXPECT_TRUE(streams.first->hasEnded()) << "closed by ourselves";
}

TEST_F(LinuxNetworkTest, WaitsForTheEndOfAConnection) {
    Streams streams = connected();
    bool hasEnded = false;
    const auto wait = [&](const std::exception_ptr& error) {
        EXPECT_FALSE(error);
        hasEnded = true;
    };
    fakes::runTask(context_, writeBytes(*streams.second, pattern(1000)));
    spawn(context_.get_executor(), streams.first->untilEnded(), wait);
    context_.restart();
    context_.poll();
    EXPECT_FALSE(hasEnded) << "what has come is no end";
    streams.second->finishWriting();
    context_.restart();
    context_.run_for(std::chrono::seconds(30));
    EXPECT_TRUE(hasEnded) << "although there is something to be read";
    EXPECT_EQ(fakes::runTask(context_, readBytes(*streams.first, 2000)), pattern(1000));
    fakes::runTask(context_, streams.first->untilEnded()); // once more, and at once

    hasEnded = false;
    spawn(context_.get_executor(), streams.second->untilEnded(), wait);
    context_.restart();
    context_.poll();
    EXPECT_FALSE(hasEnded);
    streams.second->cancel();
    context_.restart();
    context_.run_for(std::chrono::seconds(30));
    EXPECT_TRUE(hasEnded) << "closed by ourselves";
}

TEST_F(LinuxNetworkTest, CanBeCancelledWhileItWaitsForTheEnd) {
    const Streams streams = connected();
    EXPECT_TRUE(fakes::isCancelled(fakes::cancelMidway(context_, streams.first->untilEnded())));
}

} // namespace
} // namespace orlinth::platform
