#include "OrlinthCore/Receiving/PartialMeta.h"
#include "OrlinthCore/Receiving/RecordUpdates.h"
#include "OrlinthCore/Receiving/SenderRecord.h"
#include "fakes/ReceiverWorld.h"

#include <gmock/gmock.h>

namespace orlinth {
namespace {

using fakes::ReceiverWorld;
using fakes::ScriptedListener;
using fakes::ScriptedPeer;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using Row = TransportMessage;

const platform::Path folder = ReceiverWorld::folder;
const platform::Path peerFile = ReceiverWorld::peerFile;

// ---- what a phone may change in its record

class ReceiverRecords : public testing::Test {
protected:
    ReceiverWorld world;
};

TEST_F(ReceiverRecords, ATokenOfAPhoneWithoutARecordChangesNothingAndItsFileIsDelivered) {
    world.putPeers({world.tabletRecord()});
    const std::string before = world.text(peerFile);
    world.start();
    const auto phone = world.phone();
    world.send(*phone, Row::tokenUpdate("token"));
    world.offer(*phone, "a.txt", 0);
    world.send(*phone, Row::done());
    ASSERT_EQ(world.transfers.size(), 1U);
    EXPECT_EQ(world.transfers[0].from, "(unknown peer)");
    EXPECT_EQ(world.text(peerFile), before);
    EXPECT_THAT(world.authenticated, IsEmpty()) << "there is no record to tell of";
    EXPECT_THAT(world.failures, IsEmpty());
}

TEST_F(ReceiverRecords, WithoutAnyStoreNothingIsWritten) {
    world.start();
    const auto phone = world.phone();
    world.send(*phone, Row::tokenUpdate("token"));
    world.send(*phone, Row::setName("Phone"));
    EXPECT_THAT(world.files.allFiles(), IsEmpty());
    ASSERT_EQ(world.syncs.size(), 1U);
    EXPECT_EQ(std::get<Receiver::SetName>(world.syncs[0]).from, "(unknown peer)");
}

TEST_F(ReceiverRecords, TheLatestTokenIsWrittenLastAlsoIfAWriteTakesLong) {
    world.putPeers({world.phoneRecord()});
    const platform::PublicKey key = world.phoneKey.publicKey();
    const auto updates =
        std::make_shared<RecordUpdates>(PeerStore(world.files, world.system.directories), world.clock, world.queues);
    const auto noTrouble = [](const std::exception_ptr& /*error*/) { ADD_FAILURE() << "nothing went wrong"; };
    bool isFirst = true;
    world.files.beforeEach([&](fakes::Operation operation, const platform::Path& path) {
        if (operation == fakes::Operation::open && path == peerFile && std::exchange(isFirst, false)) {
            world.pass(2 * limits::recordInterval);
            updates->say(key, {.token = "second"}, noTrouble);
        }
    });
    updates->say(key, {.token = "first"}, noTrouble);
    EXPECT_EQ(world.onlyPeer().peer_fcm_token, "first");
    world.run(updates->finish());
    EXPECT_EQ(world.onlyPeer().peer_fcm_token, "second");
}

TEST_F(ReceiverRecords, AnUnreadableStoreIsReportedAndTheFileIsDelivered) {
    world.files.put(peerFile, "rubbish");
    world.start();
    const auto phone = world.phone();
    world.send(*phone, Row::tokenUpdate("token"));
    world.offer(*phone, "a.txt");
    world.sendData(*phone, "0123456789");
    world.send(*phone, Row::done());
    ASSERT_EQ(world.transfers.size(), 1U);
    EXPECT_EQ(world.transfers[0].from, "(unknown peer)");
    EXPECT_EQ(world.text(folder / "a.txt"), "0123456789");
    ASSERT_EQ(world.failures.size(), 2U) << "once for its name, once for its token";
    for (const Receiver::Failure& failure : world.failures) {
        EXPECT_THAT(describe(failure.error), StartsWith("PeerRecord decode failed: "));
        EXPECT_EQ(failure.from, "(unknown peer)");
        EXPECT_EQ(failure.remoteEndpoint, "203.0.113.1:40112");
    }
    EXPECT_EQ(world.text(peerFile), "rubbish") << "it is left for a person to look at";
}

TEST_F(ReceiverRecords, AStoreThatCannotBeWrittenIsReportedAndThePhoneKeepsItsName) {
    world.putPeers({world.phoneRecord()});
    world.files.addFault({.operation = fakes::Operation::rename, .errorNumber = EROFS, .nameEnding = "peer.json"});
    world.start();
    const auto phone = world.phone();
    world.send(*phone, Row::tokenUpdate("token"));
    world.offer(*phone, "a.txt", 0);
    world.send(*phone, Row::done());
    ASSERT_EQ(world.transfers.size(), 1U);
    EXPECT_EQ(world.transfers[0].from, "Pixel-8");
    EXPECT_EQ(world.authenticated.size(), 1U);
    EXPECT_THAT(world.failureTexts(), ElementsAre("PeerRecord write failed: Read-only file system"));
}

TEST_F(ReceiverRecords, NothingIsWrittenWhereNothingChanges) {
    PeerRecord record = world.phoneRecord();
    record.peer_fcm_token = "token";
    world.putPeers({record});
    world.start();
    const std::size_t before = world.files.mutations();
    const auto phone = world.phone();
    world.send(*phone, Row::tokenUpdate("token"));
    world.send(*phone, Row::setName("Pixel-8"));
    EXPECT_EQ(world.files.mutations(), before);
    EXPECT_EQ(world.syncs.size(), 1U);
}

TEST_F(ReceiverRecords, AnUnpairCountsEvenIfItsRecordCannotBeRemoved) {
    world.files.put(peerFile, "rubbish");
    world.start();
    const auto phone = world.phone();
    world.send(*phone, Row::unpair());
    EXPECT_EQ(world.run(phone->howItEnds()), "wire EOF before expected bytes");
    ASSERT_EQ(world.syncs.size(), 1U);
    const auto& unpair = std::get<Receiver::Unpair>(world.syncs[0]);
    EXPECT_EQ(unpair.peerKey, world.phoneKey.publicKey().peerKey());
    EXPECT_EQ(unpair.from, "(unknown peer)");
    EXPECT_FALSE(unpair.isForgotten);
    ASSERT_EQ(world.failures.size(), 2U) << "once for its name, once for this";
    EXPECT_THAT(world.failureTexts().back(), StartsWith("PeerRecord decode failed: "));
    EXPECT_EQ(world.text(peerFile), "rubbish");
}

TEST_F(ReceiverRecords, ANameThatNobodyCouldReadIsToldButNotTakenOver) {
    world.putPeers({world.phoneRecord()});
    world.start();
    for (const std::string& name : {std::string(), std::string("  \t"), std::string("a\nb"), std::string("\x1b[2J"),
                                    std::string(SenderRecord::maxNameBytes + 1, 'x')}) {
        const auto phone = world.phone();
        world.send(*phone, Row::nameUpdate(name));
        EXPECT_EQ(std::get<Receiver::NameUpdate>(world.syncs.back()).name, name);
        EXPECT_EQ(world.onlyPeer().peer_hostname, "Pixel-8");
    }
    const auto phone = world.phone();
    const std::string longest(SenderRecord::maxNameBytes, 'x');
    world.send(*phone, Row::nameUpdate(longest));
    world.passUntilRecordsAreWritten();
    EXPECT_EQ(world.onlyPeer().peer_hostname, longest);
}

TEST_F(ReceiverRecords, ANameThatAnotherPhoneHasIsKeptApart) {
    world.putPeers({world.phoneRecord(), world.tabletRecord()});
    world.start();
    const auto nameOf = [this](const platform::PrivateKey& key) {
        return PeerStore(world.files, world.system.directories)
            .loadBook()
            .find(key.publicKey().peerKey())
            ->peer_hostname;
    };
    const auto tablet = world.connectAs(world.tabletKey);
    world.send(*tablet, Row::setName(" pixel-8"));
    const auto& first = std::get<Receiver::SetName>(world.syncs.back());
    EXPECT_EQ(first.name, " pixel-8") << "what the phone has said";
    EXPECT_EQ(first.from, "Tablet");
    EXPECT_TRUE(first.isTakenOver);
    EXPECT_EQ(first.calledHere, "pixel-8 (2)");
    world.passUntilRecordsAreWritten();
    EXPECT_EQ(nameOf(world.tabletKey), "pixel-8 (2)");
    EXPECT_EQ(nameOf(world.phoneKey), "Pixel-8");

    const std::size_t before = world.files.mutations();
    const auto again = world.connectAs(world.tabletKey);
    world.send(*again, Row::nameUpdate(" pixel-8"));
    EXPECT_EQ(std::get<Receiver::NameUpdate>(world.syncs.back()).calledHere, "pixel-8 (2)") << "it keeps its number";
    EXPECT_EQ(world.files.mutations(), before);

    const auto phone = world.phone();
    world.send(*phone, Row::setName("Ann's phone"));
    EXPECT_EQ(std::get<Receiver::SetName>(world.syncs.back()).calledHere, "Ann's phone");
    world.passUntilRecordsAreWritten();
    const auto last = world.connectAs(world.tabletKey);
    world.send(*last, Row::setName("pixel-8"));
    world.passUntilRecordsAreWritten();
    EXPECT_EQ(nameOf(world.tabletKey), "pixel-8") << "now nobody else has it";
}

TEST_F(ReceiverRecords, ATokenBeyondAllReasonIsNotTakenOver) {
    world.putPeers({world.phoneRecord()});
    world.start();
    const auto phone = world.phone();
    world.send(*phone, Row::tokenUpdate(std::string(SenderRecord::maxTokenBytes, 't')));
    world.send(*phone, Row::tokenUpdate(std::string(SenderRecord::maxTokenBytes + 1, 'u')));
    world.passUntilRecordsAreWritten();
    EXPECT_EQ(world.onlyPeer().peer_fcm_token, std::string(SenderRecord::maxTokenBytes, 't'));
    EXPECT_EQ(world.ends(), 0U);
}

TEST_F(ReceiverRecords, ATokenMovesTheRecordToTheEnd) {
    const PeerRecord phone = world.phoneRecord();
    world.putPeers({phone, world.tabletRecord()});
    world.start();
    const auto connection = world.phone();
    world.send(*connection, Row::tokenUpdate("token"));
    EXPECT_THAT(PeerStore(world.files, world.system.directories).loadBook().peers,
                ElementsAre(world.tabletRecord(), phone.withFcmToken("token")));
    const std::size_t before = world.files.mutations();
    world.send(*connection, Row::tokenUpdate("token"));
    EXPECT_EQ(world.files.mutations(), before);
}

TEST_F(ReceiverRecords, AConnectionThatOnlyBringsATokenEndsWellAndAtOnce) {
    world.putPeers({world.phoneRecord()});
    world.start();
    const auto closing = world.phone();
    world.send(*closing, Row::tokenUpdate("token 1"));
    closing->close();
    world.settle();
    const auto halfClosing = world.phone();
    world.send(*halfClosing, Row::tokenUpdate("token 2"));
    EXPECT_EQ(world.run(halfClosing->wire().closeAfterFarewell(5s)), WireConnection::Farewell::closed);
    EXPECT_LT(world.clock.elapsed(), 1);
    world.passUntilRecordsAreWritten();
    EXPECT_EQ(world.onlyPeer().peer_fcm_token, "token 2");
    EXPECT_EQ(world.ends(), 0U) << "nothing to report";
}

TEST_F(ReceiverRecords, AConnectionThatBreaksOffBehindATokenIsAFailure) {
    world.putPeers({world.phoneRecord()});
    world.start();
    constexpr std::size_t handshake = 4 + 32 + 4 + 64;
    constexpr std::size_t frame =
        4 + 17 + std::string_view(R"({"peer_fcm_token":"token","type":"TokenUpdate"})").size();
    world.network.faults.push_back({{.endAfter = handshake + frame + 2}, {}}); // two bytes of the next prefix
    const auto torn = world.phone();
    world.send(*torn, Row::tokenUpdate("token"));
    world.send(*torn, Row::tokenUpdate("token"));
    EXPECT_THAT(world.failureTexts(), ElementsAre("wire EOF before expected bytes"));
    const auto silent = world.phone();
    world.send(*silent, Row::tokenUpdate("token"));
    EXPECT_TRUE(world.seesTheEnd(*silent));
    EXPECT_EQ(world.failures.size(), 2U);
    const auto withAnOffer = world.phone();
    world.send(*withAnOffer, Row::tokenUpdate("token"));
    world.offer(*withAnOffer, "a.txt");
    withAnOffer->close();
    world.settle();
    EXPECT_EQ(world.failures.size(), 3U);
}

TEST_F(ReceiverRecords, AChangeOfAnotherPhonesRecordMeanwhileIsNotLost) {
    world.putPeers({world.phoneRecord(), world.tabletRecord()});
    world.start();
    const auto phone = world.phone();
    const auto tablet = world.connectAs(world.tabletKey);
    world.run(phone->send(Row::tokenUpdate("of the phone")));
    world.run(tablet->send(Row::tokenUpdate("of the tablet")));
    world.settle();
    world.passUntilRecordsAreWritten();
    const PeerBook book = PeerStore(world.files, world.system.directories).loadBook();
    EXPECT_EQ(book.find(world.phoneRecord().peer_pubkey)->peer_fcm_token, "of the phone");
    EXPECT_EQ(book.find(world.tabletRecord().peer_pubkey)->peer_fcm_token, "of the tablet");
}

// ---- how often the store is written

/// The peer store's file is replaced by each write.
std::size_t writes(const ReceiverWorld& world) {
    return static_cast<std::size_t>(std::ranges::count_if(world.files.history(), [](const std::string& step) {
        return step.starts_with("rename ") && step.ends_with(" " + peerFile.native());
    }));
}

TEST_F(ReceiverRecords, ManyTokensAreAFewWritesAndTheLatestCounts) {
    world.putPeers({world.phoneRecord()});
    world.start();
    const auto phone = world.phone();
    const std::size_t before = writes(world);
    for (int i = 0; i < 100; ++i) { // thirty seconds of them
        world.send(*phone, Row::tokenUpdate("token " + std::to_string(i)));
        world.pass(300ms);
    }
    EXPECT_GE(writes(world) - before, 3U);
    EXPECT_LE(writes(world) - before, 4U);
    world.passUntilRecordsAreWritten();
    EXPECT_EQ(world.onlyPeer().peer_fcm_token, "token 99");
    EXPECT_LE(writes(world) - before, 5U);
}

TEST_F(ReceiverRecords, TwoTokensAndANameOfOneVisitAreTwoWrites) {
    world.putPeers({world.phoneRecord()});
    world.start();
    const std::size_t before = writes(world);
    const auto phone = world.phone();
    world.send(*phone, Row::tokenUpdate("first"));
    EXPECT_EQ(world.onlyPeer().peer_fcm_token, "first") << "the first thing is written at once";
    world.send(*phone, Row::tokenUpdate("token"));
    world.send(*phone, Row::setName("New name"));
    EXPECT_EQ(std::get<Receiver::SetName>(world.syncs.at(0)).from, "Pixel-8");
    EXPECT_TRUE(std::get<Receiver::SetName>(world.syncs.at(0)).isTakenOver);
    EXPECT_EQ(writes(world) - before, 1U);
    world.passUntilRecordsAreWritten();
    EXPECT_EQ(writes(world) - before, 2U);
    EXPECT_EQ(world.onlyPeer().peer_fcm_token, "token");
    EXPECT_EQ(world.onlyPeer().peer_hostname, "New name");
}

TEST_F(ReceiverRecords, WhatWaitsIsWrittenWhenTheServiceEnds) {
    world.putPeers({world.phoneRecord()});
    world.start();
    const auto phone = world.phone();
    world.send(*phone, Row::tokenUpdate("first"));
    world.send(*phone, Row::tokenUpdate("token"));
    EXPECT_EQ(world.onlyPeer().peer_fcm_token, "first");
    world.stopAndWait();
    EXPECT_LT(world.clock.elapsed(), 1);
    EXPECT_EQ(world.onlyPeer().peer_fcm_token, "token");
}

TEST_F(ReceiverRecords, AWriteThatFailsLaterIsReported) {
    world.putPeers({world.phoneRecord()});
    world.start();
    const auto phone = world.phone();
    world.send(*phone, Row::tokenUpdate("first"));
    world.send(*phone, Row::tokenUpdate("token"));
    world.files.addFault({.operation = fakes::Operation::rename, .errorNumber = EROFS, .nameEnding = "peer.json"});
    world.passUntilRecordsAreWritten();
    EXPECT_THAT(world.failureTexts(), ElementsAre("PeerRecord write failed: Read-only file system"));
    EXPECT_EQ(world.failures.at(0).from, "Pixel-8");
}

TEST_F(ReceiverRecords, APhoneThatUnpairsTakesAlongWhatWasToBeWritten) {
    world.putPeers({world.phoneRecord(), world.tabletRecord()});
    world.start();
    const auto phone = world.phone();
    world.send(*phone, Row::tokenUpdate("first"));
    world.send(*phone, Row::tokenUpdate("token"));
    world.send(*phone, Row::unpair());
    world.passUntilRecordsAreWritten();
    EXPECT_EQ(PeerStore(world.files, world.system.directories).loadBook().peers,
              std::vector<PeerRecord>{world.tabletRecord()});
}

TEST_F(ReceiverRecords, OnePhonesWaitIsNotAnothers) {
    world.putPeers({world.phoneRecord(), world.tabletRecord()});
    world.start();
    const auto phone = world.phone();
    const auto tablet = world.connectAs(world.tabletKey);
    world.send(*phone, Row::tokenUpdate("of the phone"));
    world.send(*tablet, Row::tokenUpdate("of the tablet"));
    const PeerBook book = PeerStore(world.files, world.system.directories).loadBook();
    EXPECT_EQ(book.peers.at(0).peer_fcm_token, "of the phone");
    EXPECT_EQ(book.peers.at(1).peer_fcm_token, "of the tablet");
}

// ---- where a phone comes from is not where it is reached

struct AddressCase {
    std::string recorded;
    std::string endpoint;
};

class ReceiverAddress : public ReceiverRecords, public testing::WithParamInterface<AddressCase> {
protected:
    static Task<std::unique_ptr<ScriptedPeer>> shakeHands(ReceiverWorld& world,
                                                          std::unique_ptr<platform::Stream> stream) {
        auto wire = std::make_unique<WireConnection>(std::move(stream), world.clock);
        NoiseHandshake handshake(NoiseRole::initiator, world.phoneKey.clone(), asBytes(kOrlinthPrologue));
        co_await exchangeAsInitiator(*wire, handshake);
        co_return std::make_unique<ScriptedPeer>(std::move(wire), std::move(handshake).finalize());
    }
};

TEST_P(ReceiverAddress, StaysAndTheHostHearsWhereThePhoneCameFrom) {
    PeerRecord record = world.phoneRecord();
    record.peer_ip = GetParam().recorded;
    world.putPeers({record, world.tabletRecord()});
    const std::size_t before = world.files.mutations();
    const Executor executor = world.context.get_executor();
    const auto door = std::make_shared<ScriptedListener::Door>(executor);
    world.make().listener = std::make_unique<ScriptedListener>(door);
    world.start();
    const auto there = std::make_shared<fakes::detail::Pipe>(executor);
    const auto back = std::make_shared<fakes::detail::Pipe>(executor);
    door->push(std::make_unique<fakes::MemoryStream>(there, back, executor, GetParam().endpoint));
    const auto phone =
        world.run(shakeHands(world, std::make_unique<fakes::MemoryStream>(back, there, executor, "203.0.113.1:7100")));
    world.passUntilRecordsAreWritten();
    EXPECT_EQ(world.files.mutations(), before);
    EXPECT_THAT(PeerStore(world.files, world.system.directories).loadBook().peers,
                ElementsAre(record, world.tabletRecord()));
    ASSERT_EQ(world.authenticated.size(), 1U);
    EXPECT_EQ(world.authenticated[0].phone, record);
    EXPECT_EQ(world.authenticated[0].remoteEndpoint, GetParam().endpoint);
}

INSTANTIATE_TEST_SUITE_P(
    Addresses, ReceiverAddress,
    testing::Values(AddressCase{"192.168.1.7", "192.168.1.9:40112"}, // of a NAT gateway, perhaps
                    AddressCase{"192.168.1.7", "192.168.1.7:40112"}, AddressCase{"192.168.1.7", "[fe80::1%eth0]:40112"},
                    AddressCase{"192.168.1.7", "[2001:db8::7]:40112"}, AddressCase{"", "192.168.1.9:40112"},
                    AddressCase{"phone.example", "192.168.1.9:40112"},
                    AddressCase{"192.168.1.7", "127.0.0.1:40112"}, // a tunnel
                    AddressCase{"192.168.1.7", "[::1]:40112"}, AddressCase{"127.0.0.1", "192.168.1.9:40112"},
                    AddressCase{"192.168.1.7", "somewhere"}));

// ---- asking the host

/// Answers offers when a test says so.
struct Desk {
    explicit Desk(const Executor& executor) : changed(executor) {}
    std::vector<Receiver::Offer> asked;
    std::map<std::string, bool> answers;
    fakes::Event changed;
    int cancelled = 0;

    void answer(const std::string& name, bool wanted) {
        answers[name] = wanted;
        changed.notify();
    }
    static Task<bool> wait(Desk& desk, std::string name) {
        try {
            while (!desk.answers.contains(name)) {
                co_await desk.changed.wait();
            }
        } catch (const std::exception&) {
            ++desk.cancelled;
            throw;
        }
        co_return desk.answers.at(name);
    }
};

class ReceiverApproval : public testing::Test {
protected:
    ReceiverApproval() {
        world.putPeers({world.phoneRecord(), world.tabletRecord()});
        world.make().approveOffer = [this](Receiver::Offer offer) {
            desk.asked.push_back(offer);
            return Desk::wait(desk, offer.name);
        };
        world.start();
    }
    void offerOnly(ScriptedPeer& phone, const std::string& name) {
        world.send(phone, Row::fileOffer(name, 10, "text/plain", "ID of " + name));
    }
    [[nodiscard]] std::vector<std::string> filesInFolder() {
        std::vector<std::string> names;
        for (const std::string& file : world.files.allFiles()) {
            if (file.starts_with(folder.native())) {
                names.push_back(file);
            }
        }
        return names;
    }

    ReceiverWorld world;
    Desk desk{world.context.get_executor()};
};

TEST_F(ReceiverApproval, IsAskedWithNameSizeAndSender) {
    const auto phone = world.phone();
    offerOnly(*phone, "a.txt");
    ASSERT_EQ(desk.asked.size(), 1U);
    EXPECT_EQ(desk.asked[0].name, "a.txt");
    EXPECT_EQ(desk.asked[0].size, 10);
    EXPECT_EQ(desk.asked[0].from, "Pixel-8");
    EXPECT_THAT(filesInFolder(), IsEmpty()) << "nothing before the answer";
    desk.answer("a.txt", true);
    EXPECT_EQ(world.run(phone->expect<Row::Resume>()).accepted_offset, ByteOffset());
    world.send(*phone, Row::done());
    EXPECT_EQ(world.transfers.size(), 1U);
}

TEST_F(ReceiverApproval, CountsToTheDurationWhichBeginsWithTheOffer) {
    const auto phone = world.phone();
    world.pass(5s);
    offerOnly(*phone, "a.txt");
    world.pass(20s);
    desk.answer("a.txt", true);
    static_cast<void>(world.run(phone->expect<Row::Resume>()));
    world.pass(2s);
    world.send(*phone, Row::done());
    ASSERT_EQ(world.transfers.size(), 1U);
    EXPECT_NEAR(world.transfers[0].file.durationSeconds.count(), 22, 0.1);
}

TEST_F(ReceiverApproval, AYesForAFewBytesDeliversNothingLargerThatIsHereAlready) {
    constexpr std::size_t size = 2 << 20;
    world.files.put(folder / "a.txt.partial", std::string(size, 'x'));
    const PartialMeta meta{TransferId("ID of a.txt"), size, fromEpochMilliseconds(1),
                           world.phoneKey.publicKey().peerKey()};
    world.files.put(folder / "a.txt.partial.meta.json", compactJson(meta.toJson()));
    desk.answer("a.txt", true);
    const auto phone = world.phone();
    offerOnly(*phone, "a.txt");
    EXPECT_TRUE(world.seesTheEnd(*phone));
    EXPECT_THAT(world.failureTexts(), ElementsAre("protocol violation: more data than was offered"));
    EXPECT_THAT(world.transfers, IsEmpty());
    EXPECT_EQ(world.text(folder / "a.txt.partial").size(), size) << "the partial file is kept";
}

TEST_F(ReceiverApproval, ARefusedOfferIsDeclinedAndLeavesNothing) {
    desk.answer("a.txt", false);
    const auto phone = world.phone();
    offerOnly(*phone, "a.txt");
    static_cast<void>(world.run(phone->expect<Row::Decline>()));
    EXPECT_TRUE(world.seesTheEnd(*phone));
    phone->close();
    world.settle();
    ASSERT_EQ(world.syncs.size(), 1U);
    const auto& outcome = std::get<Receiver::Declined>(world.syncs[0]);
    EXPECT_EQ(outcome.from, "Pixel-8");
    EXPECT_EQ(outcome.name, "a.txt");
    EXPECT_EQ(world.ends(), 1U);
    EXPECT_THAT(filesInFolder(), IsEmpty());
    EXPECT_EQ(ActiveTransfers::shared().ownerCount(), 0U);
}

TEST_F(ReceiverApproval, ARefusedOfferDisplacesNobody) {
    const auto phone = world.phone();
    offerOnly(*phone, "a.txt");
    desk.answer("a.txt", true);
    static_cast<void>(world.run(phone->expect<Row::Resume>()));
    desk.answer("a.txt", false);
    const auto again = world.phone();
    offerOnly(*again, "a.txt");
    static_cast<void>(world.run(again->expect<Row::Decline>()));
    again->close();
    world.sendData(*phone, "0123456789");
    world.send(*phone, Row::done());
    EXPECT_EQ(world.transfers.size(), 1U);
}

TEST_F(ReceiverApproval, AnAnswerThatTakesLongHoldsNobodyElseUpAndIsNoSilence) {
    const auto phone = world.phone();
    offerOnly(*phone, "slow.txt");
    const auto tablet = world.connectAs(world.tabletKey);
    desk.answer("fast.txt", true);
    offerOnly(*tablet, "fast.txt");
    static_cast<void>(world.run(tablet->expect<Row::Resume>()));
    world.send(*tablet, Row::done());
    EXPECT_EQ(world.transfers.size(), 1U);
    world.pass(120s);
    EXPECT_THAT(world.failures, IsEmpty());
    desk.answer("slow.txt", true);
    static_cast<void>(world.run(phone->expect<Row::Resume>()));
    world.send(*phone, Row::done());
    EXPECT_EQ(world.transfers.size(), 2U);
}

TEST_F(ReceiverApproval, IsCancelledSoonWhenThePhoneHangsUp) {
    const auto phone = world.phone();
    offerOnly(*phone, "a.txt");
    phone->close();
    world.pass(500ms);
    EXPECT_EQ(desk.cancelled, 1);
    EXPECT_EQ(world.failures.size(), 1U);
    desk.answer("a.txt", true);
    world.settle();
    EXPECT_EQ(ActiveTransfers::shared().ownerCount(), 0U);
    EXPECT_THAT(filesInFolder(), IsEmpty());
}

TEST_F(ReceiverApproval, IsCancelledSoonWhenAPhoneHangsUpThatHasNotWaited) {
    const auto phone = world.phone();
    offerOnly(*phone, "a.txt");
    world.sendData(*phone, "01234"); // which nobody reads
    EXPECT_EQ(desk.cancelled, 0);
    phone->close();
    world.pass(500ms);
    EXPECT_EQ(desk.cancelled, 1);
    EXPECT_EQ(world.failures.size(), 1U);
}

TEST_F(ReceiverApproval, IsToldWhoseOfferItIs) {
    const auto phone = world.phone();
    offerOnly(*phone, "a.txt");
    EXPECT_EQ(desk.asked.at(0).peerKey, world.phoneKey.publicKey().peerKey());
    desk.answer("a.txt", false);
    static_cast<void>(world.run(phone->expect<Row::Decline>()));
    phone->close();
    world.settle();
    EXPECT_EQ(std::get<Receiver::Declined>(world.syncs.at(0)).peerKey, world.phoneKey.publicKey().peerKey());
}

TEST_F(ReceiverApproval, IsForTheSizeThatWasOffered) {
    const auto phone = world.phone();
    desk.answer("a.txt", true);
    offerOnly(*phone, "a.txt");
    static_cast<void>(world.run(phone->expect<Row::Resume>()));
    const std::string frame(1 << 20, 'x');
    world.sendData(*phone, "0123456789"); // what was offered
    world.sendData(*phone, frame);        // a file may have grown a little
    EXPECT_EQ(world.ends(), 0U);
    world.sendData(*phone, std::string(65, 'x'));
    EXPECT_EQ(world.failures.size(), 1U);
    EXPECT_EQ(describe(world.failures.at(0).error), "protocol violation: more data than was offered");
    EXPECT_EQ(world.text(folder / "a.txt.partial").size(), 10 + frame.size());

    const auto greedy = world.phone();
    desk.answer("b.txt", true);
    offerOnly(*greedy, "b.txt");
    static_cast<void>(world.run(greedy->expect<Row::Resume>()));
    world.sendData(*greedy, std::string(2 << 20, 'x')); // in one frame
    EXPECT_EQ(world.failures.size(), 2U);
    EXPECT_EQ(world.text(folder / "b.txt.partial"), "");
}

TEST_F(ReceiverRecords, WithoutAnybodyAskedTheSizeIsNoBound) {
    world.putPeers({world.phoneRecord()});
    world.start();
    const auto phone = world.phone();
    world.offer(*phone, "a.txt");
    world.sendData(*phone, std::string(3 << 20, 'x'));
    world.send(*phone, Row::done());
    EXPECT_EQ(world.transfers.at(0).file.bytesWritten, 3 << 20);
}

TEST_F(ReceiverApproval, IsCancelledWhenTheServiceStops) {
    const auto phone = world.phone();
    offerOnly(*phone, "a.txt");
    world.stopAndWait();
    EXPECT_FALSE(world.ended);
    EXPECT_EQ(desk.cancelled, 1);
    EXPECT_EQ(world.ends(), 0U);
    EXPECT_TRUE(world.seesTheEnd(*phone)) << "without an answer: nobody has declined";
    EXPECT_THAT(filesInFolder(), IsEmpty());
}

} // namespace
} // namespace orlinth
