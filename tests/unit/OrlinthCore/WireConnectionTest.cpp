#include "OrlinthCore/SecureChannel/WireConnection.h"

#include "base/Hex.h"
#include "fakes/CancelMidway.h"
#include "fakes/MemoryNetwork.h"
#include "fakes/VirtualClock.h"
#include "platform/Cancelled.h"
#include "platform/Spawn.h"
#include "platform/SystemError.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace orlinth {
namespace {

using fakes::MemoryConnection;
using fakes::MemoryStream;
using fakes::runVirtual;
using fakes::WireFaults;
using Farewell = WireConnection::Farewell;

/// A stream that plays back fixed bytes, notes how they were asked for, and keeps what was sent, call by call.
class ScriptedStream : public platform::Stream {
public:
    struct Record {
        std::vector<std::size_t> reads;
        std::vector<Bytes> writes;
        std::function<void(std::size_t)> beforeRead;
    };
    ScriptedStream(Executor executor, Bytes incoming, std::shared_ptr<Record> record)
        : executor_(std::move(executor)), incoming_(std::move(incoming)), record_(std::move(record)) {}

    [[nodiscard]] Task<> writeAll(ByteView data) override {
        record_->writes.push_back(toBytes(data));
        co_return;
    }
    [[nodiscard]] Task<std::size_t> readExact(MutableBytes into) override {
        if (record_->beforeRead) {
            record_->beforeRead(consumed_);
        }
        record_->reads.push_back(into.size());
        const std::size_t count = std::min(into.size(), incoming_.size() - consumed_);
        std::ranges::copy(ByteView(incoming_).subspan(consumed_, count), into.begin());
        consumed_ += count;
        co_return count;
    }
    void finishWriting() noexcept override {}
    void cancel() noexcept override {}
    [[nodiscard]] Executor executor() const override { return executor_; }
    [[nodiscard]] std::string remoteEndpoint() const override { return "198.51.100.1:1"; }
    [[nodiscard]] std::string localAddress() const override { return "198.51.100.2"; }

private:
    Executor executor_;
    Bytes incoming_;
    std::size_t consumed_ = 0;
    std::shared_ptr<Record> record_;
};

Bytes frameOf(ByteView body) {
    FrameBuffer buffer;
    buffer.resizeBody(body.size());
    std::ranges::copy(body, buffer.body().begin());
    return toBytes(buffer.frame());
}

class WireConnectionTest : public testing::Test {
protected:
    /// A wire whose peer is `peer_`, a bare stream.
    WireConnection& connect(WireFaults fromPeer = {}) {
        MemoryConnection pair = fakes::connectedStreams(context_.get_executor(), {}, fromPeer);
        ours_ = pair.first.get();
        peer_ = std::move(pair.second);
        return wire_.emplace(std::move(pair.first), clock_);
    }
    WireConnection& script(Bytes incoming) {
        return wire_.emplace(std::make_unique<ScriptedStream>(context_.get_executor(), std::move(incoming), record_),
                             clock_);
    }
    void peerSends(ByteView bytes) { runVirtual(context_, clock_, peer_->writeAll(bytes)); }
    Bytes peerReads(std::size_t count) {
        Bytes bytes(count);
        const std::size_t got = runVirtual(context_, clock_, peer_->readExact(bytes));
        bytes.resize(got);
        return bytes;
    }
    /// The wire error that `task` ends with.
    template <typename T>
    std::optional<WireConnection::Error> errorOf(Task<T> task) {
        try {
            static_cast<void>(runVirtual(context_, clock_, std::move(task)));
        } catch (const WireConnection::Error& error) {
            return error;
        }
        ADD_FAILURE() << "no error";
        return std::nullopt;
    }
    std::optional<WireConnection::Error> errorOf(Task<> task) { return errorOf(valued(std::move(task))); }
    static Task<int> valued(Task<> task) {
        co_await std::move(task);
        co_return 0;
    }
    /// Starts a task that goes on beside the test.
    void start(Task<> task) {
        platform::spawn(context_.get_executor(), std::move(task),
                        [](std::exception_ptr error) { EXPECT_FALSE(error) << describe(error); });
    }
    void TearDown() override {
        wire_.reset();
        fakes::runUntilIdle(context_, clock_);
        EXPECT_EQ(clock_.pendingAlarms(), 0u);
    }

    asio::io_context context_;
    fakes::VirtualClock clock_{context_};
    std::shared_ptr<ScriptedStream::Record> record_ = std::make_shared<ScriptedStream::Record>();
    std::unique_ptr<MemoryStream> peer_;
    MemoryStream* ours_ = nullptr;
    std::optional<WireConnection> wire_;
};

using Wire = WireConnectionTest;

// --- frames ---

TEST_F(Wire, SendsPrefixAndBodyInOneCall) {
    WireConnection& wire = script({});
    runVirtual(context_, clock_, wire.sendLengthPrefixed(Bytes(261, std::byte{0xAB})));
    ASSERT_EQ(record_->writes.size(), 1u);
    EXPECT_EQ(hexEncode(ByteView(record_->writes[0]).first(6)), "00000105abab");
    EXPECT_EQ(record_->writes[0].size(), 265u);
}

TEST_F(Wire, SendsAnEmptyBodyAsFourZeroBytes) {
    WireConnection& wire = script({});
    runVirtual(context_, clock_, wire.sendLengthPrefixed({}));
    FrameBuffer buffer;
    runVirtual(context_, clock_, wire.sendFrame(buffer));
    EXPECT_EQ(record_->writes, (std::vector{Bytes(4), Bytes(4)}));
}

TEST_F(Wire, ReceivesAnEmptyBodyWithoutAskingTheNetworkForIt) {
    WireConnection& wire = script(Bytes(4));
    EXPECT_EQ(runVirtual(context_, clock_, wire.receiveLengthPrefixed()), Bytes());
    EXPECT_EQ(record_->reads, std::vector<std::size_t>{4});
}

TEST_F(Wire, ReadsABigEndianPrefix) {
    Bytes body(261);
    for (std::size_t i = 0; i < body.size(); ++i) {
        body[i] = static_cast<std::byte>(i);
    }
    WireConnection& wire = script(concatenate({hexDecode("00000105").value(), body}));
    EXPECT_EQ(runVirtual(context_, clock_, wire.receiveLengthPrefixed()), body);
    EXPECT_EQ(record_->reads, (std::vector<std::size_t>{4, 261}));
}

TEST_F(Wire, CarriesTheLargestBodyBothWays) {
    WireConnection& wire = connect();
    Bytes body(WireConnection::maxFrameBytes, std::byte{0x11});
    body.back() = std::byte{0x22};
    MemoryConnection loop = fakes::connectedStreams(context_.get_executor());
    WireConnection sender(std::move(loop.first), clock_);
    WireConnection receiver(std::move(loop.second), clock_);
    start(sender.sendLengthPrefixed(body));
    const Bytes received = runVirtual(context_, clock_, receiver.receiveLengthPrefixed());
    EXPECT_TRUE(received == body);
    static_cast<void>(wire);
}

TEST_F(Wire, RefusesToSendMoreBeforeAByteIsSent) {
    WireConnection& wire = script({});
    const Bytes body(WireConnection::maxFrameBytes + 1);
    const auto error = errorOf(wire.sendLengthPrefixed(body));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->which(), WireConnection::Error::Case::oversize);
    EXPECT_EQ(error->length(), 16'777'281);
    EXPECT_EQ(error->description(), "wire frame size 16777281 exceeds cap");
    FrameBuffer buffer;
    buffer.resizeBody(WireConnection::maxFrameBytes + 1);
    EXPECT_EQ(errorOf(wire.sendFrame(buffer))->description(), "wire frame size 16777281 exceeds cap");
    EXPECT_TRUE(record_->writes.empty());
}

TEST_F(Wire, RefusesAPrefixThatAnnouncesMore) {
    WireConnection& wire = script(concatenate({hexDecode("01000041").value(), Bytes(100)}));
    const auto error = errorOf(wire.receiveLengthPrefixed());
    ASSERT_TRUE(error);
    EXPECT_EQ(error->description(), "wire frame size 16777281 exceeds cap");
    EXPECT_EQ(record_->reads, std::vector<std::size_t>{4}) << "the body is to stay unread";
}

TEST_F(Wire, RefusesThePrefixOfAllOnes) {
    WireConnection& wire = script(hexDecode("ffffffff").value());
    EXPECT_EQ(errorOf(wire.receiveLengthPrefixed())->length(), 4'294'967'295);
}

TEST_F(Wire, TakesALowerLimitForOneFrame) {
    WireConnection& wire = script(concatenate({frameOf(Bytes(8)), frameOf(Bytes(9))}));
    FrameBuffer buffer;
    runVirtual(context_, clock_, wire.receiveFrame(buffer, 8));
    EXPECT_EQ(buffer.body().size(), 8u);
    EXPECT_EQ(errorOf(wire.receiveFrame(buffer, 8))->description(), "wire frame size 9 exceeds cap");
}

TEST_F(Wire, ReceivesFramesThatArriveByteByByte) {
    WireConnection& wire = connect({.pieceBytes = 1});
    peerSends(concatenate({frameOf(asBytes("first")), frameOf({}), frameOf(asBytes("second"))}));
    EXPECT_EQ(runVirtual(context_, clock_, wire.receiveLengthPrefixed()), toBytes("first"));
    EXPECT_EQ(runVirtual(context_, clock_, wire.receiveLengthPrefixed()), Bytes());
    EXPECT_EQ(runVirtual(context_, clock_, wire.receiveLengthPrefixed()), toBytes("second"));
}

// --- memory ---

TEST_F(Wire, TakesNoMemoryForABodyThatDoesNotCome) {
    WireConnection& wire = script(hexDecode("01000040").value());
    FrameBuffer buffer;
    EXPECT_EQ(errorOf(wire.receiveFrame(buffer))->which(), WireConnection::Error::Case::eof);
    EXPECT_LE(buffer.bodyCapacity(), 1024u);
}

TEST_F(Wire, NeverHoldsMuchMoreMemoryThanBytesHaveCome) {
    Bytes body(5'000'000);
    for (std::size_t i = 0; i < body.size(); ++i) {
        body[i] = static_cast<std::byte>(i * 7 + i / 251);
    }
    WireConnection& wire = script(frameOf(body));
    FrameBuffer buffer;
    record_->beforeRead = [&buffer](std::size_t arrived) { EXPECT_LE(buffer.bodyCapacity(), 2 * arrived + 1024); };
    runVirtual(context_, clock_, wire.receiveFrame(buffer));
    EXPECT_TRUE(std::ranges::equal(buffer.body(), body));
    EXPECT_EQ(buffer.bodyCapacity(), body.size());
}

TEST_F(Wire, ReadsABodyAtOnceIntoABufferThatHasTheRoom) {
    const Bytes body(1'048'593, std::byte{0x5C});
    WireConnection& wire = script(concatenate({frameOf(body), frameOf(body), frameOf(Bytes(10))}));
    FrameBuffer buffer;
    runVirtual(context_, clock_, wire.receiveFrame(buffer));
    const std::byte* const place = buffer.body().data();
    record_->reads.clear();
    runVirtual(context_, clock_, wire.receiveFrame(buffer));
    runVirtual(context_, clock_, wire.receiveFrame(buffer));
    EXPECT_EQ(record_->reads, (std::vector<std::size_t>{4, body.size(), 4, 10}));
    EXPECT_EQ(buffer.body().data(), place);
    EXPECT_EQ(buffer.body().size(), 10u);
}

TEST_F(Wire, SendsAFrameFromWhereItLies) {
    WireConnection& wire = script({});
    FrameBuffer buffer;
    buffer.resizeBody(3);
    std::ranges::copy(asBytes("abc"), buffer.body().begin());
    runVirtual(context_, clock_, wire.sendFrame(buffer));
    ASSERT_EQ(record_->writes.size(), 1u);
    EXPECT_EQ(hexEncode(record_->writes[0]), "00000003616263");
}

// --- failures ---

TEST_F(Wire, ReportsAStreamThatEndsAtAnyPlaceInAFrame) {
    const Bytes frame = frameOf(asBytes("abcdef"));
    for (std::size_t length = 0; length < frame.size(); ++length) {
        WireConnection& wire = connect({.endAfter = length == 0 ? std::nullopt : std::optional(length)});
        if (length == 0) {
            peer_->finishWriting();
        }
        peerSends(frame);
        const auto error = errorOf(wire.receiveLengthPrefixed());
        ASSERT_TRUE(error);
        EXPECT_EQ(error->which(), WireConnection::Error::Case::eof) << length;
        EXPECT_EQ(error->isBetweenFrames(), length == 0) << length;
        EXPECT_EQ(error->description(), "wire EOF before expected bytes");
    }
}

TEST_F(Wire, WrapsTheTextOfANetworkError) {
    WireConnection& wire = connect();
    peer_->abort();
    const std::string reset = platform::SystemError::fromErrno(ECONNRESET).description();
    const auto receiving = errorOf(wire.receiveLengthPrefixed());
    EXPECT_EQ(receiving->which(), WireConnection::Error::Case::underlying);
    EXPECT_EQ(receiving->description(), "wire I/O error: " + reset);
    EXPECT_EQ(errorOf(wire.sendLengthPrefixed(asBytes("x")))->description(), "wire I/O error: " + reset);
}

TEST_F(Wire, FailsEverythingAfterClose) {
    WireConnection& wire = connect();
    wire.close();
    wire.close();
    EXPECT_EQ(errorOf(wire.receiveLengthPrefixed())->description(), "wire I/O error: connection cancelled");
    EXPECT_EQ(errorOf(wire.sendLengthPrefixed({}))->description(), "wire I/O error: connection cancelled");
}

TEST_F(Wire, ShowsThePeerAResetWhenItAborts) {
    WireConnection& wire = connect();
    wire.abort();
    wire.abort();
    EXPECT_EQ(errorOf(wire.receiveLengthPrefixed())->description(), "wire I/O error: connection cancelled");
    EXPECT_THROW(static_cast<void>(peerReads(1)), platform::SystemError);
}

TEST_F(Wire, ShowsThePeerAResetHoweverItEndsOnceThatIsAskedFor) {
    connect().resetOnClose(true);
    wire_.reset();
    EXPECT_THROW(static_cast<void>(peerReads(1)), platform::SystemError);

    WireConnection& silent = connect();
    silent.resetOnClose(true);
    silent.idleTimeout = 1s;
    EXPECT_TRUE(errorOf(silent.receiveLengthPrefixed()));
    EXPECT_THROW(static_cast<void>(peerReads(1)), platform::SystemError);

    WireConnection& settled = connect();
    settled.resetOnClose(true);
    settled.resetOnClose(false);
    settled.close();
    EXPECT_EQ(peerReads(1), Bytes());
}

TEST_F(Wire, ClosesTheStreamWhenItGoes) {
    connect();
    wire_.reset();
    EXPECT_EQ(peerReads(1), Bytes());
}

TEST_F(Wire, LetsACancellationThroughUnchanged) {
    WireConnection& wire = connect();
    asio::cancellation_signal cancel;
    std::exception_ptr ended;
    platform::spawn(
        context_.get_executor(),
        [](WireConnection* connection) -> Task<> {
            static_cast<void>(co_await connection->receiveLengthPrefixed());
        }(&wire),
        cancel.slot(), [&ended](std::exception_ptr error) { ended = std::move(error); });
    context_.poll();
    EXPECT_FALSE(ended);
    cancel.emit(asio::cancellation_type::terminal);
    context_.restart();
    context_.poll();
    fakes::expectCancellation(ended);
}

// --- the idle time-out ---

TEST_F(Wire, CancelsTheConnectionWhenThePeerStaysSilent) {
    WireConnection& wire = connect();
    wire.idleTimeout = 2s;
    const auto error = errorOf(wire.receiveLengthPrefixed());
    EXPECT_EQ(error->description(), "wire I/O error: connection cancelled");
    EXPECT_DOUBLE_EQ(clock_.elapsed(), 2);
    EXPECT_TRUE(ours_->isCancelled());
}

TEST_F(Wire, WaitsForEverWithoutATimeout) {
    WireConnection& wire = connect();
    bool ended = false;
    platform::spawn(
        context_.get_executor(),
        [](WireConnection* connection) -> Task<> {
            static_cast<void>(co_await connection->receiveLengthPrefixed());
        }(&wire),
        [&ended](std::exception_ptr) { ended = true; });
    fakes::runUntilIdle(context_, clock_);
    EXPECT_FALSE(ended);
    EXPECT_EQ(clock_.pendingAlarms(), 0u);
    wire.close();
    fakes::runUntilIdle(context_, clock_);
    EXPECT_TRUE(ended);
}

TEST_F(Wire, LeavesTheConnectionOpenAfterAReadInTime) {
    WireConnection& wire = connect();
    wire.idleTimeout = 2s;
    peerSends(frameOf(asBytes("in time")));
    EXPECT_EQ(runVirtual(context_, clock_, wire.receiveLengthPrefixed()), toBytes("in time"));
    runVirtual(context_, clock_, clock_.sleep(10s));
    EXPECT_FALSE(ours_->isCancelled());
    peerSends(frameOf(asBytes("later")));
    EXPECT_EQ(runVirtual(context_, clock_, wire.receiveLengthPrefixed()), toBytes("later"));
}

Task<> sendSlowly(MemoryStream* stream, fakes::VirtualClock* clock, std::vector<Bytes> pieces, Seconds pause) {
    for (const Bytes& piece : pieces) {
        co_await clock->sleep(pause);
        co_await stream->writeAll(piece);
    }
}

TEST_F(Wire, GivesPrefixAndBodyTheFullTimeoutEach) {
    WireConnection& wire = connect();
    wire.idleTimeout = 2s;
    start(sendSlowly(peer_.get(), &clock_, {hexDecode("00000002").value(), toBytes("ab")}, 1500ms));
    EXPECT_EQ(runVirtual(context_, clock_, wire.receiveLengthPrefixed()), toBytes("ab"));
    EXPECT_DOUBLE_EQ(clock_.elapsed(), 3);
}

TEST_F(Wire, DoesNotGiveALargeBodyMoreTimeBecauseItIsReadInSteps) {
    WireConnection& wire = connect();
    wire.idleTimeout = 2s;
    const Bytes piece(65'536);
    bool peerFailed = false;
    platform::spawn(context_.get_executor(),
                    sendSlowly(peer_.get(), &clock_, {hexDecode("00040000").value(), piece, piece}, 1500ms),
                    [&peerFailed](std::exception_ptr error) { peerFailed = error != nullptr; });
    EXPECT_EQ(errorOf(wire.receiveLengthPrefixed())->which(), WireConnection::Error::Case::underlying);
    EXPECT_DOUBLE_EQ(clock_.elapsed(), 3.5) << "prefix at 1.5, and two seconds for the whole body";
    fakes::runUntilIdle(context_, clock_);
    EXPECT_TRUE(peerFailed) << "the peer writes into a connection that is gone";
}

TEST_F(Wire, SetsNoAlarmAgainWhenAReadHasFailed) {
    WireConnection& wire = connect();
    wire.idleTimeout = 2s;
    peer_->finishWriting();
    EXPECT_EQ(errorOf(wire.receiveLengthPrefixed())->which(), WireConnection::Error::Case::eof);
    EXPECT_LE(clock_.pendingAlarms(), 1u);
    clock_.advanceToNextAlarm();
    EXPECT_EQ(clock_.pendingAlarms(), 0u);
}

TEST_F(Wire, MeasuresEachReadFromItsOwnStart) {
    WireConnection& wire = connect();
    wire.idleTimeout = 2s;
    for (int frame = 1; frame <= 3; ++frame) { // each one comes a second and a half after the one before
        start([](MemoryStream* peer, fakes::VirtualClock* clock) -> Task<> {
            co_await clock->sleep(1500ms);
            const Bytes bytes = frameOf(asBytes("x"));
            co_await peer->writeAll(bytes);
        }(peer_.get(), &clock_));
        EXPECT_EQ(runVirtual(context_, clock_, wire.receiveLengthPrefixed()), toBytes("x"));
        EXPECT_DOUBLE_EQ(clock_.elapsed(), 1.5 * frame);
    }
    EXPECT_EQ(errorOf(wire.receiveLengthPrefixed())->which(), WireConnection::Error::Case::underlying);
    EXPECT_DOUBLE_EQ(clock_.elapsed(), 4.5 + 2);
}

TEST_F(Wire, ReadsTheTimeoutAtTheStartOfEachRead) {
    WireConnection& wire = connect();
    wire.idleTimeout = 2s;
    peerSends(frameOf(asBytes("x")));
    EXPECT_EQ(runVirtual(context_, clock_, wire.receiveLengthPrefixed()), toBytes("x"));
    wire.idleTimeout = 5s;
    EXPECT_EQ(errorOf(wire.receiveLengthPrefixed())->which(), WireConnection::Error::Case::underlying);
    EXPECT_DOUBLE_EQ(clock_.elapsed(), 5);
}

// --- the farewell ---

TEST_F(Wire, TellsThePeerThatNothingMoreComesAndWaitsForItToClose) {
    WireConnection& wire = connect();
    start([](MemoryStream* peer, fakes::VirtualClock* clock) -> Task<> {
        Bytes none(1);
        const std::size_t count = co_await peer->readExact(none);
        EXPECT_EQ(count, 0u) << "the end of our side";
        co_await clock->sleep(250ms);
        peer->cancel();
    }(peer_.get(), &clock_));
    EXPECT_EQ(runVirtual(context_, clock_, wire.closeAfterFarewell(1s)), Farewell::closed);
    EXPECT_DOUBLE_EQ(clock_.elapsed(), 0.25);
    EXPECT_TRUE(ours_->isCancelled());
}

TEST_F(Wire, DropsWhateverStillComesAtTheFarewell) {
    WireConnection& wire = connect();
    start([](MemoryStream* peer) -> Task<> {
        const Bytes unwanted(200'000);
        co_await peer->writeAll(unwanted);
        peer->finishWriting();
    }(peer_.get()));
    EXPECT_EQ(runVirtual(context_, clock_, wire.closeAfterFarewell(1s)), Farewell::closed);
}

TEST_F(Wire, SaysAtTheFarewellThatThePeerBrokeOff) {
    WireConnection& wire = connect();
    peer_->abort();
    EXPECT_EQ(runVirtual(context_, clock_, wire.closeAfterFarewell(1s)), Farewell::brokeOff);
    EXPECT_TRUE(ours_->isCancelled());
}

TEST_F(Wire, GivesUpTheFarewellAfterTheGivenTime) {
    WireConnection& wire = connect();
    EXPECT_EQ(runVirtual(context_, clock_, wire.closeAfterFarewell(1s)), Farewell::acknowledged);
    EXPECT_DOUBLE_EQ(clock_.elapsed(), 1);
    EXPECT_TRUE(ours_->isCancelled());
}

TEST_F(Wire, KnowsAtTheFarewellThatBytesNeverCameThrough) {
    WireConnection& wire = connect();
    peer_->cutWire();
    EXPECT_EQ(runVirtual(context_, clock_, wire.closeAfterFarewell(1s)), Farewell::silent);
    EXPECT_DOUBLE_EQ(clock_.elapsed(), 1);
    EXPECT_TRUE(ours_->isCancelled());
}

TEST_F(Wire, WaitsAtTheFarewellAsLongAsWhatWasSentComesThrough) {
    WireConnection& wire = connect();
    peer_->cutWire();
    runVirtual(context_, clock_, wire.sendLengthPrefixed(toBytes("123456")));
    start([](MemoryStream* peer, fakes::VirtualClock* clock) -> Task<> {
        for (int i = 0; i < 6; ++i) {
            co_await clock->sleep(40s);
            peer->acknowledge(2);
        }
    }(peer_.get(), &clock_));
    EXPECT_EQ(runVirtual(context_, clock_, wire.closeAfterFarewell(60s)), Farewell::acknowledged);
    EXPECT_DOUBLE_EQ(clock_.elapsed(), 360) << "the last of them came through at 240, and was seen at 300";
}

TEST_F(Wire, GivesUpTheFarewellWhereNothingMoreComesThrough) {
    WireConnection& wire = connect();
    peer_->cutWire();
    runVirtual(context_, clock_, wire.sendLengthPrefixed(toBytes("123456")));
    start([](MemoryStream* peer, fakes::VirtualClock* clock) -> Task<> {
        co_await clock->sleep(40s);
        peer->acknowledge(2);
    }(peer_.get(), &clock_));
    EXPECT_EQ(runVirtual(context_, clock_, wire.closeAfterFarewell(60s)), Farewell::silent);
    EXPECT_DOUBLE_EQ(clock_.elapsed(), 120);
}

TEST_F(Wire, DoesNotWaitAtAFarewellOfNoTime) {
    WireConnection& wire = connect();
    EXPECT_EQ(runVirtual(context_, clock_, wire.closeAfterFarewell(0s)), Farewell::silent);
    EXPECT_DOUBLE_EQ(clock_.elapsed(), 0);
    EXPECT_TRUE(ours_->isCancelled());
}

TEST_F(Wire, LetsACancellationOfTheFarewellThroughAndCloses) {
    WireConnection& wire = connect();
    asio::cancellation_signal cancel;
    std::exception_ptr ended;
    platform::spawn(
        context_.get_executor(),
        [](WireConnection* connection) -> Task<> {
            static_cast<void>(co_await connection->closeAfterFarewell(1s));
        }(&wire),
        cancel.slot(), [&ended](std::exception_ptr error) { ended = std::move(error); });
    context_.poll();
    cancel.emit(asio::cancellation_type::terminal);
    context_.restart();
    context_.poll();
    fakes::expectCancellation(ended);
    EXPECT_TRUE(ours_->isCancelled());
}

} // namespace
} // namespace orlinth
