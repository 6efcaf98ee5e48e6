#include "OrlinthCore/Receiving/ReceiveTransfer.h"
#include "fakes/ReceiverWorld.h"
#include "fakes/Sidecar.h"

#include <gmock/gmock.h>

namespace orlinth {
namespace {

using fakes::ReceiverWorld;
using fakes::ScriptedPeer;
using testing::ElementsAre;
using testing::IsEmpty;
using Row = TransportMessage;

const platform::Path folder = ReceiverWorld::folder;

class ReceiverFrames : public testing::Test {
protected:
    ReceiverFrames() { world.putPeers({world.phoneRecord(), world.tabletRecord()}); }

    /// A service and a phone in this state: before an offer, or with an open transfer.
    std::unique_ptr<ScriptedPeer> phoneIn(bool openTransfer) {
        std::unique_ptr<ScriptedPeer> phone = world.phone();
        if (openTransfer) {
            world.offer(*phone, "a.txt");
            world.sendData(*phone, "01234");
        }
        return phone;
    }
    /// The connection has ended with this failure of the phone's, and the service goes on.
    void expectFailure(ScriptedPeer& phone, const std::string& text) {
        EXPECT_TRUE(world.seesTheEnd(phone));
        ASSERT_THAT(world.failureTexts(), ElementsAre(text));
        EXPECT_EQ(world.failures[0].from, "Pixel-8");
        EXPECT_EQ(world.ends(), 1U);
        expectServesOn();
    }
    void expectServesOn() {
        const std::size_t before = world.transfers.size();
        const auto next = world.connectAs(world.tabletKey);
        world.offer(*next, "next.txt", 0, "ID-next");
        world.send(*next, Row::done());
        EXPECT_EQ(world.transfers.size(), before + 1);
    }
    void expectPartial(bool openTransfer) {
        if (openTransfer) {
            EXPECT_EQ(world.text(folder / "a.txt.partial"), "01234");
            EXPECT_TRUE(fakes::sidecarOf(world.files, folder / "a.txt.partial"));
        }
        EXPECT_EQ(ActiveTransfers::shared().ownerCount(), 0U);
        EXPECT_EQ(ActiveTransfers::shared().drainingCount(), 0U);
    }

    ReceiverWorld world;
};

/// In both states of a conversation.
class ReceiverFramesInState : public ReceiverFrames, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(BeforeAnOfferAndInATransfer, ReceiverFramesInState, testing::Bool());

TEST_P(ReceiverFramesInState, AClipboardEndsTheConnectionWithItsTextAndSender) {
    world.start();
    const auto phone = phoneIn(GetParam());
    world.send(*phone, Row::clipboard("some text", "text/html"));
    EXPECT_TRUE(world.seesTheEnd(*phone));
    ASSERT_EQ(world.clips.size(), 1U);
    EXPECT_EQ(world.clips[0].text, "some text");
    EXPECT_EQ(world.clips[0].mime, "text/html");
    EXPECT_EQ(world.clips[0].from, "Pixel-8");
    EXPECT_EQ(world.ends(), 1U);
    expectPartial(GetParam());
    expectServesOn();
}

TEST_P(ReceiverFramesInState, ASetNameEndsTheConnectionAndTheRecordFollows) {
    world.start();
    const auto phone = phoneIn(GetParam());
    world.send(*phone, Row::setName("Ann's phone"));
    EXPECT_TRUE(world.seesTheEnd(*phone));
    ASSERT_EQ(world.syncs.size(), 1U);
    const auto& outcome = std::get<Receiver::SetName>(world.syncs[0]);
    EXPECT_EQ(outcome.name, "Ann's phone");
    EXPECT_EQ(outcome.from, "Pixel-8") << "as it was called before";
    world.passUntilRecordsAreWritten();
    EXPECT_EQ(world.onlyPeer().peer_hostname, "Ann's phone");
    expectPartial(GetParam());
}

TEST_P(ReceiverFramesInState, ANameUpdateEndsTheConnectionAndTheRecordFollows) {
    world.start();
    const auto phone = phoneIn(GetParam());
    world.send(*phone, Row::nameUpdate("Ann's phone"));
    EXPECT_TRUE(world.seesTheEnd(*phone));
    ASSERT_EQ(world.syncs.size(), 1U);
    const auto& outcome = std::get<Receiver::NameUpdate>(world.syncs[0]);
    EXPECT_EQ(outcome.name, "Ann's phone");
    EXPECT_EQ(outcome.from, "Pixel-8");
    world.passUntilRecordsAreWritten();
    EXPECT_EQ(world.onlyPeer().peer_hostname, "Ann's phone");
    expectPartial(GetParam());
}

TEST_P(ReceiverFramesInState, AnUnpairEndsTheConnectionAndItsRecordIsGone) {
    world.start();
    const auto phone = phoneIn(GetParam());
    world.send(*phone, Row::unpair());
    EXPECT_TRUE(world.seesTheEnd(*phone));
    ASSERT_EQ(world.syncs.size(), 1U);
    const auto& outcome = std::get<Receiver::Unpair>(world.syncs[0]);
    EXPECT_EQ(outcome.from, "Pixel-8");
    EXPECT_EQ(outcome.peerKey, world.phoneKey.publicKey().peerKey());
    const PeerBook book = PeerStore(world.files, world.system.directories).loadBook();
    ASSERT_EQ(book.peers.size(), 1U);
    EXPECT_EQ(book.peers[0].peer_hostname, "Tablet") << "the other phone's stays";
    expectPartial(GetParam());
}

TEST_P(ReceiverFramesInState, ADeclineEndsTheConnection) {
    world.start();
    const auto phone = phoneIn(GetParam());
    world.send(*phone, Row::decline());
    EXPECT_TRUE(world.seesTheEnd(*phone));
    ASSERT_EQ(world.syncs.size(), 1U);
    const auto& outcome = std::get<Receiver::Declined>(world.syncs[0]);
    EXPECT_EQ(outcome.from, "Pixel-8");
    EXPECT_EQ(outcome.name, "");
    expectPartial(GetParam());
}

TEST_F(ReceiverFrames, AnOfferWithAnIdThatIsTooLongIsAViolationAndNobodyIsAsked) {
    world.make().approveOffer = [](Receiver::Offer) -> Task<bool> {
        ADD_FAILURE() << "somebody was asked";
        co_return true;
    };
    world.start();
    const auto phone = world.phone();
    world.send(*phone, Row::fileOffer("a.txt", 10, "text/plain", std::string(257, 'x')));
    EXPECT_TRUE(world.seesTheEnd(*phone));
    EXPECT_THAT(world.failureTexts(), ElementsAre("protocol violation: transfer id of 257 bytes, more than 256"));
}

TEST_F(ReceiverFrames, AMessageThatIsLongAndNoTextIsAViolation) {
    world.start();
    const std::string text(limits::freeFrameBytes, 'x');
    for (const Row& message :
         {Row::fileOffer(text, 10, "text/plain", "ID-1"), Row::fileOffer("a.txt", 10, text, "ID-1"), Row::setName(text),
          Row::nameUpdate(text), Row::tokenUpdate(text)}) {
        const auto phone = world.phone();
        world.send(*phone, message);
        EXPECT_TRUE(world.seesTheEnd(*phone));
        ASSERT_FALSE(world.failures.empty());
        EXPECT_THAT(world.failureTexts().back(), testing::MatchesRegex("protocol violation: message of 65... bytes"));
    }
    EXPECT_EQ(world.failures.size(), 5U);
    const auto phone = world.phone();
    world.send(*phone, Row::clipboard(text, "text/plain"));
    EXPECT_EQ(world.clips.size(), 1U);
}

TEST_F(ReceiverFrames, AnOfferBeyondTheLimitsIsDeclinedAndNobodyIsAsked) {
    int asked = 0;
    Receiver& receiver = world.make();
    receiver.approveOffer = [&asked](Receiver::Offer) -> Task<bool> {
        ++asked;
        co_return true;
    };
    receiver.downloadLimits = {.keepFreeBytes = 1000, .maxFileBytes = 5000};
    world.files.setCapacity(10'000);
    world.start();
    const auto tooLarge = world.phone();
    world.send(*tooLarge, Row::fileOffer("film.mov", 5001, "video/quicktime", "ID-1"));
    static_cast<void>(world.run(tooLarge->expect<Row::Decline>()));
    EXPECT_EQ(world.run(tooLarge->howItEnds()), "wire EOF before expected bytes");
    tooLarge->close();
    world.files.setCapacity(4000);
    const auto noRoom = world.phone();
    world.send(*noRoom, Row::fileOffer("song.mp3", 4000, "audio/mpeg", "ID-2"));
    static_cast<void>(world.run(noRoom->expect<Row::Decline>()));
    EXPECT_TRUE(world.seesTheEnd(*noRoom));
    noRoom->close();
    world.settle();
    EXPECT_EQ(asked, 0);
    ASSERT_EQ(world.syncs.size(), 2U);
    const auto& first = std::get<Receiver::Declined>(world.syncs[0]);
    EXPECT_EQ(first.name, "film.mov");
    EXPECT_EQ(first.refusal, (DownloadRefusal{DownloadRefusal::Reason::tooLarge, 5000}));
    const auto& second = std::get<Receiver::Declined>(world.syncs[1]);
    EXPECT_EQ(second.refusal, (DownloadRefusal{DownloadRefusal::Reason::noRoom, 1000}));
    expectServesOn();
    EXPECT_EQ(asked, 1);
}

TEST_P(ReceiverFramesInState, AResumeIsAViolation) {
    world.start();
    const auto phone = phoneIn(GetParam());
    world.send(*phone, Row::resume("ID-1", ByteOffset(3)));
    expectFailure(*phone, "protocol violation: unexpected Resume message from sender");
    expectPartial(GetParam());
}

TEST_P(ReceiverFramesInState, ATokenUpdateGoesToTheRecordAndTheConversationGoesOn) {
    world.start();
    const auto phone = phoneIn(GetParam());
    world.send(*phone, Row::tokenUpdate("token 1"));
    world.send(*phone, Row::tokenUpdate("token 2"));
    EXPECT_EQ(world.ends(), 0U);
    if (!GetParam()) {
        world.offer(*phone, "a.txt");
        world.sendData(*phone, "01234");
    }
    world.sendData(*phone, "56789");
    world.send(*phone, Row::done());
    EXPECT_EQ(world.transfers.size(), 1U);
    EXPECT_EQ(world.text(folder / "a.txt"), "0123456789");
    world.passUntilRecordsAreWritten();
    const PeerRecord last = PeerStore(world.files, world.system.directories).loadBook().peers.back();
    EXPECT_EQ(last.peer_fcm_token, "token 2");
    EXPECT_EQ(last.peer_hostname, "Pixel-8");
}

TEST_P(ReceiverFramesInState, AFrameThatDoesNotOpenIsFatalForItsConnectionOnly) {
    world.start();
    const auto phone = phoneIn(GetParam());
    world.run(phone->wire().sendLengthPrefixed(Bytes(40)));
    EXPECT_TRUE(world.seesTheEnd(*phone));
    ASSERT_EQ(world.failures.size(), 1U);
    EXPECT_THAT(world.failureTexts()[0], testing::StartsWith("frame decrypt failed: "));
    EXPECT_EQ(world.failures[0].from, "Pixel-8");
    expectPartial(GetParam());
    expectServesOn();
}

TEST_P(ReceiverFramesInState, APhoneThatHangsUpIsReported) {
    world.start();
    const auto phone = phoneIn(GetParam());
    phone->close();
    world.settle();
    EXPECT_THAT(world.failureTexts(), ElementsAre("wire EOF before expected bytes"));
    EXPECT_EQ(world.failures[0].from, "Pixel-8");
    expectPartial(GetParam());
    expectServesOn();
}

TEST_F(ReceiverFrames, DataBeforeAnOfferIsAViolation) {
    world.start();
    const auto phone = world.phone();
    world.sendData(*phone, "01234");
    expectFailure(*phone, "protocol violation: binary frame before FileOffer");
}

TEST_F(ReceiverFrames, DoneBeforeAnOfferIsAViolation) {
    world.start();
    const auto phone = world.phone();
    world.send(*phone, Row::done());
    expectFailure(*phone, "protocol violation: Done received without FileOffer");
}

TEST_F(ReceiverFrames, ASecondOfferIsAViolation) {
    world.start();
    const auto phone = phoneIn(true);
    world.send(*phone, Row::fileOffer("b.txt", 1, "text/plain", "ID-2"));
    expectFailure(*phone, "protocol violation: duplicate FileOffer");
    expectPartial(true);
    EXPECT_FALSE(world.files.exists(folder / "b.txt.partial"));
}

// ---- who may speak

TEST_F(ReceiverFrames, AStrangerGetsNoFrameAndTheNextConnectionIsServed) {
    world.start();
    const auto stranger = world.connectAs(platform::PrivateKey::generate());
    EXPECT_TRUE(world.seesTheEnd(*stranger)) << "and no frame before it";
    EXPECT_THAT(world.failureTexts(), ElementsAre("remote pubkey \u2260 paired peer"));
    EXPECT_EQ(world.failures[0].from, "");
    EXPECT_EQ(world.failures[0].remoteEndpoint, "203.0.113.1:40112");
    EXPECT_THAT(world.authenticated, IsEmpty());
    expectServesOn();
}

TEST_F(ReceiverFrames, ARemovedPhoneGetsExactlyOneUnpairAndNoFrameOfItIsRead) {
    Receiver& receiver = world.start();
    receiver.setRemovedPeerPubkeys({world.phoneKey.publicKey()}); // still among the expected ones
    EXPECT_EQ(receiver.removedPeerPubkeys().size(), 1U);
    const auto phone = world.run(ScriptedPeer::connect(world, ReceiverWorld::port, world.phoneKey));
    world.run(phone->send(Row::clipboard("not for you", "text/plain")));
    world.run(phone->send(Row::unpair()));
    static_cast<void>(world.run(phone->expect<Row::Unpair>()));
    EXPECT_TRUE(world.seesTheEnd(*phone)) << "one frame and no more";
    phone->close();
    world.settle();
    ASSERT_EQ(world.syncs.size(), 1U);
    const auto& outcome = std::get<Receiver::UnpairReplied>(world.syncs[0]);
    EXPECT_EQ(outcome.peerKey, world.phoneKey.publicKey().peerKey());
    EXPECT_EQ(outcome.remoteEndpoint, "203.0.113.1:40112");
    EXPECT_EQ(world.ends(), 1U);
    EXPECT_THAT(world.authenticated, IsEmpty());
    EXPECT_EQ(PeerStore(world.files, world.system.directories).loadBook().peers.size(), 2U);
}

TEST_F(ReceiverFrames, ARemovedPhoneThatDoesNotHangUpIsHungUpOnAfterFiveSeconds) {
    Receiver& receiver = world.start();
    receiver.setExpectedPeerPubkeys({});
    receiver.setRemovedPeerPubkeys({world.phoneKey.publicKey()});
    const auto phone = world.phone();
    world.pass(4900ms);
    EXPECT_EQ(world.ends(), 0U);
    world.pass(200ms);
    ASSERT_EQ(world.syncs.size(), 1U);
    EXPECT_TRUE(std::holds_alternative<Receiver::UnpairReplied>(world.syncs[0]));
}

TEST_F(ReceiverFrames, APhoneThatIsRemovedWhileItIsConnectedCannotDeliverAnyMore) {
    Receiver& receiver = world.start();
    const std::vector<TransportMessage> deliveries{Row::fileOffer("a.txt", 3, "text/plain", "ID-1"),
                                                   Row::clipboard("too late", "text/plain"), Row::setName("too late"),
                                                   Row::tokenUpdate("too late")};
    for (const TransportMessage& delivery : deliveries) {
        receiver.setRemovedPeerPubkeys({});
        const auto phone = world.phone();
        world.send(*phone, Row::tokenUpdate("keeps it busy"));
        receiver.setRemovedPeerPubkeys({world.phoneKey.publicKey()});
        const std::size_t before = world.syncs.size();
        world.run(phone->send(delivery));
        static_cast<void>(world.run(phone->expect<Row::Unpair>()));
        phone->close();
        world.settle();
        ASSERT_EQ(world.syncs.size(), before + 1);
        EXPECT_TRUE(std::holds_alternative<Receiver::UnpairReplied>(world.syncs.back()));
    }
    EXPECT_TRUE(world.clips.empty());
    EXPECT_TRUE(world.files.list(ReceiverWorld::folder).empty());
}

TEST_F(ReceiverFrames, APhoneThatNobodyKnowsAnyMoreWhileItIsConnectedIsUnauthorized) {
    Receiver& receiver = world.start();
    const auto phone = world.phone();
    world.settle();
    receiver.setExpectedPeerPubkeys({});
    world.run(phone->send(Row::clipboard("too late", "text/plain")));
    EXPECT_TRUE(world.seesTheEnd(*phone));
    EXPECT_TRUE(world.clips.empty());
    EXPECT_EQ(world.failures.size(), 1U);
}

TEST_F(ReceiverFrames, KeysSetWhileItRunsCountForTheNextConnection) {
    Receiver& receiver = world.start();
    const platform::PrivateKey fresh = platform::PrivateKey::generate();
    receiver.setExpectedPeerPubkeys({fresh.publicKey()});
    EXPECT_TRUE(world.seesTheEnd(*world.phone()));
    const auto added = world.connectAs(fresh);
    world.offer(*added, "a.txt", 0);
    receiver.setExpectedPeerPubkeys({});
    world.send(*added, Row::done());
    ASSERT_EQ(world.transfers.size(), 1U) << "who is there already may finish";
    EXPECT_EQ(world.transfers[0].from, "(unknown peer)");
    EXPECT_TRUE(world.seesTheEnd(*world.connectAs(fresh)));
    receiver.setRemovedPeerPubkeys({world.phoneKey.publicKey()});
    receiver.setRemovedPeerPubkeys({});
    receiver.setExpectedPeerPubkeys({world.phoneKey.publicKey()});
    static_cast<void>(world.offer(*world.phone(), "b.txt", 0));
}

TEST_F(ReceiverFrames, TheHostMayRenewTheListsBeforeAKeyIsLookedUp) {
    Receiver& receiver = world.make();
    receiver.setExpectedPeerPubkeys({});
    int asked = 0;
    receiver.beforeAuthorising = [&] {
        ++asked;
        receiver.setExpectedPeerPubkeys({world.phoneKey.publicKey()});
    };
    world.start();
    const auto phone = world.phone();
    world.settle();
    EXPECT_EQ(asked, 1);
    world.offer(*phone, "a.txt", 0);
    EXPECT_EQ(asked, 2) << "it may have been removed since it came";
}

TEST_F(ReceiverFrames, APairedPhoneIsToldOfWithItsRecordBeforeAnyFrameIsRead) {
    world.start();
    const auto phone = world.phone();
    world.settle();
    ASSERT_EQ(world.authenticated.size(), 1U);
    EXPECT_EQ(world.authenticated[0].phone, world.phoneRecord());
    EXPECT_EQ(world.authenticated[0].remoteEndpoint, "203.0.113.1:40112");
    EXPECT_EQ(world.ends(), 0U);
}

TEST_F(ReceiverFrames, APhoneThatWasToldOfHasLeftOnceBehindWhatBecameOfItsConnection) {
    using testing::ElementsAre;
    world.start();
    const PeerKey key = world.phoneKey.publicKey().peerKey();
    const auto phone = world.phone();
    world.settle();
    EXPECT_THAT(world.left, IsEmpty());
    world.send(*phone, Row::clipboard("text", "text/plain"));
    EXPECT_THAT(world.left, ElementsAre(std::pair(key, std::size_t{1})));
    const auto silent = world.phone();
    world.send(*silent, Row::tokenUpdate("token"));
    silent->close();
    world.settle();
    EXPECT_THAT(world.left, ElementsAre(std::pair(key, std::size_t{1}), std::pair(key, std::size_t{1})))
        << "also if there is nothing to tell of it";
    const auto stranger = world.connectAs(platform::PrivateKey::generate());
    EXPECT_TRUE(world.seesTheEnd(*stranger));
    EXPECT_EQ(world.left.size(), 2U) << "nobody was told that he came";
}

TEST_F(ReceiverFrames, APhoneThatIsGoneWasHeardOfWhenItsLastFrameCame) {
    world.start();
    const auto phone = world.phone();
    world.pass(10s);
    world.send(*phone, Row::tokenUpdate("token"));
    const platform::Clock::Instant then = world.clock.now();
    world.pass(Receiver::idleTimeout + 1s);
    EXPECT_EQ(world.left.size(), 1U) << "it was given up";
    EXPECT_EQ(world.heardAt, then);
    const auto other = world.phone();
    world.pass(10s);
    other->close();
    world.settle();
    EXPECT_EQ(world.left.size(), 2U);
    EXPECT_EQ(world.heardAt, world.clock.now()) << "it has hung up just now";
}

// ---- the handshake, and silence

TEST_F(ReceiverFrames, ABrokenHandshakeIsReportedAndNothingElseHappens) {
    world.start();
    WireConnection wire(world.silentStranger(), world.clock);
    world.run(wire.sendLengthPrefixed(Bytes(31)));
    world.settle();
    ASSERT_EQ(world.failures.size(), 1U);
    EXPECT_THAT(world.failureTexts()[0], testing::StartsWith("noise handshake failed: "));
    EXPECT_EQ(world.failures[0].from, "");
    expectServesOn();
}

TEST_F(ReceiverFrames, WhoUsesAnotherPrologueCannotReadOurAnswerAndLeaves) {
    world.start();
    const auto phone = world.run(ScriptedPeer::connect(world, ReceiverWorld::port, world.phoneKey, "Orlinth_v1"));
    world.alongside([](ReceiverWorld& theWorld) -> Task<> {
        try {
            static_cast<void>(
                co_await ScriptedPeer::connect(theWorld, ReceiverWorld::port, theWorld.phoneKey, "Another"));
            ADD_FAILURE() << "the handshake succeeds";
        } catch (const NoiseError&) {
        } catch (const WireConnection::Error&) {
        }
    }(world));
    world.settle();
    EXPECT_THAT(world.failureTexts(), IsEmpty());
    EXPECT_EQ(world.receiver->lookCount(), 1U) << "from here it is the same as a look";
    EXPECT_EQ(world.authenticated.size(), 1U) << "the phone's only";
}

TEST_F(ReceiverFrames, AHandshakeMessageBeyondTheLimitIsRefusedByItsPrefix) {
    world.start();
    const auto stranger = world.silentStranger();
    static_assert(Receiver::maxHandshakeFrame + 1 == 0x1'0000);
    world.run(stranger->writeAll(asBytes(std::string_view("\0\1\0\0", 4))));
    world.settle();
    EXPECT_THAT(world.failureTexts(), ElementsAre("noise handshake failed: wire frame size 65536 exceeds cap"));
}

TEST_F(ReceiverFrames, AHandshakeMessageMayHaveAPayloadOfTheLargestSize) {
    static_assert(Receiver::maxHandshakeFrame >= 65'535);
    world.start();
    WireConnection wire(world.silentStranger(), world.clock);
    NoiseHandshake handshake(NoiseRole::initiator, world.phoneKey.clone(), asBytes(kOrlinthPrologue));
    constexpr std::size_t ephemeralKey = 32;
    constexpr std::size_t sealedKeyAndTag = 48 + 16;
    const Bytes first = handshake.writeMessage(Bytes(NoiseHandshake::maxMessageBytes - ephemeralKey));
    ASSERT_EQ(first.size(), NoiseHandshake::maxMessageBytes);
    world.run(wire.sendLengthPrefixed(first));
    const Bytes second = world.run(wire.receiveLengthPrefixed());
    static_cast<void>(handshake.readMessage(second));
    const Bytes third = handshake.writeMessage(Bytes(NoiseHandshake::maxMessageBytes - sealedKeyAndTag));
    ASSERT_EQ(third.size(), NoiseHandshake::maxMessageBytes);
    world.run(wire.sendLengthPrefixed(third));
    world.settle();
    EXPECT_THAT(world.failureTexts(), IsEmpty());
    EXPECT_EQ(world.authenticated.size(), 1U);
}

TEST_F(ReceiverFrames, WhoHangsUpInTheHandshakeIsReported) {
    world.start();
    world.silentStranger().reset();
    world.settle();
    EXPECT_THAT(world.failureTexts(), ElementsAre("noise handshake failed: wire EOF before expected bytes"));
    EXPECT_EQ(world.receiver->lookCount(), 0U) << "it has not said the first message";
}

/// Somebody who has said the first message of the handshake, and got the answer to it.
class Onlooker {
public:
    explicit Onlooker(ReceiverWorld& world) : wire(world.silentStranger(), world.clock) {
        NoiseHandshake handshake(NoiseRole::initiator, world.phoneKey.clone(), asBytes(kOrlinthPrologue));
        world.run(wire.sendLengthPrefixed(handshake.writeMessage({})));
        static_cast<void>(handshake.readMessage(world.run(wire.receiveLengthPrefixed())));
        last = handshake.writeMessage({});
    }

    WireConnection wire;
    Bytes last; ///< its next message, which it has not sent
};

TEST_F(ReceiverFrames, ALookIsCountedAndNobodyHearsOfIt) {
    world.start();
    for (std::uint64_t looks = 1; looks <= 3; ++looks) {
        Onlooker onlooker(world);
        onlooker.wire.close();
        world.settle();
        EXPECT_EQ(world.receiver->lookCount(), looks);
    }
    EXPECT_EQ(world.ends(), 0U);
    EXPECT_THAT(world.authenticated, IsEmpty());
    expectServesOn();
}

TEST_F(ReceiverFrames, WhoBreaksOffBehindOurAnswerHasNotLooked) {
    world.start();
    Onlooker resets(world);
    resets.wire.abort();
    world.settle();
    EXPECT_EQ(world.failures.size(), 1U);

    world.network.faults.push_back({{.endAfter = 4 + 32 + 4 + 63}, {}}); // a byte before the end of its next message
    Onlooker torn(world);
    world.run(torn.wire.sendLengthPrefixed(torn.last));
    world.settle();
    EXPECT_EQ(world.failures.size(), 2U);

    Onlooker lies(world);
    lies.last.back() ^= std::byte{1};
    world.run(lies.wire.sendLengthPrefixed(lies.last));
    world.settle();
    EXPECT_EQ(world.failures.size(), 3U);
    for (const std::string& text : world.failureTexts()) {
        EXPECT_THAT(text, testing::StartsWith("noise handshake failed: "));
    }
    EXPECT_EQ(world.receiver->lookCount(), 0U);
}

TEST_F(ReceiverFrames, WhoStaysBehindOurAnswerForTooLongHasNotLooked) {
    world.make().limits.handshakeLimit = 10s;
    world.start();
    const Onlooker stays(world);
    world.pass(11s);
    EXPECT_THAT(world.failureTexts(), ElementsAre("noise handshake failed: not complete in time"));
    EXPECT_EQ(world.receiver->lookCount(), 0U);
}

TEST_F(ReceiverFrames, ThoseWhoLookAreStrangersLikeOthers) {
    world.make().limits.strangersOfOneSource = 2;
    world.start();
    std::vector<std::unique_ptr<Onlooker>> crowd;
    for (int i = 0; i < 4; ++i) {
        crowd.push_back(std::make_unique<Onlooker>(world));
    }
    world.pass(limits::strangerGrace * 2);
    EXPECT_EQ(world.failures.size(), 2U) << "two had to make room";
    crowd.clear();
    world.settle();
    EXPECT_EQ(world.receiver->lookCount(), 2U);
    EXPECT_EQ(world.failures.size(), 2U);
}

TEST_F(ReceiverFrames, AStrangerWhoSaysNothingIsGivenUpAfterSixtySeconds) {
    world.start();
    const auto silent = world.silentStranger();
    world.pass(59999ms);
    EXPECT_EQ(world.ends(), 0U);
    world.pass(2ms);
    EXPECT_THAT(world.failureTexts(), ElementsAre("noise handshake failed: wire I/O error: connection cancelled"));
    expectServesOn();
}

TEST_P(ReceiverFramesInState, APhoneThatFallsSilentIsGivenUpAfterSixtySeconds) {
    world.start();
    const auto phone = phoneIn(GetParam());
    world.settle();
    world.pass(59999ms);
    EXPECT_EQ(world.ends(), 0U);
    world.pass(2ms);
    expectFailure(*phone, "wire I/O error: connection cancelled");
    expectPartial(GetParam());
}

TEST_F(ReceiverFrames, APhoneThatSpeaksNowAndThenStays) {
    world.start();
    const auto phone = phoneIn(true);
    for (int i = 0; i < 5; ++i) {
        world.pass(59s);
        world.sendData(*phone, "x");
    }
    world.send(*phone, Row::done());
    EXPECT_EQ(world.text(folder / "a.txt"), "01234xxxxx");
}

// ---- many strangers

TEST_F(ReceiverFrames, TheStrangerBeyondTheLimitEndsTheOldestAndAPairedPhoneIsServed) {
    world.start();
    const auto busy = phoneIn(true); // has proved its key: it does not count
    std::vector<std::unique_ptr<platform::Stream>> strangers;
    for (std::size_t i = 0; i < Receiver::maxStrangers; ++i) {
        strangers.push_back(world.silentStranger());
    }
    world.settle();
    EXPECT_EQ(world.ends(), 0U);
    strangers.push_back(world.silentStranger());
    world.settle();
    EXPECT_THAT(world.failureTexts(), ElementsAre("wire: too many connections of strangers"));
    std::array<std::byte, 1> byte{};
    EXPECT_EQ(world.run(strangers[0]->readExact(byte)), 0U) << "the oldest is the one that was ended";
    const auto phone = world.connectAs(world.tabletKey);
    world.offer(*phone, "tablet.txt", 0, "ID-tablet");
    world.send(*phone, Row::done());
    world.sendData(*busy, "56789");
    world.send(*busy, Row::done());
    EXPECT_EQ(world.transfers.size(), 2U);
    EXPECT_EQ(world.failures.size(), 2U) << "and one more made room for the tablet";
    world.stopAndWait();
    EXPECT_FALSE(world.ended);
}

// ---- long names, through both paths

class LongNames : public testing::TestWithParam<bool> {
protected:
    LongNames() { world.putPeers({world.phoneRecord()}); }

    static Task<> receive(ReceiverWorld& world) {
        ReceiveRequest request{.staticKey = world.computerKey,
                               .expectedPeerPubkey = world.phoneKey.publicKey(),
                               .downloadsDir = folder,
                               .port = ReceiverWorld::port};
        try {
            static_cast<void>(co_await receiveOneTransfer(world.system, std::move(request)));
        } catch (const Error&) {
            // the test looks at what is left
        }
    }
    std::unique_ptr<ScriptedPeer> connect() {
        if (!GetParam()) {
            world.alongside(receive(world));
            world.settle();
        } else if (!world.running) {
            world.start();
        }
        return world.phone();
    }
    void deliver(const std::string& name, const std::string& id) {
        const auto phone = connect();
        EXPECT_EQ(world.offer(*phone, name, 10, id), 0) << name.size();
        world.sendData(*phone, "0123456789");
        world.send(*phone, Row::done());
        EXPECT_EQ(world.run(phone->howItEnds()), "wire EOF before expected bytes") << name.size();
    }

    ReceiverWorld world;
};

INSTANTIATE_TEST_SUITE_P(OfBothReceivers, LongNames, testing::Bool(),
                         [](const auto& info) { return info.param ? "Service" : "OneFile"; });

TEST_P(LongNames, ArriveWhateverTheirLength) {
    for (const std::size_t bytes : {232U, 233U, 237U, 238U, 255U}) {
        const std::string id = std::to_string(bytes);
        deliver(std::string(bytes - 8, static_cast<char>('a' + bytes % 26)) + ".tar.bz2", id);
    }
    std::size_t arrived = 0;
    for (const std::string& file : world.files.allFiles()) {
        if (file.starts_with(folder.native())) {
            EXPECT_TRUE(file.ends_with(".bz2")) << file;
            EXPECT_EQ(world.text(file), "0123456789");
            ++arrived;
        }
    }
    EXPECT_EQ(arrived, 5U);
}

TEST_P(LongNames, AreResumedAndDoNotCollide) {
    const std::string one = std::string(250, 'x') + "1.txt";
    const std::string two = std::string(250, 'x') + "2.txt";
    const auto interrupted = connect();
    EXPECT_EQ(world.offer(*interrupted, one, 10, "ID-1"), 0);
    world.sendData(*interrupted, "01234");
    interrupted->close();
    world.settle();
    deliver(two, "ID-2");
    const auto again = connect();
    EXPECT_EQ(world.offer(*again, one, 10, "ID-1"), 5);
    world.sendData(*again, "56789");
    world.send(*again, Row::done());
    EXPECT_EQ(world.text(folder / (std::string(233, 'x') + ".txt")), "0123456789");
    EXPECT_EQ(world.text(folder / (std::string(231, 'x') + " 2.txt")), "0123456789");
}

} // namespace
} // namespace orlinth
