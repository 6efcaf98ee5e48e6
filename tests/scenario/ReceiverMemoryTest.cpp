// What somebody costs the receive service who has connected, and proved nothing.

#include "fakes/RealReceiver.h"
#include "fakes/WrappedStream.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ORLINTH_SANITIZER_HEAP
#include <sanitizer/allocator_interface.h>
#endif
#endif

namespace orlinth {
namespace {

/// What a block of so many bytes may take of the heap: that of a sanitizer rounds up to a quarter more.
constexpr std::size_t takenFor(std::size_t bytes) {
#if defined(ORLINTH_SANITIZER_HEAP)
    return bytes + bytes / 4 + 1;
#else
    return bytes;
#endif
}

/// Bytes in use of the heap, by whatever means they were taken.
std::size_t heapBytes() {
#if defined(ORLINTH_SANITIZER_HEAP)
    return __sanitizer_get_current_allocated_bytes();
#else
    const struct mallinfo2 info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
#endif
}

/// Counts how far the connections of a listener have come.
struct Progress {
    std::atomic<int> prefixReads = 0; ///< reads of a length prefix that have begun
    std::atomic<int> bodyReads = 0;   ///< reads of a body that have begun: its memory is there
};

class CountingStream : public fakes::WrappedStream {
public:
    CountingStream(std::unique_ptr<platform::Stream> inner, Progress& progress)
        : WrappedStream(std::move(inner)), progress_(progress) {}
    Task<std::size_t> readExact(MutableBytes into) override {
        ++(into.size() == 4 ? progress_.prefixReads : progress_.bodyReads);
        return inner().readExact(into);
    }

private:
    Progress& progress_;
};

class CountingListener : public platform::Listener {
public:
    CountingListener(std::unique_ptr<platform::Listener> inner, Progress& progress)
        : inner_(std::move(inner)), progress_(progress) {}
    Task<std::unique_ptr<platform::Stream>> accept(Executor executor) override {
        std::unique_ptr<platform::Stream> stream = co_await inner_->accept(std::move(executor));
        co_return std::make_unique<CountingStream>(std::move(stream), progress_);
    }
    [[nodiscard]] std::uint16_t port() const noexcept override { return inner_->port(); }
    void close() noexcept override { inner_->close(); }

private:
    std::unique_ptr<platform::Listener> inner_;
    Progress& progress_;
};

/// A connection that costs this process no heap.
class BareSocket {
public:
    explicit BareSocket(std::uint16_t port) : number_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(number_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    BareSocket(const BareSocket&) = delete;
    BareSocket& operator=(const BareSocket&) = delete;
    BareSocket(BareSocket&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    ~BareSocket() {
        if (number_ != -1) {
            ::close(number_);
        }
    }
    void send(ByteView bytes) {
        EXPECT_EQ(::send(number_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }

private:
    int number_;
};

bool comesTo(const std::atomic<int>& count, int wanted) {
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (count < wanted && std::chrono::steady_clock::now() < giveUp) {
        std::this_thread::yield();
    }
    return count >= wanted;
}

using fakes::RealReceiver;

TEST(ReceiverMemory, OfAConnectionThatHasProvedNothingGrowsWithWhatItSends) {
    constexpr int connections = 200;
    constexpr int readsOfABody = 7;           // 1, 2, 4, ... KiB in the buffer, up to the 64 of the frame
    constexpr std::size_t allowed = 16 << 10; // besides what it has sent
    {
        const std::size_t before = heapBytes();
        const auto block = std::make_unique<std::byte[]>(1 << 20);
        asm volatile("" : : "r"(block.get()) : "memory"); // somebody may look at it: it cannot be optimised away
        ASSERT_GE(heapBytes() - before, std::size_t{1} << 20) << "the measure measures nothing";
    }
    Progress progress;
    RealReceiver service({platform::PrivateKey::generate().publicKey()});
    service.receiver().listener = std::make_unique<CountingListener>(std::move(service.receiver().listener), progress);
    service.start();
    std::vector<BareSocket> sockets;
    sockets.reserve(connections + 1);
    sockets.emplace_back(service.port()); // what is made once (threads, buffers) is not counted
    ASSERT_TRUE(comesTo(progress.prefixReads, 1));

    const std::size_t empty = heapBytes();
    for (int i = 0; i < connections; ++i) {
        sockets.emplace_back(service.port());
    }
    ASSERT_TRUE(comesTo(progress.prefixReads, connections + 1));
    const std::size_t silent = (heapBytes() - empty) / connections;
    RecordProperty("bytesOfASilentConnection", static_cast<int>(silent));
    EXPECT_LT(silent, allowed);
    EXPECT_GT(silent, 500U) << "less than a connection can be";

    Bytes frame(4 + Receiver::maxHandshakeFrame - 1); // the largest that is taken, all but its last byte
    frame[2] = frame[3] = std::byte{0xFF};
    static_assert(Receiver::maxHandshakeFrame == 0xFFFF);
    for (BareSocket& socket : sockets) {
        socket.send(ByteView(frame).first(4)); // only the promise
    }
    ASSERT_TRUE(comesTo(progress.bodyReads, connections + 1));
    const std::size_t promised = (heapBytes() - empty) / connections;
    RecordProperty("bytesBehindAPrefix", static_cast<int>(promised));
    EXPECT_LT(promised, silent + 4096) << "four bytes buy hardly any memory";

    for (BareSocket& socket : sockets) {
        socket.send(ByteView(frame).subspan(4));
    }
    ASSERT_TRUE(comesTo(progress.bodyReads, readsOfABody * (connections + 1)));
    const std::size_t inTheFrame = (heapBytes() - empty) / connections;
    RecordProperty("bytesWithinAHandshakeFrame", static_cast<int>(inTheFrame));
    EXPECT_LT(inTheFrame, allowed + takenFor(Receiver::maxHandshakeFrame));
    EXPECT_GT(inTheFrame, silent + Receiver::maxHandshakeFrame / 2);
    std::cout << "a silent connection: " << silent << " bytes, one behind a prefix: " << promised
              << ", one within a handshake frame: " << inTheFrame << "\n";
    service.stop();
}

} // namespace
} // namespace orlinth
