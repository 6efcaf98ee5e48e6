#include "OrlinthCore/SecureChannel/HandshakeExchange.h"

#include "fakes/MemoryNetwork.h"
#include "fakes/VirtualClock.h"
#include "platform/Spawn.h"

#include <gtest/gtest.h>

#include <array>

namespace orlinth {
namespace {

using fakes::runVirtual;
using platform::PrivateKey;

class HandshakeExchange : public testing::Test {
protected:
    HandshakeExchange() {
        fakes::MemoryConnection pair = fakes::connectedStreams(context_.get_executor());
        initiatorStream_ = pair.first.get();
        responderStream_ = pair.second.get();
        initiatorWire_.emplace(std::move(pair.first), clock_);
        responderWire_.emplace(std::move(pair.second), clock_);
    }
    NoiseHandshake handshake(NoiseRole role) const {
        return {role, role == NoiseRole::initiator ? initiatorKey_.clone() : responderKey_.clone(),
                asBytes(kOrlinthPrologue)};
    }
    void start(Task<> task) {
        platform::spawn(context_.get_executor(), std::move(task),
                        [this](std::exception_ptr error) { otherError_ = std::move(error); });
    }

    asio::io_context context_;
    fakes::VirtualClock clock_{context_};
    PrivateKey initiatorKey_ = PrivateKey::generate();
    PrivateKey responderKey_ = PrivateKey::generate();
    fakes::MemoryStream* initiatorStream_ = nullptr;
    fakes::MemoryStream* responderStream_ = nullptr;
    std::optional<WireConnection> initiatorWire_;
    std::optional<WireConnection> responderWire_;
    std::exception_ptr otherError_;
};

TEST_F(HandshakeExchange, MeetsInTheMiddleWithThreeFrames) {
    NoiseHandshake initiator = handshake(NoiseRole::initiator);
    NoiseHandshake responder = handshake(NoiseRole::responder);
    start(exchangeAsResponder(*responderWire_, responder));
    runVirtual(context_, clock_, exchangeAsInitiator(*initiatorWire_, initiator));
    fakes::runUntilIdle(context_, clock_);
    EXPECT_FALSE(otherError_);
    ASSERT_TRUE(initiator.isComplete() && responder.isComplete());
    EXPECT_EQ(initiatorStream_->writeCalls(), 2);
    EXPECT_EQ(responderStream_->writeCalls(), 1);
    const NoiseTransport ours = std::move(initiator).finalize();
    const NoiseTransport theirs = std::move(responder).finalize();
    EXPECT_EQ(ours.handshakeHash(), theirs.handshakeHash());
    EXPECT_EQ(ours.remoteStaticPublicKey(), responderKey_.publicKey());
    EXPECT_EQ(theirs.remoteStaticPublicKey(), initiatorKey_.publicKey());
}

TEST_F(HandshakeExchange, SendsEmptyPayloads) {
    NoiseHandshake initiator = handshake(NoiseRole::initiator);
    start(exchangeAsInitiator(*initiatorWire_, initiator));
    EXPECT_EQ(runVirtual(context_, clock_, responderWire_->receiveLengthPrefixed()).size(), 32u);
    initiatorWire_->close();
    fakes::runUntilIdle(context_, clock_);
}

Task<> respondWithPayload(WireConnection* wire, NoiseHandshake* handshake) {
    const Bytes first = co_await wire->receiveLengthPrefixed();
    static_cast<void>(handshake->readMessage(first));
    const Bytes second = handshake->writeMessage(asBytes("a payload that nobody has asked for"));
    co_await wire->sendLengthPrefixed(second);
    const Bytes third = co_await wire->receiveLengthPrefixed();
    static_cast<void>(handshake->readMessage(third));
}

TEST_F(HandshakeExchange, IgnoresAReceivedPayload) {
    NoiseHandshake initiator = handshake(NoiseRole::initiator);
    NoiseHandshake responder = handshake(NoiseRole::responder);
    start(respondWithPayload(&*responderWire_, &responder));
    runVirtual(context_, clock_, exchangeAsInitiator(*initiatorWire_, initiator));
    fakes::runUntilIdle(context_, clock_);
    EXPECT_FALSE(otherError_);
    EXPECT_TRUE(initiator.isComplete() && responder.isComplete());
}

TEST_F(HandshakeExchange, RefusesAMessageLargerThanNoiseAllows) {
    NoiseHandshake responder = handshake(NoiseRole::responder);
    const Bytes tooLong(NoiseHandshake::maxMessageBytes + 1);
    start(initiatorWire_->sendLengthPrefixed(tooLong));
    try {
        runVirtual(context_, clock_, exchangeAsResponder(*responderWire_, responder));
        FAIL() << "no error";
    } catch (const WireConnection::Error& error) {
        EXPECT_EQ(error.description(), "wire frame size 65536 exceeds cap");
    }
}

TEST_F(HandshakeExchange, ReportsAPeerThatHangsUp) {
    NoiseHandshake initiator = handshake(NoiseRole::initiator);
    responderStream_->finishWriting();
    try {
        runVirtual(context_, clock_, exchangeAsInitiator(*initiatorWire_, initiator));
        FAIL() << "no error";
    } catch (const WireConnection::Error& error) {
        EXPECT_EQ(error.which(), WireConnection::Error::Case::eof);
    }
    EXPECT_FALSE(initiator.isComplete());
}

TEST_F(HandshakeExchange, ReportsWhatTheHandshakeRefuses) {
    NoiseHandshake responder = handshake(NoiseRole::responder);
    const Bytes tooShort(31);
    start(initiatorWire_->sendLengthPrefixed(tooShort));
    try {
        runVirtual(context_, clock_, exchangeAsResponder(*responderWire_, responder));
        FAIL() << "no error";
    } catch (const NoiseError& error) {
        EXPECT_EQ(error.description(), "noise message too short (expected ≥ 32, got 31)");
    }
}

} // namespace
} // namespace orlinth
