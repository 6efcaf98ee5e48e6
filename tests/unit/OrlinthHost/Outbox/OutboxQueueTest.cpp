#include "OrlinthHost/Outbox/OutboxQueue.h"

#include "OrlinthHost/Outbox/OutboxLookout.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

const platform::Path container = "/home/ann/.local/share/group.com.tarvinex.orlinth";
const platform::Path outbox = container / "Outbox";
const platform::Path memory = "/home/ann/.local/share/Orlinth/outbox";
constexpr const char* first = "0A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9";
constexpr const char* second = "1A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9";
constexpr const char* third = "2A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9";

/// What the queue tells, a line each: "sent a.txt to Pixel-8".
class RecordingEvents final : public OutboxEvents {
public:
    void progress(const Transfer&, const Progress&) override { lines.emplace_back("progress"); }
    void sent(const Transfer& transfer, const Delivered&) override {
        lines.push_back("sent " + transfer.file + " to " + transfer.to);
    }
    void through(const BatchId&, const OutboxState::Phone& to, const std::vector<std::string>& files) override {
        std::string line = to.displayName() + " has";
        for (const std::string& file : files) {
            line += " " + file;
        }
        lines.push_back(line);
    }
    void done(const BatchId& batch) override { lines.push_back("done " + batch.text().substr(0, 2)); }
    void waiting(const BatchId& batch, const std::string& to, const std::string& message, Seconds pause) override {
        lines.push_back("waiting " + batch.text().substr(0, 2) + " for " + to + " " +
                        std::to_string(std::lround(pause.count())) + " s: " + message);
    }
    void waitingLine(const OutboxState::Phone& to, const std::string& message) override {
        lines.push_back("line: " + to.displayName() + ": " + message);
    }
    void failed(const Transfer& transfer, const std::string& message) override {
        lines.push_back("failed " + transfer.file + " to " + transfer.to + ": " + message);
    }
    void failed(const BatchId& batch, const OutboxState::Phone& to, const std::string& message) override {
        lines.push_back("failed all of " + batch.text().substr(0, 2) + " to " + to.displayName() + ": " + message);
    }
    void setAside(const BatchId& batch, const std::string& message, const platform::Path&) override {
        lines.push_back("set aside " + batch.text().substr(0, 2) + ": " + message);
    }
    void notSetAside(const BatchId& batch, const std::string&, const std::string&) override {
        lines.push_back("not set aside " + batch.text().substr(0, 2));
    }
    void noOutbox(const std::string&) override { lines.emplace_back("no outbox"); }
    void notSaved(const std::string&) override { lines.emplace_back("not saved"); }

    [[nodiscard]] std::vector<std::string> take() { return std::exchange(lines, {}); }
    std::vector<std::string> lines;
};

class OutboxQueueTest : public testing::Test {
protected:
    OutboxQueueTest() { home.peers().writeBook({{world.phoneRecord(), tabletRecord()}}); }

    [[nodiscard]] PeerRecord tabletRecord() const {
        PeerRecord record = world.phoneRecord();
        record.peer_pubkey = tablet;
        record.peer_hostname = "Tablet";
        return record;
    }
    /// A batch that somebody fills, as long as what is returned is there.
    [[nodiscard]] std::unique_ptr<platform::File> beginBatch(const std::string& id) {
        world.files.put(outbox / id / "a.txt", "on its way");
        std::unique_ptr<platform::File> hold = world.files.open(outbox / id, platform::OpenMode::read);
        EXPECT_TRUE(hold->tryLock());
        return hold;
    }
    void put(const std::string& id, const std::vector<std::string>& files, std::vector<PeerKey> phones,
             std::int64_t createdAtMs = 1000) {
        for (const std::string& name : files) {
            world.files.put(outbox / id / name, "content of " + name);
        }
        const ShareOutbox::Manifest manifest{.id = id,
                                             .createdAtMs = fromEpochMilliseconds(createdAtMs),
                                             .files = files,
                                             .targetPubkeys = std::move(phones)};
        world.files.put(outbox / id / "manifest.json", compactJson(manifest.toJson()));
    }
    OutboxQueue::News look() {
        return queue->look([](const auto&, const auto&) {});
    }
    /// As after a restart of the service.
    void restart() {
        queue.emplace(home, events);
        queue->forgetOrphans();
        static_cast<void>(look());
    }
    OutboxQueue::Job& job(const std::string& id) { return *queue->find(BatchId(id)); }
    /// Batch and file that come next for a phone, and are under way from now on; "" if there are none.
    std::string begin(const PeerKey& key) {
        OutboxQueue::Job* const next = queue->nextFor(key);
        if (next == nullptr) {
            return "";
        }
        const std::string file = *next->nextFor(key);
        journal = queue->setUnderWay(*next, key);
        return next->id().text().substr(0, 2) + " " + file;
    }
    void end(const std::string& id, const PeerKey& key, const std::string& file) {
        queue->setEnded(job(id), key, file);
    }
    void arrive(const std::string& id, const PeerKey& key, const std::string& file) {
        end(id, key, file);
        const OutboxEvents::Transfer transfer{
            .batch = BatchId(id), .file = file, .to = key == phone ? "Pixel-8" : "Tablet", .peerKey = key};
        queue->setDone(job(id), key, transfer, Delivered{});
    }
    void fail(const std::string& id, const PeerKey& key, const std::string& file, const std::string& why) {
        end(id, key, file);
        queue->setFailed(job(id), key, file, why);
    }
    void takeInVain(const std::string& id, const PeerKey& key, const std::string& file) {
        end(id, key, file);
        queue->putBehind(job(id), key, file);
    }
    [[nodiscard]] bool isThere(const platform::Path& path) const { return world.files.exists(path); }

    fakes::World world;
    Home home{world.system, world.context.get_executor()};
    RecordingEvents events;
    const PeerKey phone = world.phoneRecord().peer_pubkey;
    const PeerKey tablet = platform::PrivateKey::generate().publicKey().peerKey();
    std::shared_ptr<OutboxJournal> journal;
    std::optional<OutboxQueue> queue{std::in_place, home, events};
};

TEST_F(OutboxQueueTest, TakesInABatchOnceItIsComplete) {
    const auto hold = beginBatch(first);
    std::set<platform::Path> incomplete;
    std::optional<platform::Path> watched;
    const auto watch = [&](const std::optional<platform::Path>& folder, const std::set<platform::Path>& folders) {
        watched = folder;
        incomplete = folders;
    };
    EXPECT_THAT(queue->look(watch).phones, IsEmpty());
    EXPECT_EQ(watched, outbox);
    EXPECT_THAT(incomplete, ElementsAre(outbox / first));
    put(first, {"a.txt"}, {phone});
    EXPECT_THAT(queue->look(watch).phones, ElementsAre(phone));
    EXPECT_THAT(incomplete, IsEmpty());
    EXPECT_NE(queue->find(BatchId(first)), nullptr);
    EXPECT_THAT(look().phones, IsEmpty()) << "it is no news any more";
}

TEST_F(OutboxQueueTest, FindsABatchThatBecomesCompleteWhileTheWatchIsSetUp) {
    const auto hold = beginBatch(first);
    const OutboxQueue::News news = queue->look([this](const auto&, const auto&) { put(first, {"a.txt"}, {phone}); });
    EXPECT_THAT(news.phones, ElementsAre(phone));
}

TEST_F(OutboxQueueTest, GivesFilesInTheirOrderTheOlderBatchFirstAndEachOnce) {
    put(first, {"new.txt"}, {phone}, 200);
    put(second, {"b.txt", "a.txt"}, {phone}, 100);
    static_cast<void>(look());
    EXPECT_EQ(begin(phone), "1A b.txt");
    EXPECT_EQ(begin(phone), "1A a.txt") << "beside the first";
    EXPECT_EQ(begin(phone), "0A new.txt");
    EXPECT_EQ(begin(phone), "");
    EXPECT_TRUE(job(second).isOpenFor(phone)) << "what is under way is not done";
}

TEST_F(OutboxQueueTest, GivesFilesThatThePhoneTookInVainAfterTheOthers) {
    put(first, {"a.txt", "b.txt", "c.txt"}, {phone}, 100);
    put(second, {"d.txt"}, {phone}, 200);
    static_cast<void>(look());
    EXPECT_EQ(begin(phone), "0A a.txt");
    takeInVain(first, phone, "a.txt");
    EXPECT_EQ(begin(phone), "0A b.txt");
    takeInVain(first, phone, "b.txt");
    EXPECT_EQ(begin(phone), "0A c.txt");
    EXPECT_EQ(begin(phone), "1A d.txt") << "also of a later batch";
    EXPECT_EQ(begin(phone), "0A a.txt");
    takeInVain(first, phone, "a.txt");
    EXPECT_EQ(begin(phone), "0A b.txt") << "in vain once, the other twice";
    EXPECT_EQ(job(first).attemptsInVain(phone, "a.txt"), 2);
}

TEST_F(OutboxQueueTest, PreparesSixteenFilesAtOnceButNoneThatWasTakenInVain) {
    std::vector<std::string> names;
    for (char letter = 'a'; letter <= 'z'; ++letter) {
        names.emplace_back(1, letter);
    }
    put(first, names, {phone});
    static_cast<void>(look());
    EXPECT_EQ(begin(phone), "0A a");
    EXPECT_TRUE(journal->isPrepared(outbox / first / "p"));
    EXPECT_FALSE(journal->isPrepared(outbox / first / "q")) << "the seventeenth";
    queue->putBehind(job(first), phone, "c");
    EXPECT_THAT(job(first).upcoming(phone, 3), ElementsAre("b", "d", "e"));
}

TEST_F(OutboxQueueTest, OpensNoFileThatIsNotFitToBeSent) {
    put(first, {"a.txt", "b.txt", "c.txt"}, {phone});
    static_cast<void>(look());
    world.files.remove(outbox / first / "b.txt");
    world.files.putLink(outbox / first / "b.txt", "/home/ann/secret");
    world.files.put("/home/ann/secret", "secret");
    EXPECT_EQ(begin(phone), "0A a.txt");
    EXPECT_FALSE(journal->isPrepared(outbox / first / "b.txt"));
    EXPECT_TRUE(journal->isPrepared(outbox / first / "c.txt"));
}

TEST_F(OutboxQueueTest, RemovesABatchOnceEveryPhoneHasEverything) {
    put(first, {"a.txt", "b.txt"}, {phone, tablet});
    static_cast<void>(look());
    for (const PeerKey& key : {phone, tablet}) {
        EXPECT_EQ(begin(key), "0A a.txt");
        arrive(first, key, "a.txt");
        EXPECT_EQ(begin(key), "0A b.txt");
        EXPECT_TRUE(isThere(outbox / first));
        arrive(first, key, "b.txt");
    }
    EXPECT_THAT(events.take(),
                ElementsAre("sent a.txt to Pixel-8", "sent b.txt to Pixel-8", "Pixel-8 has a.txt b.txt",
                            "sent a.txt to Tablet", "sent b.txt to Tablet", "Tablet has a.txt b.txt", "done 0A"));
    EXPECT_FALSE(isThere(outbox / first));
    EXPECT_FALSE(isThere(memory / first));
    EXPECT_EQ(queue->find(BatchId(first)), nullptr);
}

TEST_F(OutboxQueueTest, KnowsAfterARestartWhatEachPhoneHas) {
    put(first, {"a.txt", "b.txt"}, {phone, tablet});
    static_cast<void>(look());
    static_cast<void>(begin(phone));
    arrive(first, phone, "a.txt");
    restart();
    EXPECT_EQ(begin(phone), "0A b.txt");
    EXPECT_EQ(begin(tablet), "0A a.txt");
    arrive(first, phone, "b.txt");
    restart();
    EXPECT_EQ(begin(phone), "");
    arrive(first, tablet, begin(tablet).substr(3));
    static_cast<void>(events.take());
    static_cast<void>(begin(tablet));
    arrive(first, tablet, "b.txt");
    EXPECT_THAT(events.take(), ElementsAre("sent b.txt to Tablet", "Tablet has a.txt b.txt", "done 0A"))
        << "that the other one has everything was told before";
}

TEST_F(OutboxQueueTest, SetsABatchAsideOfWhichSomethingHasFailedForGood) {
    put(first, {"a.txt", "b.txt", "c.txt"}, {phone});
    static_cast<void>(look());
    for (const char* file : {"a.txt", "b.txt"}) {
        static_cast<void>(begin(phone));
        fail(first, phone, file, "declined");
    }
    static_cast<void>(begin(phone));
    arrive(first, phone, "c.txt");
    EXPECT_THAT(events.take(), ElementsAre("failed a.txt to Pixel-8: declined", "failed b.txt to Pixel-8: declined",
                                           "sent c.txt to Pixel-8", "Pixel-8 has c.txt",
                                           "set aside 0A: 2 files not sent to Pixel-8 (declined)"));
    EXPECT_TRUE(isThere(container / "OutboxSetAside" / first / "a.txt"));
    EXPECT_TRUE(isThere(memory / first)) << "for a retry";
}

TEST_F(OutboxQueueTest, GivesUpEverythingForOnePhoneAndNothingForTheOther) {
    put(first, {"a.txt", "b.txt"}, {phone, tablet});
    put(second, {"c.txt"}, {phone});
    static_cast<void>(look());
    static_cast<void>(begin(tablet));
    queue->setAllFailed(phone, "removed");
    EXPECT_THAT(events.take(), ElementsAre("failed all of 0A to Pixel-8: removed", "Pixel-8 has",
                                           "failed all of 1A to Pixel-8: removed", "Pixel-8 has",
                                           "set aside 1A: c.txt not sent to Pixel-8 (removed)"));
    EXPECT_EQ(begin(phone), "");
    EXPECT_EQ(begin(tablet), "0A b.txt");
}

TEST_F(OutboxQueueTest, TellsOfEachBatchThatItsPhoneIsAwayAndPeopleOnce) {
    put(first, {"a.txt"}, {phone});
    put(second, {"b.txt"}, {phone, tablet});
    static_cast<void>(look());
    queue->setWaiting(phone, "no answer", 5s, true);
    EXPECT_THAT(events.take(), ElementsAre("waiting 0A for Pixel-8 5 s: no answer",
                                           "waiting 1A for Pixel-8 5 s: no answer", "line: Pixel-8: no answer"));
    queue->setWaiting(phone, "no answer", 10s, false);
    EXPECT_THAT(events.take(), ElementsAre(StartsWith("waiting 0A"), StartsWith("waiting 1A")));
    queue->setWaiting(phone, "refused", 20s, true);
    EXPECT_THAT(events.take(),
                ElementsAre(StartsWith("waiting 0A"), StartsWith("waiting 1A"), "line: Pixel-8: refused"));
    put(third, {"c.txt"}, {phone});
    static_cast<void>(look());
    queue->setWaiting(phone, "refused", 40s, false);
    EXPECT_EQ(events.take().size(), 4U) << "a batch that nobody knows to wait yet";
}

TEST_F(OutboxQueueTest, SetsAsideWhatMakesNoSense) {
    world.files.put(outbox / first / "manifest.json", "{");
    put(second, {"missing.txt"}, {phone});
    world.files.remove(outbox / second / "missing.txt");
    home.peers().writeBook({});
    put(third, {"a.txt"}, {phone});
    world.files.put(outbox / third / "manifest.json",
                    compactJson(ShareOutbox::Manifest{
                        .id = third, .createdAtMs = fromEpochMilliseconds(1), .files = {"a.txt"}, .targetPubkeys = {}}
                                    .toJson()));
    static_cast<void>(look());
    EXPECT_THAT(events.take(), ElementsAre(StartsWith("set aside 0A: "), StartsWith("set aside 1A: "),
                                           "set aside 2A: no phone is paired"));
    EXPECT_TRUE(isThere(container / "OutboxSetAside" / first / "manifest.json"));
}

TEST_F(OutboxQueueTest, TellsOnceOfABatchThatCannotBeSetAsideAndTriesAgainWhenItHasGoneAndCome) {
    world.files.put(outbox / first / "manifest.json", "{");
    world.files.addFault({.operation = fakes::Operation::rename, .errorNumber = EACCES});
    static_cast<void>(look());
    static_cast<void>(look());
    EXPECT_THAT(events.take(), ElementsAre("not set aside 0A"));
    world.files.clearFaults();
    world.files.remove(outbox / first / "manifest.json");
    world.files.removeDirectory(outbox / first);
    static_cast<void>(look());
    put(first, {"a.txt"}, {phone});
    EXPECT_THAT(look().phones, ElementsAre(phone));
}

TEST_F(OutboxQueueTest, TakesInABatchAtALaterLookIfThePeerStoreCannotBeReadNow) {
    put(first, {"a.txt"}, {});
    world.files.put(outbox / first / "manifest.json",
                    compactJson(ShareOutbox::Manifest{
                        .id = first, .createdAtMs = fromEpochMilliseconds(1), .files = {"a.txt"}, .targetPubkeys = {}}
                                    .toJson()));
    home.peers().writeBook({{world.phoneRecord()}});
    world.files.addFault({.operation = fakes::Operation::open, .errorNumber = EMFILE, .nameEnding = "peer.json"});
    EXPECT_THAT(look().phones, IsEmpty());
    EXPECT_THAT(events.take(), ElementsAre(StartsWith("waiting 0A for  60 s: ")));
    world.files.clearFaults();
    EXPECT_THAT(look().phones, ElementsAre(phone));
}

TEST_F(OutboxQueueTest, TellsOnceThatThereIsNoOutboxUntilThereWasOne) {
    world.files.addFault({.operation = fakes::Operation::createDirectory, .errorNumber = EROFS});
    static_cast<void>(look());
    static_cast<void>(look());
    EXPECT_THAT(events.take(), ElementsAre("no outbox"));
    world.files.clearFaults();
    static_cast<void>(look());
    EXPECT_TRUE(isThere(outbox));
    world.files.removeDirectory(outbox);
    world.files.addFault({.operation = fakes::Operation::createDirectory, .errorNumber = EROFS});
    static_cast<void>(look());
    EXPECT_THAT(events.take(), ElementsAre("no outbox"));
}

TEST_F(OutboxQueueTest, TellsOnceThatItCanSaveNothingAndSavesItLater) {
    put(first, {"a.txt", "b.txt", "c.txt"}, {phone});
    static_cast<void>(look());
    world.files.addFault({.operation = fakes::Operation::write, .errorNumber = ENOSPC, .nameEnding = ""});
    for (const char* file : {"a.txt", "b.txt"}) {
        static_cast<void>(begin(phone));
        arrive(first, phone, file);
    }
    EXPECT_THAT(events.take(), ElementsAre("not saved", "sent a.txt to Pixel-8", "sent b.txt to Pixel-8"));
    world.files.clearFaults();
    queue->saveWhatIsBehind();
    restart();
    EXPECT_EQ(begin(phone), "0A c.txt");
}

TEST_F(OutboxQueueTest, FindsABatchWhoseFolderHasGoneAndRemovesNothingInItsPlace) {
    put(first, {"a.txt"}, {phone});
    static_cast<void>(look());
    world.files.putFolder("/mnt");
    world.files.rename(outbox / first, "/mnt/moved");
    world.files.putLink(outbox / first, "/mnt/moved");
    EXPECT_THAT(look().vanished, ElementsAre(BatchId(first)));
    EXPECT_EQ(queue->discard(BatchId(first)), std::nullopt);
    EXPECT_TRUE(isThere("/mnt/moved/a.txt"));
    EXPECT_FALSE(isThere(memory / first));
}

TEST_F(OutboxQueueTest, DropsABatchWithAllThatIsRememberedOfIt) {
    put(first, {"a.txt"}, {phone});
    static_cast<void>(look());
    EXPECT_EQ(queue->discard(BatchId(first)), std::nullopt);
    EXPECT_FALSE(isThere(outbox / first));
    EXPECT_FALSE(isThere(memory / first));
    EXPECT_EQ(queue->find(BatchId(first)), nullptr);
    EXPECT_THAT(events.take(), IsEmpty()) << "whoever dropped it knows";
}

TEST_F(OutboxQueueTest, SetsAsideADroppedBatchThatCannotBeRemoved) {
    put(first, {"a.txt"}, {phone});
    static_cast<void>(look());
    world.files.addFault({.operation = fakes::Operation::remove, .errorNumber = EACCES, .nameEnding = "a.txt"});
    const std::optional<std::string> problem = queue->discard(BatchId(first));
    ASSERT_TRUE(problem);
    EXPECT_THAT(*problem, StartsWith("it cannot be removed: "));
    EXPECT_THAT(events.take(), ElementsAre("set aside 0A: " + *problem));
}

TEST_F(OutboxQueueTest, TakesNoMoreFilesOfAJobThatIsBeingDropped) {
    put(first, {"a.txt", "b.txt"}, {phone});
    static_cast<void>(look());
    static_cast<void>(begin(phone));
    job(first).isDropped = true;
    EXPECT_EQ(begin(phone), "");
    end(first, phone, "a.txt");
    EXPECT_EQ(begin(phone), "");
}

TEST_F(OutboxQueueTest, TriesAgainWhatHasFailedOfALiveBatchAndOfOneThatWasSetAside) {
    put(first, {"a.txt", "b.txt"}, {phone});
    put(second, {"c.txt"}, {phone}, 2000);
    static_cast<void>(look());
    fail(first, phone, begin(phone).substr(3), "declined");
    EXPECT_TRUE(queue->retry(BatchId(first)));
    EXPECT_EQ(begin(phone), "0A a.txt");
    EXPECT_EQ(begin(phone), "0A b.txt");
    fail(second, phone, begin(phone).substr(3), "declined");
    EXPECT_EQ(queue->find(BatchId(second)), nullptr);
    EXPECT_TRUE(queue->retry(BatchId(second)));
    EXPECT_THAT(look().phones, ElementsAre(phone));
    EXPECT_EQ(begin(phone), "1A c.txt");
    EXPECT_FALSE(queue->retry(BatchId(third)));
}

TEST_F(OutboxQueueTest, ForgetsAtTheStartWhatIsRememberedOfBatchesThatAreNowhere) {
    put(first, {"a.txt"}, {phone});
    static_cast<void>(look());
    for (const char* id : {second, third}) {
        OutboxState state(world.files, memory / id);
        state.phones.push_back(freshPhone(phone, nullptr));
        state.save();
    }
    world.files.put(container / "OutboxSetAside" / third / "manifest.json", "{}");
    world.files.put(memory / "notes.txt", "somebody's");
    restart();
    EXPECT_TRUE(isThere(memory / first));
    EXPECT_FALSE(isThere(memory / second));
    EXPECT_TRUE(isThere(memory / third)) << "it was set aside and can be brought back";
    EXPECT_TRUE(isThere(memory / "notes.txt"));
}

TEST_F(OutboxQueueTest, LooksAtNoFileTwiceThatIsThroughHoweverManyThereAre) {
    std::vector<std::string> names;
    for (int number = 0; number < 2000; ++number) {
        names.push_back("f" + std::to_string(number));
    }
    put(first, names, {phone});
    static_cast<void>(look());
    for (const std::string& name : names) {
        ASSERT_EQ(job(first).nextFor(phone), name);
        job(first).state.find(phone)->setDone(name);
    }
    EXPECT_FALSE(job(first).isOpenFor(phone));
    EXPECT_EQ(job(first).firstOpen.at(phone), names.size());
}

} // namespace
} // namespace orlinth::host
