#include "OrlinthHost/Phones/LastPhone.h"
#include "OrlinthHost/Sending/PhoneLanes.h"
#include "OrlinthHost/Sending/PhoneTimeouts.h"
#include "OutboxWorld.h"

#include <gmock/gmock.h>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Key;
using testing::StartsWith;

class OutboxSenderTest : public OutboxWorldTest {};

TEST_F(OutboxSenderTest, SendsTheFilesOfABatchInTheirOrderAndRemovesIt) {
    put(first, {"b.txt", "a.txt"});
    world_.alongside(take(2));
    start();
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("b.txt", "a.txt"));
    EXPECT_FALSE(isThere(outbox / first));
    EXPECT_FALSE(isThere(memory / first));
    const std::vector<Told> sent = told(What::sent);
    ASSERT_EQ(2U, sent.size());
    EXPECT_EQ(first, sent[0].batch);
    EXPECT_EQ("b.txt", sent[0].file);
    EXPECT_EQ("Pixel-8", sent[0].to);
    EXPECT_EQ(16, sent[0].bytesSent);
    EXPECT_EQ(ByteOffset(), sent[0].resumedFromOffset);
    EXPECT_EQ(1U, told(What::done).size());
    EXPECT_EQ(LastPhone(home_).load(), world_.phoneRecord().peer_pubkey);
    EXPECT_THAT(notices(), ElementsAre("sent 2 to Pixel-8"));
}

TEST_F(OutboxSenderTest, TellsThatAnotherPhoneWasTheLastAndWaitsForNobodyWhoHoldsTheSharedList) {
    put(first, {"a.txt"});
    const platform::Path shared = container / "peers.json";
    int touched = 0;
    world_.files.beforeEach([&](fakes::Operation, const platform::Path& path) {
        touched += path.string().starts_with(shared.string()) ? 1 : 0; // the lock too
    });
    int told = 0;
    start([&told](OutboxSender& sender) { sender.onLastPhone = [&told] { ++told; }; });
    world_.alongside(take(2));
    pass(1s);
    EXPECT_EQ(LastPhone(home_).load(), world_.phoneRecord().peer_pubkey);
    EXPECT_EQ(told, 1);
    put(second, {"b.txt"});
    ring();
    pass(1s);
    world_.files.beforeEach({});
    EXPECT_THAT(taken_, ElementsAre("a.txt", "b.txt"));
    EXPECT_EQ(told, 1) << "it is the same";
    EXPECT_EQ(touched, 0);
}

TEST_F(OutboxSenderTest, NoticesAPhoneThatIsGone) {
    put(first, {"a.txt"}, 1000);
    world_.alongside(take(1));
    start();
    pass(1s);
    ASSERT_EQ(1U, world_.network.keepAlives->size());
    const platform::KeepAlive& keepAlive = world_.network.keepAlives->front();
    EXPECT_LE(keepAlive.idle + keepAlive.interval * keepAlive.count, 30s);
}

TEST_F(OutboxSenderTest, SendsTheOlderBatchFirst) {
    put(first, {"later.txt"}, 2000);
    put(second, {"earlier.txt"}, 1000);
    world_.alongside(take(2));
    start();
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("earlier.txt", "later.txt"));
}

TEST_F(OutboxSenderTest, HearsTheBell) {
    start();
    pass(1s);
    put(first, {"a.txt"});
    world_.alongside(take(1));
    ring();
    pass(100ms);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
}

TEST_F(OutboxSenderTest, SeesABatchGrowWithoutABell) {
    start();
    pass(1s);
    world_.files.putFolder(outbox / first);
    const std::unique_ptr<platform::File> hold = world_.files.open(outbox / first, platform::OpenMode::read);
    ASSERT_TRUE(hold->tryLock());
    world_.folders.change(outbox);
    pass(100ms);
    ASSERT_TRUE(world_.folders.isWatched(outbox / first));
    world_.alongside(take(1));
    put(first, {"a.txt"});
    world_.folders.change(outbox / first);
    pass(100ms);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
    EXPECT_FALSE(world_.folders.isWatched(outbox / first));
    EXPECT_TRUE(world_.folders.isWatched(outbox));
}

TEST_F(OutboxSenderTest, LooksOnceAMinuteIfNothingElseSaysSo) {
    start();
    pass(1s);
    put(first, {"a.txt"});
    world_.alongside(take(1));
    pass(58s);
    EXPECT_THAT(taken_, IsEmpty());
    pass(2s);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
}

TEST_F(OutboxSenderTest, LooksEverySecondWhereNothingCanBeWatched) {
    world_.folders.errorNumber = ENOSPC;
    start();
    pass(10s);
    put(first, {"a.txt"});
    world_.alongside(take(1));
    pass(1100ms);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
}

TEST_F(OutboxSenderTest, TriesAgainAfterGrowingPauses) {
    put(first, {"a.txt"});
    start();
    std::optional<double> begin;
    const std::vector<double> pauses =
        gapsUntil(13000, [this, &begin] { begin = begin.value_or(world_.clock.elapsed()); });
    EXPECT_NEAR(OutboxLookout::gatherDelay.count(), begin.value(), 1e-9);
    EXPECT_THAT(pauses, ElementsAre(5, 15, 60, 300, 900, 3600, 3600, 3600));
    const std::vector<Told> waiting = told(What::waiting);
    ASSERT_EQ(9U, waiting.size());
    EXPECT_EQ(5s, waiting[0].pause);
    EXPECT_EQ(1h, waiting[8].pause);
    EXPECT_EQ("network: Connection refused", waiting[0].message);
    EXPECT_EQ(1U, told(What::waitingLine).size());
    EXPECT_THAT(notices(), ElementsAre("waiting for Pixel-8"));
    EXPECT_TRUE(isThere(outbox / first / "a.txt"));
}

TEST_F(OutboxSenderTest, TriesAtOnceWhenThePhoneIsHeardOf) {
    put(first, {"a.txt"});
    start();
    pass(1000s); // in the middle of a long pause
    const std::size_t before = attempts();
    sender_->heardOf(tabletRecord());
    pass(100ms);
    EXPECT_EQ(before, attempts()) << "that was another one";
    world_.alongside(take(1));
    sender_->heardOf(world_.phoneRecord());
    pass(100ms);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
}

TEST_F(OutboxSenderTest, BeginsWithTheShortPauseAgainWhenThePhoneWasHeardOf) {
    put(first, {"a.txt"});
    start();
    pass(1000s);
    sender_->heardOf(world_.phoneRecord());
    pass(100ms);
    const std::size_t before = attempts();
    pass(5s);
    EXPECT_EQ(before + 1, attempts());
}

TEST_F(OutboxSenderTest, TriesAtOnceWhenTheRecordHasChanged) {
    put(first, {"a.txt"});
    start();
    pass(1000s);
    const std::size_t before = attempts();
    PeerRecord record = world_.phoneRecord();
    record.peer_subnet = "another"; // by which nobody is reached
    pair({record});
    sender_->peersChanged();
    pass(100ms);
    EXPECT_EQ(before, attempts());
    record.peer_ip = "203.0.113.99";
    pair({record});
    world_.alongside(take(1));
    sender_->peersChanged();
    pass(100ms);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
    EXPECT_EQ("203.0.113.99", world_.network.attempts.back().first);
}

TEST_F(OutboxSenderTest, TriesAtOnceInAnotherNetwork) {
    world_.network.makeFailWithErrno("203.0.113.2", EHOSTUNREACH, world_.clock);
    put(first, {"a.txt"});
    start();
    pass(1000s); // in the middle of a long pause
    const std::size_t before = attempts();
    world_.network.makeAnswer("203.0.113.2");
    world_.alongside(take(1));
    sender_->networkChanged();
    pass(100ms);
    EXPECT_EQ(before + 1, attempts());
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
}

TEST_F(OutboxSenderTest, WaitsForANetworkIfThereIsNone) {
    put(first, {"a.txt"});
    start();
    sender_->setConnected(false);
    pass(2h);
    const std::size_t before = attempts();
    pass(10h);
    EXPECT_EQ(before, attempts()) << "nothing is tried";
    EXPECT_EQ("this computer is not connected to any network", told(What::waiting).back().message);
    world_.alongside(take(1));
    sender_->setConnected(true);
    sender_->networkChanged();
    pass(100ms);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
}

TEST_F(OutboxSenderTest, NeedsNoNetworkForWhatIsOnThisComputer) {
    for (const char* address : {"127.0.0.1", "::1", "localhost"}) {
        PeerRecord record = world_.phoneRecord();
        record.peer_ip = address;
        pair({record});
        put(first, {"a.txt"});
        start();
        sender_->setConnected(false);
        world_.alongside(take(1));
        pass(1s);
        EXPECT_THAT(taken_, ElementsAre("a.txt")) << address;
        taken_.clear();
        stop();
    }
}

TEST_F(OutboxSenderTest, TriesAPhoneThatIsBackOnceAndNotWhileItIsTried) {
    world_.network.makeFailWithErrno("203.0.113.2", EHOSTUNREACH, world_.clock);
    put(first, {"a.txt"});
    start();
    pass(1000s);
    const std::size_t failures = told(What::waiting).size();
    std::size_t before = attempts();
    sender_->isBack(tabletRecord().peer_pubkey); // for which nothing waits
    pass(100ms);
    EXPECT_EQ(before, attempts());
    sender_->isBack(world_.phoneRecord().peer_pubkey);
    while (told(What::waiting).size() == failures) {
        sender_->isBack(world_.phoneRecord().peer_pubkey); // as the attempt itself makes it seem
        pass(100ms);
    }
    EXPECT_LT(before, attempts());
    before = attempts();
    pass(1s);
    sender_->isBack(world_.phoneRecord().peer_pubkey);
    pass(1s);
    EXPECT_EQ(before, attempts()) << "neither a second time at once, nor because it was tried just now";
}

TEST_F(OutboxSenderTest, TriesAPhoneThatComesAndGoesEachMinuteOnceInTenMinutes) {
    world_.network.makeFailWithErrno("203.0.113.2", EHOSTUNREACH, world_.clock);
    put(first, {"a.txt"});
    start();
    pass(2h); // by now the pauses are of an hour
    const std::size_t before = told(What::waiting).size();
    for (int minute = 0; minute < 40; ++minute) {
        sender_->isBack(world_.phoneRecord().peer_pubkey);
        pass(1min);
    }
    EXPECT_EQ(told(What::waiting).size(), before + 4);
}

TEST_F(OutboxSenderTest, TellsOfARefusalAlsoIfThePushBehindItFails) {
    using Contact = OutboxSender::Contact;
    PeerRecord record = world_.phoneRecord();
    record.peer_fcm_token = "TOKEN"; // and there is no key for the push service
    pair({record});
    put(first, {"a.txt"});
    std::vector<Contact> contacts;
    sender_.emplace(home_, world_.computerKey, events_);
    sender_->onContact = [&contacts](const PeerRecord&, Contact contact, platform::Clock::Instant) {
        contacts.push_back(contact);
    };
    sender_->start();
    pass(1s);
    EXPECT_THAT(contacts, ElementsAre(Contact::refused));
    EXPECT_THAT(told(What::waiting).back().message, HasSubstr("FCM wake failed"));
    world_.network.makeSilent("203.0.113.2");
    pass(12s);
    EXPECT_THAT(contacts, ElementsAre(Contact::refused, Contact::failed));
}

TEST_F(OutboxSenderTest, TellsWhenAPhoneThatFallsSilentWasHeardOf) {
    std::vector<platform::Clock::Instant> instants;
    put(first, {"a.txt"});
    world_.alongside(keepSilent());
    sender_.emplace(home_, world_.computerKey, events_);
    sender_->onContact = [&instants](const PeerRecord&, OutboxSender::Contact contact, platform::Clock::Instant at) {
        EXPECT_EQ(contact, OutboxSender::Contact::proved);
        instants.push_back(at);
    };
    const platform::Clock::Instant begin = world_.clock.now();
    sender_->start();
    pass(silenceLimit + 1s);
    ASSERT_EQ(instants.size(), 2U) << "when it proved its key, and when it was given up";
    EXPECT_LT(instants[0], begin + 1s);
    EXPECT_EQ(instants[1], instants[0]);
}

TEST_F(OutboxSenderTest, CallsOffAnAttemptAtAnAddressThatHasChanged) {
    world_.network.makeSilent("203.0.113.2");
    put(first, {"a.txt"});
    start();
    pass(1s);
    EXPECT_EQ(1U, attempts());
    PeerRecord record = world_.phoneRecord();
    record.peer_ip = "203.0.113.99";
    pair({record});
    world_.alongside(take(1));
    sender_->peersChanged();
    pass(100ms);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
    EXPECT_THAT(told(What::waiting), IsEmpty());
}

TEST_F(OutboxSenderTest, TriesAtOnceWhenAnotherBatchComes) {
    put(first, {"a.txt"});
    start();
    pass(1000s);
    put(second, {"b.txt"}, 2000);
    world_.alongside(take(2));
    ring();
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("a.txt", "b.txt"));
}

TEST_F(OutboxSenderTest, TellsOfEachBatchOnceThatItsPhoneIsAway) {
    put(first, {"a.txt"});
    start();
    pass(100s);
    put(second, {"b.txt"}, 2000);
    ring();
    pass(100s);
    EXPECT_THAT(notices(), ElementsAre("waiting for Pixel-8", "waiting for Pixel-8"));
}

TEST_F(OutboxSenderTest, GivesUpWhatThePhoneDeclinesAndGoesOn) {
    put(first, {"a.txt", "b.txt"});
    world_.alongside(answer(Row::decline(), 1));
    start();
    pass(51ms);
    world_.alongside(take(1));
    pass(30s);
    EXPECT_THAT(taken_, ElementsAre("b.txt"));
    const std::vector<Told> failed = failures();
    ASSERT_EQ(2U, failed.size());
    EXPECT_EQ("a.txt", failed[0].file);
    EXPECT_EQ("the phone declined the file.", failed[0].message);
    EXPECT_EQ(OutboxEvents::Failure::Why::declined, failed[0].why);
    EXPECT_EQ(What::setAside, failed[1].what);
    EXPECT_THAT(failed[1].message, HasSubstr("a.txt not sent to Pixel-8"));
    EXPECT_FALSE(isThere(outbox / first));
    EXPECT_EQ("content of a.txt", world_.files.content(container / "OutboxSetAside" / first / "a.txt"));
}

TEST_F(OutboxSenderTest, GivesUpEverythingForAPhoneThatHasForgottenThisComputer) {
    put(first, {"a.txt", "b.txt"}, 1000);
    put(second, {"c.txt"}, 2000);
    world_.alongside(answer(Row::unpair(), 1));
    start();
    pass(60s);
    EXPECT_EQ(1U, attempts());
    const std::vector<Told> failed = failures();
    ASSERT_EQ(4U, failed.size()) << "of each batch: for the phone, and that it is set aside";
    EXPECT_EQ(OutboxEvents::Failure::Why::removed, failed[0].why);
    EXPECT_EQ(2U, failed[0].files);
    EXPECT_TRUE(isThere(container / "OutboxSetAside" / first));
    EXPECT_TRUE(isThere(container / "OutboxSetAside" / second));
}

TEST_F(OutboxSenderTest, ServesTheOtherPhonesOfABatchOneOfWhichWasRemoved) {
    put(first, {"a.txt"}, 1000, std::vector{PeerKey("GONE"), world_.phoneRecord().peer_pubkey});
    world_.alongside(take(1));
    start();
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
    EXPECT_TRUE(isThere(container / "OutboxSetAside" / first));
    EXPECT_THAT(failures().at(0).message, HasSubstr("not paired any more"));
    EXPECT_EQ(OutboxEvents::Failure::Why::notPaired, failures().at(0).why);
}

TEST_F(OutboxSenderTest, GivesUpWhatIsForAPhoneThatIsRemovedMeanwhile) {
    put(first, {"a.txt"}, 1000, std::vector{world_.phoneRecord().peer_pubkey});
    start();
    pass(1s);
    pair({tabletRecord()});
    sender_->peersChanged();
    pass(1s);
    EXPECT_TRUE(isThere(container / "OutboxSetAside" / first));
}

TEST_F(OutboxSenderTest, DoesNotLetAPhoneThatIsAwayHoldUpAnother) {
    pair({world_.phoneRecord(), tabletRecord()});
    put(first, {"a.txt"}, 1000, std::vector{tabletRecord().peer_pubkey, world_.phoneRecord().peer_pubkey});
    world_.alongside(take(1));
    start();
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
    EXPECT_TRUE(isThere(outbox / first / "a.txt"));
    EXPECT_THAT(notices(), testing::UnorderedElementsAre("waiting for Tablet", "sent 1 to Pixel-8"));
}

TEST_F(OutboxSenderTest, SetsAsideWhatMakesNoSenseAndTouchesNothingElse) {
    world_.files.put(outbox / first / "manifest.json", "{");
    world_.files.put(outbox / first / "a.txt", "abc");
    world_.files.put(outbox / "note.txt", "somebody's");
    put(second, {"b.txt"});
    world_.alongside(take(1));
    start();
    pass(1s);
    EXPECT_EQ("abc", world_.files.content(container / "OutboxSetAside" / first / "a.txt"));
    EXPECT_EQ("somebody's", world_.files.content(outbox / "note.txt"));
    EXPECT_THAT(taken_, ElementsAre("b.txt"));
    const std::vector<Told> failed = failures();
    ASSERT_EQ(1U, failed.size());
    EXPECT_EQ(first, failed[0].batch);
    EXPECT_THAT(failed[0].message, HasSubstr("makes no sense"));
}

TEST_F(OutboxSenderTest, SetsAsideWhatIsForNobody) {
    pair({});
    put(first, {"a.txt"});
    start();
    pass(1s);
    EXPECT_TRUE(isThere(container / "OutboxSetAside" / first));
    EXPECT_EQ("no phone is paired", failures().at(0).message);
}

TEST_F(OutboxSenderTest, TellsOnceOfABatchThatCannotBeSetAsideEither) {
    world_.files.put(outbox / first / "manifest.json", "{");
    world_.files.addFault({.operation = fakes::Operation::rename, .errorNumber = EACCES});
    start();
    pass(300s);
    EXPECT_EQ(1U, failures().size());
    world_.files.clearFaults();
}

TEST_F(OutboxSenderTest, DoesNotSendAgainAfterARestartWhatItHasSent) {
    put(first, {"a.txt", "b.txt"});
    world_.alongside(take(1));
    start();
    pass(1s);
    stop();
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
    world_.alongside(take(1));
    start();
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("a.txt", "b.txt"));
    EXPECT_FALSE(isThere(outbox / first));
}

TEST_F(OutboxSenderTest, WritesIdsDownBeforeAnythingIsSent) {
    put(first, {"a.txt", "b.txt"});
    world_.alongside(keepSilent());
    start();
    pass(1s);
    const OutboxState known = OutboxState::load(world_.files, memory / first).value();
    const std::string journal = *world_.files.content(known.journalFile(world_.phoneRecord().peer_pubkey));
    EXPECT_THAT(InFlightJournal::decodeEntries(parseJson(journal)),
                ElementsAre(Key(StartsWith("a.txt|16|")), Key(StartsWith("b.txt|16|"))));
}

TEST_F(OutboxSenderTest, TakesNothingForSentBeforeThePhoneHasClosed) {
    put(first, {"a.txt", "b.txt"});
    world_.alongside(closeLate(10s));
    start();
    pass(5s);
    EXPECT_THAT(told(What::sent), IsEmpty());
    const OutboxState whoeverComesNext = OutboxState::load(world_.files, memory / first).value();
    EXPECT_TRUE(whoeverComesNext.phones.at(0).isOpen("a.txt"));
    const std::string journal = *world_.files.content(whoeverComesNext.journalFile(world_.phoneRecord().peer_pubkey));
    EXPECT_THAT(journal, HasSubstr(ids_.at(0))) << "under the same id, if we are killed now";
    pass(10s);
    EXPECT_EQ(1U, told(What::sent).size());
    EXPECT_FALSE(OutboxState::load(world_.files, memory / first).value().phones.at(0).isOpen("a.txt"));
}

TEST_F(OutboxSenderTest, FlushesLittleForManyFiles) {
    std::vector<std::string> names;
    for (int i = 10; i < 50; ++i) {
        names.push_back(std::to_string(i) + ".txt");
    }
    put(first, names);
    world_.alongside(take(40));
    start();
    const std::size_t before = world_.files.count(fakes::Operation::flush);
    pass(1s);
    EXPECT_EQ(names, taken_) << "although it takes one at a time, and refuses all others";
    EXPECT_THAT(told(What::waiting), IsEmpty());
    EXPECT_FALSE(isThere(memory / first));
    EXPECT_GE(before + 1 + 3 + 3 + 1 + 1, world_.files.count(fakes::Operation::flush))
        << "the state, ids, what was sent, where the phone was reached, and the list that it comes first in";
}

TEST_F(OutboxSenderTest, SendsSeveralAtOnceToAPhoneThatTakesThem) {
    put(first, {"1", "2", "3", "4", "5", "6", "7", "8", "9"});
    world_.alongside(takeTogether({1, 2, 4, 2}));
    start();
    pass(5s);
    EXPECT_THAT(taken_, testing::UnorderedElementsAre("1", "2", "3", "4", "5", "6", "7", "8", "9"));
    EXPECT_EQ("1", taken_.front());
    EXPECT_EQ(9U, attempts());
    EXPECT_FALSE(isThere(outbox / first));
    EXPECT_THAT(notices(), ElementsAre("sent 9 to Pixel-8"));
}

TEST_F(OutboxSenderTest, SendsLargeFilesOneAfterTheOther) {
    put(first, {"1", "2", "3"});
    for (const char* name : {"2", "3"}) {
        world_.files.put(outbox / first / name, std::string(PhoneLanes::enoughBytes, 'x'));
    }
    world_.alongside(takeOneAndKeepSilent());
    start();
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("1"));
    EXPECT_EQ(2U, attempts());
}

TEST_F(OutboxSenderTest, OffersAgainAtOnceUnderTheSameIdWhatWasBrokenOffAtTheEnd) {
    put(first, {"a.txt"});
    const auto breakOffThenTake = [this]() -> Task<> {
        co_await breakOffAtTheEnd(1);
        co_await closeLate(0s);
    };
    world_.alongside(breakOffThenTake());
    start();
    pass(1s);
    ASSERT_EQ(2U, ids_.size());
    EXPECT_EQ(ids_[0], ids_[1]);
    EXPECT_THAT(told(What::waiting), IsEmpty());
    EXPECT_EQ(1U, told(What::sent).size());
    EXPECT_FALSE(isThere(outbox / first));
}

TEST_F(OutboxSenderTest, SetsAsideWhatWasBrokenOffAtTheEndThreeTimes) {
    put(first, {"a.txt", "b.txt"});
    world_.alongside(breakOffAtTheEnd(3));
    start();
    pass(1s);
    EXPECT_EQ(2U, ids_.size()) << "two at once";
    EXPECT_EQ(1U, told(What::waiting).size());
    pass(5s);
    ASSERT_EQ(3U, ids_.size()) << "and another after a pause";
    EXPECT_EQ(ids_[0], ids_[1]);
    EXPECT_EQ(ids_[0], ids_[2]);
    EXPECT_THAT(told(What::sent), IsEmpty());
    EXPECT_EQ(DeliveryInDoubt::text, failures().at(0).message);
    world_.alongside(take(1));
    pass(5000s);
    EXPECT_THAT(taken_, ElementsAre("b.txt")) << "the others go on";
    EXPECT_EQ(4U, attempts() - told(What::waiting).size() + 1) << "nothing more of the first";
    EXPECT_TRUE(isThere(container / "OutboxSetAside" / first / "a.txt"));
}

TEST_F(OutboxSenderTest, SendsAgainWhatItCannotKnowToBeSent) {
    put(first, {"a.txt", "b.txt"});
    world_.alongside(take(1));
    start();
    pass(1s);
    stop();
    world_.files.put(memory / first / "state.jsonl", "rubbish");
    world_.alongside(take(2));
    start();
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("a.txt", "a.txt", "b.txt"));
}

TEST_F(OutboxSenderTest, DropsABatch) {
    put(first, {"a.txt"}, 1000);
    put(second, {"b.txt"}, 2000);
    start();
    pass(1s);
    EXPECT_TRUE(world_.run(sender_->remove(BatchId(first))));
    EXPECT_FALSE(world_.run(sender_->remove(BatchId(first))));
    EXPECT_FALSE(isThere(outbox / first));
    EXPECT_FALSE(isThere(memory / first));
    EXPECT_TRUE(isThere(outbox / second));
}

TEST_F(OutboxSenderTest, EndsWhatIsUnderWayOfABatchThatIsDropped) {
    world_.network.makeSilent("203.0.113.2");
    put(first, {"a.txt"});
    start();
    pass(1s);
    EXPECT_TRUE(world_.run(sender_->remove(BatchId(first))));
    EXPECT_FALSE(isThere(outbox / first));
    EXPECT_FALSE(isThere(memory / first));
    pass(100s);
    EXPECT_THAT(told(What::waiting), IsEmpty());
    EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(OutboxSenderTest, TakesABatchWhoseFolderHasGoneForDropped) {
    put(first, {"a.txt"});
    start();
    pass(1s);
    world_.files.remove(outbox / first / "a.txt");
    world_.files.remove(outbox / first / "manifest.json");
    world_.files.removeDirectory(outbox / first);
    world_.folders.change(outbox);
    pass(100ms);
    EXPECT_FALSE(isThere(memory / first));
    const std::size_t before = attempts();
    pass(1000s);
    EXPECT_EQ(before, attempts());
    EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(OutboxSenderTest, RetriesWhatWaits) {
    put(first, {"a.txt"});
    start();
    pass(1000s);
    world_.alongside(take(1));
    EXPECT_TRUE(sender_->retry(std::nullopt));
    pass(100ms);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
}

TEST_F(OutboxSenderTest, RetriesABatchThatWasSetAsideWithoutWhatWasSentOfIt) {
    put(first, {"a.txt", "b.txt"});
    world_.alongside(take(1));
    start();
    pass(51ms);
    world_.alongside(answer(Row::decline(), 1));
    pass(30s);
    ASSERT_TRUE(isThere(container / "OutboxSetAside" / first));
    world_.alongside(take(1));
    EXPECT_TRUE(sender_->retry(BatchId(first)));
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("a.txt", "b.txt"));
    EXPECT_FALSE(isThere(container / "OutboxSetAside" / first));
    EXPECT_FALSE(sender_->retry(BatchId(first)));
}

TEST_F(OutboxSenderTest, GivesUpAnAttemptWithoutAHandshake) {
    const std::unique_ptr<platform::Listener> silent = world_.network.listen(
        {.port = fakes::World::phonePort, .keepAlive = std::nullopt}, world_.context.get_executor());
    put(first, {"a.txt"});
    start();
    pass(10200ms);
    EXPECT_EQ("noise handshake: timed out after 10 seconds", told(What::waiting).at(0).message);
}

TEST_F(OutboxSenderTest, WaitsFiveMinutesForAnAnswerToTheOffer) {
    put(first, {"a.txt"});
    world_.alongside(keepSilent());
    start();
    pass(299s);
    EXPECT_THAT(told(What::waiting), IsEmpty());
    pass(2s);
    EXPECT_THAT(told(What::waiting).at(0).message, HasSubstr("no progress"));
}

TEST_F(OutboxSenderTest, SaysNothingOfAnEmptyOutbox) {
    start();
    pass(1000s);
    stop();
    EXPECT_TRUE(events_.all.empty());
}

// What faces show and ask for

TEST_F(OutboxSenderTest, TellsOfTheAttemptsWhoseDataIsOnItsWay) {
    put(first, {"a.txt"});
    std::vector<std::string> told;
    world_.alongside(take(1));
    start([&told](OutboxSender& sender) {
        sender.watcher = {.onStarted =
                              [&told](auto, const OutboxEvents::Transfer& transfer, const Progress& progress) {
                                  told.push_back("started " + transfer.file + " " + std::to_string(progress.total));
                              },
                          .onProgress = [](auto, std::int64_t) {},
                          .onEnded =
                              [&told](auto, OutboxSender::AttemptEnd end, const std::string& why) {
                                  told.push_back(end == OutboxSender::AttemptEnd::delivered ? "delivered" : why);
                              }};
    });
    pass(1s);
    EXPECT_THAT(told, ElementsAre("started a.txt 16", "delivered"));
}

TEST_F(OutboxSenderTest, TellsNothingOfAttemptsThatGetNowhere) {
    put(first, {"a.txt"});
    int told = 0;
    start([&told](OutboxSender& sender) {
        sender.watcher = {.onStarted = [&told](auto, const auto&, const auto&) { ++told; },
                          .onProgress = {},
                          .onEnded = [&told](auto, auto, const auto&) { ++told; }};
    });
    pass(100s);
    EXPECT_EQ(0, told);
}

TEST_F(OutboxSenderTest, ShowsABatchForEachPhoneThatHasNotGotItAll) {
    pair({world_.phoneRecord(), tabletRecord()});
    put(first, {"a.txt", "b.txt"}, 1000, std::vector{world_.phoneRecord().peer_pubkey, tabletRecord().peer_pubkey});
    int changes = 0;
    start([&changes](OutboxSender& sender) { sender.onBatches = [&changes] { ++changes; }; });
    pass(1s);
    EXPECT_GT(changes, 0);
    const std::vector<OutboxView> views = sender_->batches();
    ASSERT_EQ(2U, views.size());
    for (const OutboxView& view : views) {
        EXPECT_EQ(BatchId(first), view.batch);
        EXPECT_EQ(2U, view.files);
        EXPECT_EQ(0U, view.filesDone);
        EXPECT_EQ(OutboxView::State::paused, view.state);
        EXPECT_THAT(view.problem, HasSubstr("refused"));
        ASSERT_TRUE(view.nextAttempt);
        EXPECT_NEAR(4, Seconds(*view.nextAttempt - world_.clock.epochMilliseconds()).count(), 0.5);
    }
    world_.alongside(take(2));
    EXPECT_TRUE(sender_->retry(std::nullopt));
    pass(1s);
    ASSERT_EQ(1U, sender_->batches().size());
    EXPECT_EQ("Tablet", sender_->batches()[0].phone);
}

TEST_F(OutboxSenderTest, CancelsOneFileAndSendsTheOthers) {
    put(first, {"a.txt", "b.txt"});
    std::optional<OutboxSender::AttemptNumber> attempt;
    std::vector<OutboxSender::AttemptEnd> ends;
    world_.alongside(beginOneAndTakeOne(2s));
    start([&](OutboxSender& sender) {
        sender.watcher = {
            .onStarted = [&attempt](auto number, const auto&, const auto&) { attempt = attempt.value_or(number); },
            .onProgress = {},
            .onEnded = [&ends](auto, auto end, const auto&) { ends.push_back(end); }};
    });
    pass(1s);
    ASSERT_TRUE(attempt);
    ASSERT_EQ(1U, sender_->batches().size());
    EXPECT_EQ(OutboxView::State::sending, sender_->batches()[0].state);
    sender_->cancel(*attempt);
    pass(10s);
    EXPECT_THAT(ends, ElementsAre(OutboxSender::AttemptEnd::cancelled, OutboxSender::AttemptEnd::delivered));
    EXPECT_THAT(taken_, ElementsAre("b.txt"));
    EXPECT_FALSE(isThere(outbox / first)) << "nothing is left of the batch";
    EXPECT_FALSE(isThere(container / "OutboxSetAside" / first));
    EXPECT_THAT(failures(), IsEmpty()) << "nobody is told of what they did themselves";
    EXPECT_TRUE(sender_->batches().empty());
}

TEST_F(OutboxSenderTest, WhatWasCancelledIsNotTriedAgainWithTheRest) {
    pair({world_.phoneRecord(), tabletRecord()});
    put(first, {"a.txt", "b.txt"}, 1000, std::vector{world_.phoneRecord().peer_pubkey, tabletRecord().peer_pubkey});
    start();
    pass(1s);
    EXPECT_TRUE(sender_->cancel(BatchId(first), tabletRecord().peer_pubkey));
    EXPECT_FALSE(sender_->cancel(BatchId(first), tabletRecord().peer_pubkey)) << "nothing is left of it";
    EXPECT_TRUE(sender_->retry(BatchId(first)));
    ASSERT_EQ(1U, sender_->batches().size());
    EXPECT_EQ("Pixel-8", sender_->batches()[0].phone);
    world_.alongside(take(2));
    EXPECT_TRUE(sender_->retry(BatchId(first), world_.phoneRecord().peer_pubkey));
    pass(10s);
    EXPECT_EQ(2U, taken_.size());
    EXPECT_FALSE(isThere(outbox / first));
    EXPECT_THAT(told(What::done), IsEmpty()) << "not everything was sent";
}

TEST_F(OutboxSenderTest, TakesBackWhatHasFailedForOnePhoneWhileAnotherStillWaits) {
    const PeerKey gone("GONE");
    put(first, {"a.txt"}, 1000, std::vector{gone, world_.phoneRecord().peer_pubkey});
    start();
    pass(1s);
    ASSERT_EQ(2U, sender_->batches().size());
    EXPECT_EQ(OutboxView::State::failed, sender_->batches()[0].state);
    EXPECT_TRUE(sender_->cancel(BatchId(first), gone));
    EXPECT_FALSE(sender_->cancel(BatchId(first), gone)) << "nothing is left of it";
    ASSERT_EQ(1U, sender_->batches().size());
    EXPECT_EQ("Pixel-8", sender_->batches()[0].phone);
    world_.alongside(take(1));
    EXPECT_TRUE(sender_->retry(std::nullopt));
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
    EXPECT_FALSE(isThere(outbox / first));
    EXPECT_THAT(told(What::setAside), IsEmpty());
}

TEST_F(OutboxSenderTest, TakesBackWhatHasFailedTogetherWithWhatIsUnderWay) {
    put(first, {"a.txt", "b.txt"});
    world_.alongside(answer(Row::decline(), 1));
    start();
    pass(51ms);
    world_.alongside(beginOneAndTakeOne(60s));
    pass(30s);
    ASSERT_EQ(1U, failures().size()) << "a.txt was declined";
    ASSERT_EQ(1U, sender_->batches().size());
    ASSERT_EQ(OutboxView::State::sending, sender_->batches()[0].state);
    EXPECT_TRUE(sender_->cancel(BatchId(first), world_.phoneRecord().peer_pubkey));
    pass(1s);
    EXPECT_FALSE(isThere(outbox / first));
    EXPECT_FALSE(isThere(container / "OutboxSetAside" / first));
    EXPECT_THAT(told(What::setAside), IsEmpty());
    EXPECT_TRUE(sender_->batches().empty());
    pass(60s);
    put(second, {"c.txt"});
    ring();
    pass(10s);
    EXPECT_THAT(taken_, ElementsAre("c.txt"));
}

TEST_F(OutboxSenderTest, AnAttemptThatTheEndOfTheServiceCutsWasNotCancelledByAnybody) {
    put(first, {"a.txt"});
    std::vector<std::string> ends;
    world_.alongside(beginOneAndTakeOne(2s));
    start([&ends](OutboxSender& sender) {
        sender.watcher = {
            .onStarted = {}, .onProgress = {}, .onEnded = [&ends](auto, auto end, const std::string& why) {
                ends.push_back(end == OutboxSender::AttemptEnd::failed ? why : "something else");
            }};
    });
    pass(1s);
    stop();
    EXPECT_THAT(ends, ElementsAre("the service has ended"));
    start();
    pass(10s);
    EXPECT_THAT(taken_, ElementsAre("a.txt"));
}

TEST_F(OutboxSenderTest, CancellingWhatHasEndedDoesNothing) {
    put(first, {"a.txt"});
    std::optional<OutboxSender::AttemptNumber> attempt;
    world_.alongside(take(1));
    start([&attempt](OutboxSender& sender) {
        sender.watcher.onStarted = [&attempt](auto number, const auto&, const auto&) { attempt = number; };
    });
    pass(1s);
    ASSERT_TRUE(attempt);
    sender_->cancel(*attempt);
    pass(1s);
    EXPECT_EQ(1U, told(What::sent).size());
    EXPECT_THAT(failures(), IsEmpty());
}

} // namespace
} // namespace orlinth::host
