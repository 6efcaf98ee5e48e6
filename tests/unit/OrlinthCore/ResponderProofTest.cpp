#include "OrlinthCore/SecureChannel/ResponderProof.h"

#include "fakes/CancelMidway.h"
#include "fakes/MemoryNetwork.h"
#include "fakes/VirtualClock.h"
#include "platform/Spawn.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

namespace orlinth {
namespace {

using fakes::runVirtual;
using platform::PrivateKey;
using testing::StartsWith;
using Case = ResponderError::Case;

constexpr std::size_t firstFrameBytes = 36; // the length, and an ephemeral key

/// What a fake responder says to the first message, as bytes on the wire, and whether it ends the connection then.
struct Answer {
    Bytes bytes;
    bool ends = false;
};

/// The same in a frame.
Bytes framed(ByteView body) {
    FrameBuffer frame;
    frame.resizeBody(body.size());
    std::ranges::copy(body, frame.body().begin());
    return toBytes(frame.frame());
}

/// Answers the first frame, and counts whatever comes from then on, up to the end.
struct FakeResponder {
    std::unique_ptr<fakes::MemoryStream> stream;
    std::function<Answer(ByteView firstMessage)> answer;
    Bytes received{};
    bool hasSeenTheEnd = false;
};

Task<> respond(FakeResponder* fake) {
    fake->received.resize(firstFrameBytes);
    const std::size_t first = co_await fake->stream->readExact(fake->received);
    fake->received.resize(first);
    const Answer answer = fake->answer(ByteView(fake->received).subspan(WireConnection::lengthPrefixBytes));
    co_await fake->stream->writeAll(answer.bytes);
    if (answer.ends) {
        fake->stream->finishWriting();
    }
    Bytes rest(1000);
    const std::size_t more = co_await fake->stream->readExact(rest);
    fake->received.insert(fake->received.end(), rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(more));
    fake->hasSeenTheEnd = more < rest.size();
}

class ResponderProof : public testing::Test {
protected:
    /// Runs against a responder that answers so; the faults are of what it sends. Whatever comes of it, the first
    /// message was all that it got.
    platform::PublicKey prove(std::function<Answer(ByteView)> answer, fakes::WireFaults faults = {},
                              Seconds limit = 2s) {
        fakes::MemoryConnection pair = fakes::connectedStreams(context_.get_executor(), {}, faults);
        fake_ = {.stream = std::move(pair.second), .answer = std::move(answer)};
        platform::spawn(context_.get_executor(), respond(&fake_), [](const std::exception_ptr&) {});
        struct Finally {
            ResponderProof& test;
            ~Finally() {
                fakes::runUntilIdle(test.context_, test.clock_);
                EXPECT_EQ(test.fake_.received.size(), firstFrameBytes);
                EXPECT_EQ(test.clock_.pendingAlarms(), 0U);
            }
        } const finally{*this};
        return runVirtual(context_, clock_,
                          proveResponder(std::move(pair.first), clock_, limit, std::string(kOrlinthPrologue)));
    }
    /// Expects this failure.
    ResponderError failure(Case expected, std::function<Answer(ByteView)> answer, fakes::WireFaults faults = {}) {
        try {
            static_cast<void>(prove(std::move(answer), faults));
        } catch (const ResponderError& error) {
            EXPECT_EQ(error.which(), expected) << error.description();
            return error;
        }
        ADD_FAILURE() << "a key was proved";
        return ResponderError::network("none");
    }
    /// A genuine second message.
    [[nodiscard]] Bytes secondMessage(ByteView first, ByteView payload = {},
                                      std::string_view prologue = kOrlinthPrologue) const {
        NoiseHandshake handshake(NoiseRole::responder, phoneKey_.clone(), asBytes(prologue));
        static_cast<void>(handshake.readMessage(first));
        return handshake.writeMessage(payload);
    }
    [[nodiscard]] auto genuine() const {
        return [this](ByteView first) { return Answer{framed(secondMessage(first))}; };
    }

    asio::io_context context_;
    fakes::VirtualClock clock_{context_};
    PrivateKey phoneKey_ = PrivateKey::generate();
    FakeResponder fake_;
};

TEST_F(ResponderProof, ReturnsTheKeyAndHangsUpAfterTheFirstMessage) {
    EXPECT_EQ(prove(genuine()), phoneKey_.publicKey());
    EXPECT_TRUE(fake_.hasSeenTheEnd) << "in good order";
    EXPECT_EQ(toBytes(ByteView(fake_.received).first(4)),
              (Bytes{std::byte{0}, std::byte{0}, std::byte{0}, std::byte{32}}));
    EXPECT_EQ(clock_.elapsed(), 0);
}

TEST_F(ResponderProof, ShowsAKeyOfItsOwnEachTime) {
    static_cast<void>(prove(genuine()));
    const Bytes first = fake_.received;
    static_cast<void>(prove(genuine()));
    EXPECT_NE(first, fake_.received) << "nobody can tell from it who asks";
}

TEST_F(ResponderProof, TakesAPayloadUpToTheLimitAndNoLonger) {
    const auto answerOf = [this](std::size_t payloadBytes) {
        return
            [this, payloadBytes](ByteView first) { return Answer{framed(secondMessage(first, Bytes(payloadBytes)))}; };
    };
    constexpr std::size_t longest = maxSecondMessageBytes - minSecondMessageBytes;
    EXPECT_EQ(prove(answerOf(longest)), phoneKey_.publicKey());
    EXPECT_THAT(failure(Case::noFrame, answerOf(longest + 1)).description(),
                "no frame of 96 to 4096 bytes: wire frame size 4097 exceeds cap");
}

TEST_F(ResponderProof, TakesNoByteAwryForAProof) {
    for (std::size_t at = 0; at < minSecondMessageBytes; ++at) {
        SCOPED_TRACE(at);
        failure(Case::otherProtocol, [this, at](ByteView first) {
            Bytes message = secondMessage(first);
            message[at] ^= std::byte{1};
            return Answer{framed(message)};
        });
    }
}

TEST_F(ResponderProof, TakesNoShorterMessageForAProof) {
    for (std::size_t length = 0; length < minSecondMessageBytes; ++length) {
        SCOPED_TRACE(length);
        const ResponderError error = failure(Case::noFrame, [this, length](ByteView first) {
            return Answer{framed(ByteView(secondMessage(first)).first(length))};
        });
        EXPECT_EQ(error.description(), "no frame of 96 to 4096 bytes: it has " + std::to_string(length));
    }
}

TEST_F(ResponderProof, TakesNoAnswerToSomebodyElseForAProof) {
    NoiseHandshake earlier(NoiseRole::initiator, PrivateKey::generate(), asBytes(kOrlinthPrologue));
    const Bytes recorded = secondMessage(earlier.writeMessage({}));
    failure(Case::otherProtocol, [&recorded](ByteView) { return Answer{framed(recorded)}; });
}

TEST_F(ResponderProof, TakesNoOtherPrologue) {
    failure(Case::otherProtocol,
            [this](ByteView first) { return Answer{framed(secondMessage(first, {}, "Orlinth_v2"))}; });
}

TEST_F(ResponderProof, TakesNoKeyOfLowOrder) {
    EXPECT_THAT(failure(Case::otherProtocol, [](ByteView) { return Answer{framed(Bytes(minSecondMessageBytes))}; })
                    .description(),
                StartsWith("not this protocol: "));
}

TEST_F(ResponderProof, TakesNoOtherServerForAPhone) {
    for (const char* greeting : {"HTTP/1.1 400 Bad Request\r\n\r\n", "SSH-2.0-OpenSSH_9.2\r\n", "220 mail ready\r\n"}) {
        SCOPED_TRACE(greeting);
        failure(Case::noFrame, [greeting](ByteView) { return Answer{toBytes(greeting)}; });
        EXPECT_EQ(clock_.elapsed(), 0) << "it need not end the connection";
    }
}

TEST_F(ResponderProof, IsNoneIfTheConnectionEndsEarly) {
    for (std::size_t length = 0; length < WireConnection::lengthPrefixBytes + minSecondMessageBytes; ++length) {
        SCOPED_TRACE(length);
        const ResponderError error = failure(Case::noFrame, [this, length](ByteView first) {
            Bytes bytes = framed(secondMessage(first));
            bytes.resize(length);
            return Answer{std::move(bytes), true};
        });
        EXPECT_EQ(error.description(), "no frame of 96 to 4096 bytes: wire EOF before expected bytes");
    }
}

TEST_F(ResponderProof, IsNoneIfTheConnectionBreaks) {
    EXPECT_THAT(failure(Case::network, genuine(), {.resetAfter = 50}).description(),
                StartsWith("the connection broke: wire I/O error: "));
}

TEST_F(ResponderProof, IsNoneOfWhoeverStaysSilent) {
    const ResponderError error = failure(Case::silent, [](ByteView) { return Answer{}; });
    EXPECT_EQ(error.description(), "no answer in 2 seconds");
    EXPECT_EQ(clock_.elapsed(), 2);
    EXPECT_TRUE(fake_.hasSeenTheEnd);
}

TEST_F(ResponderProof, IsNoneOfWhoeverStopsInTheMiddle) {
    failure(Case::silent, genuine(), {.vanishAfter = 60});
    EXPECT_EQ(clock_.elapsed(), 2);
}

Task<> trickle(fakes::MemoryStream* stream, platform::Clock* clock, Bytes bytes) {
    for (const std::byte one : bytes) {
        const Bytes piece{one};
        co_await clock->sleep(100ms);
        co_await stream->writeAll(piece);
    }
}

TEST_F(ResponderProof, IsNoneOfWhoeverIsTooSlowAsAWhole) {
    const auto slowly = [this](ByteView first) {
        platform::spawn(context_.get_executor(), trickle(fake_.stream.get(), &clock_, framed(secondMessage(first))),
                        [](const std::exception_ptr&) {}); // it is hung up on
        return Answer{};
    };
    failure(Case::silent, slowly);
    EXPECT_GE(clock_.elapsed(), 2);
}

TEST_F(ResponderProof, IsCompleteHoweverSmallThePieces) {
    EXPECT_EQ(prove(genuine(), {.pieceBytes = 1}), phoneKey_.publicKey());
}

Task<> ignoreKey(std::unique_ptr<platform::Stream> stream, platform::Clock* clock) {
    static_cast<void>(co_await proveResponder(std::move(stream), *clock, 2s, std::string(kOrlinthPrologue)));
}

TEST_F(ResponderProof, ClosesTheConnectionIfItIsCancelled) {
    fakes::MemoryConnection pair = fakes::connectedStreams(context_.get_executor());
    fake_ = {.stream = std::move(pair.second), .answer = [](ByteView) { return Answer{}; }};
    platform::spawn(context_.get_executor(), respond(&fake_), [](const std::exception_ptr&) {});
    fakes::expectCancellation(fakes::cancelMidway(context_, ignoreKey(std::move(pair.first), &clock_)));
    EXPECT_EQ(fake_.received.size(), firstFrameBytes);
    EXPECT_TRUE(fake_.hasSeenTheEnd);
}

} // namespace
} // namespace orlinth
