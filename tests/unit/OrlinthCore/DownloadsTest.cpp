#include "OrlinthCore/Receiving/Downloads.h"

#include "OrlinthCore/Receiving/Partials.h"
#include "OrlinthCore/Receiving/ReceiveError.h"
#include "fakes/Sidecar.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

namespace orlinth {
namespace {

using fakes::Operation;
using platform::Path;
using testing::ElementsAre;
using testing::IsEmpty;
using Reason = DownloadRefusal::Reason;

const Path folder = "/downloads";
const PeerKey phone{"hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo="};
const PeerKey tablet{"3p7bfXt9wbTTW2HC7OQ1Nz+DQ8hbeGdNrfx+FG+IK08="};

class DownloadsTest : public testing::Test {
protected:
    DownloadsTest() { world.files.putFolder(folder); }

    static TransportMessage::FileOffer offerOf(std::int64_t size, const std::string& id = "ID-1",
                                               const std::string& name = "a.txt") {
        return {.name = name, .size = size, .mime = "text/plain", .transfer_id = id};
    }
    [[nodiscard]] IncomingFile begin(const TransportMessage::FileOffer& offer, const PeerKey& from = phone) {
        return world.run(downloads.begin(from, offer, world.clock.now()));
    }
    [[nodiscard]] std::string failureToBegin(const TransportMessage::FileOffer& offer) {
        try {
            static_cast<void>(begin(offer));
            return "";
        } catch (const ReceiveError& error) {
            return error.description();
        }
    }
    [[nodiscard]] std::optional<Reason> refusal(const TransportMessage::FileOffer& offer, const PeerKey& from = phone) {
        const std::optional<DownloadRefusal> refusal = world.run(downloads.prospectOf(from, offer)).refusal;
        return refusal ? std::optional(refusal->reason) : std::nullopt;
    }
    void putPartial(const std::string& name, const std::string& content, const std::string& id,
                    const PeerKey& from = phone) {
        world.files.put(folder / (name + ".partial"), content);
        world.files.put(folder / (name + ".partial.meta.json"),
                        compactJson(PartialMeta{TransferId(id), 1, fromEpochMilliseconds(1), from}.toJson()));
    }

    fakes::World world;
    Downloads downloads{world.system.storage(), world.queues, folder};
};

TEST_F(DownloadsTest, TakeIdsOfAtMost256Bytes) {
    const std::string longest(256, 'x');
    EXPECT_EQ(begin(offerOf(1, longest)).bytesWritten(), 0);
    const std::string tooLong(257, 'x');
    EXPECT_EQ(failureToBegin(offerOf(1, tooLong)), "protocol violation: transfer id of 257 bytes, more than 256");
    EXPECT_THROW(static_cast<void>(refusal(offerOf(1, tooLong))), ReceiveError);
}

TEST_F(DownloadsTest, TakeEverythingWithoutLimits) {
    world.files.setCapacity(10);
    EXPECT_EQ(refusal(offerOf(std::numeric_limits<std::int64_t>::max())), std::nullopt);
}

TEST_F(DownloadsTest, TakeNoFileThatIsTooLarge) {
    downloads.setLimits({.keepFreeBytes = 0, .maxFileBytes = 10});
    EXPECT_EQ(refusal(offerOf(10)), std::nullopt);
    EXPECT_EQ(refusal(offerOf(11)), Reason::tooLarge);
    EXPECT_EQ(failureToBegin(offerOf(11)), "file write failed: the file is larger than 10 bytes");
    IncomingFile file = begin(offerOf(5));
    file.append(asBytes("0123456789"));
    try {
        file.append(asBytes("x"));
        ADD_FAILURE() << "an offer that lied";
    } catch (const ReceiveError& error) {
        EXPECT_EQ(error.description(), "file write failed: the file is larger than 10 bytes");
        EXPECT_EQ(error.which(), ReceiveError::Case::fileNotTaken);
    }
    EXPECT_EQ(world.files.content(folder / "a.txt.partial"), "0123456789");
}

TEST_F(DownloadsTest, GoOnWithNoPartialFileThatIsTooLarge) {
    putPartial("a.txt", "0123456789x", "ID-1");
    downloads.setLimits({.keepFreeBytes = 0, .maxFileBytes = 10});
    EXPECT_EQ(failureToBegin(offerOf(5)), "file write failed: the file is larger than 10 bytes");
    EXPECT_EQ(world.files.content(folder / "a.txt.partial"), "0123456789x");
    putPartial("a.txt", "0123456789", "ID-1");
    EXPECT_EQ(failureToBegin(offerOf(5)), "");
}

TEST_F(DownloadsTest, CountPartialFilesAlsoBesideOneThatCannotBeLookedAt) {
    putPartial("!", "", "ID-0");
    for (std::size_t i = 0; i < DownloadLimits::maxPartials; ++i) {
        putPartial(std::to_string(i), "", "ID of " + std::to_string(i));
    }
    world.files.addFault({.operation = Operation::status, .errorNumber = EACCES, .nameEnding = "!.partial"});
    EXPECT_EQ(refusal(offerOf(1, "ID", "new.txt")), Reason::tooManyPartials);
}

TEST_F(DownloadsTest, KeepRoomFree) {
    downloads.setLimits({.keepFreeBytes = 1000, .maxFileBytes = 0});
    world.files.setCapacity(5000);
    EXPECT_EQ(refusal(offerOf(4000)), std::nullopt);
    EXPECT_EQ(refusal(offerOf(4001)), Reason::noRoom);
    EXPECT_EQ(refusal(offerOf(std::numeric_limits<std::int64_t>::max())), Reason::noRoom);
    EXPECT_EQ(failureToBegin(offerOf(4001)), "file write failed: less than 1000 bytes would stay free on the disk");
    world.files.setCapacity(500);
    EXPECT_EQ(refusal(offerOf(1)), Reason::noRoom);
    EXPECT_EQ(refusal(offerOf(0)), std::nullopt) << "an empty file takes none";
    EXPECT_EQ(refusal(offerOf(std::numeric_limits<std::int64_t>::min())), std::nullopt);
}

TEST_F(DownloadsTest, CountWhatIsHereOfTheFileAlready) {
    downloads.setLimits({.keepFreeBytes = 1000, .maxFileBytes = 0});
    putPartial("a.txt", std::string(3000, 'x'), "ID-1");
    world.files.setCapacity(5000);
    EXPECT_EQ(refusal(offerOf(3500)), std::nullopt) << "500 bytes are to come";
    EXPECT_EQ(refusal(offerOf(3500, "ID-2")), Reason::noRoom);
    EXPECT_EQ(refusal(offerOf(3500), tablet), Reason::noRoom);
}

TEST_F(DownloadsTest, CountWhatIsToComeOfTransfersUnderWay) {
    downloads.setLimits({.keepFreeBytes = 1000, .maxFileBytes = 0});
    world.files.setCapacity(50'000);
    {
        IncomingFile film = begin(offerOf(20'000, "ID-1", "film"));
        EXPECT_EQ(refusal(offerOf(25'000, "ID-2")), std::nullopt);
        EXPECT_EQ(refusal(offerOf(30'000, "ID-2")), Reason::noRoom);
        EXPECT_EQ(refusal(offerOf(30'000, "ID-1"), tablet), Reason::noRoom) << "another phone's transfer";
        EXPECT_EQ(refusal(offerOf(40'000, "ID-1")), std::nullopt) << "the same one, by a newer connection";
        film.append(Bytes(15'000));
        EXPECT_EQ(refusal(offerOf(28'000, "ID-2")), std::nullopt) << "what has come takes its room on the disk";
        EXPECT_EQ(refusal(offerOf(30'000, "ID-2")), Reason::noRoom);
    }
    EXPECT_EQ(refusal(offerOf(33'000, "ID-2")), std::nullopt) << "nothing more is to come of it";
}

TEST_F(DownloadsTest, StopASenderThatSendsMoreThanItHasOffered) {
    downloads.setLimits({.keepFreeBytes = 1000, .maxFileBytes = 0});
    world.files.setCapacity(9000);
    IncomingFile file = begin(offerOf(1));
    file.append(Bytes(4000));
    try {
        file.append(Bytes(4000));
        ADD_FAILURE() << "no error";
    } catch (const ReceiveError& error) {
        EXPECT_EQ(error.description(), "file write failed: less than 1000 bytes would stay free on the disk");
    }
    EXPECT_EQ(file.bytesWritten(), 4000);
}

TEST_F(DownloadsTest, SayNothingOfAFolderThatIsNotThere) {
    downloads.setLimits({.keepFreeBytes = 1000, .maxFileBytes = 0});
    Downloads missing(world.system.storage(), world.queues, "/missing");
    EXPECT_EQ(world.run(missing.prospectOf(phone, offerOf(1))).refusal, std::nullopt);
    EXPECT_FALSE(world.files.exists("/missing"));
}

TEST_F(DownloadsTest, LetAPhoneLeaveAThousandUnfinishedDownloads) {
    for (std::size_t number = 0; number + 1 < DownloadLimits::maxPartials; ++number) {
        putPartial(std::to_string(number), "", "ID-" + std::to_string(number));
    }
    putPartial("of an older version", "", "ID-old", PeerKey());
    EXPECT_EQ(refusal(offerOf(1, "new")), std::nullopt);
    {
        const IncomingFile last = begin(offerOf(1, "last", "last"));
        EXPECT_EQ(refusal(offerOf(1, "new")), Reason::tooManyPartials);
    }
    EXPECT_EQ(failureToBegin(offerOf(1, "new")), "file write failed: the phone has 1000 unfinished downloads");
    EXPECT_EQ(refusal(offerOf(1, "last", "last")), std::nullopt) << "it goes on with what it has begun";
    EXPECT_EQ(refusal(offerOf(1, "ID-7", "7")), std::nullopt);
    EXPECT_EQ(refusal(offerOf(1, "new"), tablet), std::nullopt);
    IncomingFile last = begin(offerOf(1, "last", "last"));
    world.run(downloads.finish(last, "192.168.1.7:1"));
    EXPECT_EQ(refusal(offerOf(1, "new")), std::nullopt) << "one less";
}

TEST_F(DownloadsTest, LookAgainAfterAWhileWhetherSomebodyHasTidiedUp) {
    for (std::size_t number = 0; number < DownloadLimits::maxPartials; ++number) {
        putPartial(std::to_string(number), "", "ID-" + std::to_string(number));
    }
    EXPECT_EQ(refusal(offerOf(1, "new")), Reason::tooManyPartials);
    world.files.remove(folder / "7.partial");
    const std::size_t lists = world.files.count(Operation::list);
    EXPECT_EQ(refusal(offerOf(1, "new")), Reason::tooManyPartials);
    EXPECT_EQ(world.files.count(Operation::list), lists) << "an offer each does not mean a look each";
    world.run(world.clock.sleep(11s));
    EXPECT_EQ(refusal(offerOf(1, "new")), std::nullopt);
}

TEST_F(DownloadsTest, GoWhereACallSaysUnderTheLimitsThatItNames) {
    const DownloadPlace pictures{.folder = "/pictures", .limits = {.maxFileBytes = 10}};
    EXPECT_EQ(refusal(offerOf(11)), std::nullopt);
    EXPECT_EQ(world.run(downloads.beginUnlessRefused(phone, offerOf(11), world.clock.now(), pictures)).refusal->reason,
              Reason::tooLarge);
    Downloads::Beginning beginning =
        world.run(downloads.beginUnlessRefused(phone, offerOf(4), world.clock.now(), pictures));
    EXPECT_TRUE(world.files.exists("/pictures/a.txt.partial"));
    EXPECT_FALSE(world.files.exists(folder / "a.txt.partial"));
    world.run(downloads.append(*beginning.file, asBytes("here")));
    static_cast<void>(world.run(downloads.finish(*beginning.file, "192.168.1.7:1")));
    EXPECT_EQ(world.files.content("/pictures/a.txt"), "here");
    EXPECT_TRUE(world.run(downloads.prospectOf(phone, offerOf(4))).isDelivered) << "wherever it was put";
}

TEST_F(DownloadsTest, CountUnfinishedOnesOfEachFolderForItself) {
    for (std::size_t number = 0; number < DownloadLimits::maxPartials; ++number) {
        putPartial(std::to_string(number), "", "ID-" + std::to_string(number));
    }
    const DownloadPlace pictures{.folder = "/pictures"};
    world.files.putFolder(pictures.folder);
    const auto refusalThere = [&] {
        return world.run(downloads.prospectOf(phone, offerOf(1, "new"), pictures)).refusal;
    };
    EXPECT_EQ(refusal(offerOf(1, "new")), Reason::tooManyPartials);
    EXPECT_EQ(refusalThere(), std::nullopt);
    const std::size_t lists = world.files.count(Operation::list);
    EXPECT_EQ(refusal(offerOf(1, "new")), Reason::tooManyPartials);
    EXPECT_EQ(refusalThere(), std::nullopt);
    EXPECT_EQ(world.files.count(Operation::list), lists) << "neither folder is read again";
}

// ---- unfinished downloads

class PartialsTest : public DownloadsTest {
protected:
    [[nodiscard]] std::vector<std::string> names() {
        std::vector<std::string> found;
        for (const PartialDownload& download : Partials::in(*opened)) {
            found.push_back(download.final.text());
        }
        return found;
    }

    std::unique_ptr<platform::Folder> opened = world.files.openFolder(folder);
};

TEST_F(PartialsTest, AreThoseWithASidecar) {
    putPartial("b.pdf", "12345", "ID-1");
    putPartial("a", "", "ID-2", PeerKey());
    world.files.put(folder / "own.partial", "somebody's own");
    world.files.put(folder / "gone.partial.meta.json",
                    compactJson(PartialMeta{TransferId("ID-3"), 1, fromEpochMilliseconds(1), phone}.toJson()));
    world.files.put(folder / ".partial", "");
    world.files.put(folder / ".partial.meta.json",
                    compactJson(PartialMeta{TransferId("ID-4"), 1, fromEpochMilliseconds(1), phone}.toJson()));
    putPartial("link", "", "ID-5");
    world.files.putLink(folder / "link.partial", folder / "own.partial");
    EXPECT_THAT(names(), ElementsAre("a", "b.pdf"));
    const PartialDownload download = Partials::in(*opened).at(1);
    EXPECT_EQ(download.partial.text(), "b.pdf.partial");
    EXPECT_EQ(download.size, 5);
    EXPECT_EQ(download.meta.peer_pubkey, phone);
    EXPECT_EQ(download.changedAt, world.files.status(folder / "b.pdf.partial")->modifiedAt);
}

TEST_F(PartialsTest, AreRemovedWithTheirSidecar) {
    putPartial("a", "1", "ID-1");
    putPartial("b", "1", "ID-2");
    EXPECT_TRUE(Partials::remove(*opened, Partials::in(*opened).at(0)));
    EXPECT_THAT(names(), ElementsAre("b"));
    EXPECT_FALSE(world.files.exists(folder / "a.partial.meta.json"));
}

TEST_F(PartialsTest, AreNotRemovedWhileTheyAreWrittenOrIfTheyHaveChanged) {
    putPartial("a", "1", "ID-1");
    const PartialDownload download = Partials::in(*opened).at(0);
    {
        const auto writer = world.files.open(folder / "a.partial", platform::OpenMode::write);
        ASSERT_TRUE(writer->tryLock());
        EXPECT_FALSE(Partials::remove(*opened, download));
    }
    putPartial("a", "12", "ID-1");
    EXPECT_FALSE(Partials::remove(*opened, download));
    putPartial("a", "1", "ID-other");
    EXPECT_FALSE(Partials::remove(*opened, download));
    world.files.remove(folder / "a.partial.meta.json");
    EXPECT_FALSE(Partials::remove(*opened, download));
    EXPECT_TRUE(world.files.exists(folder / "a.partial"));
}

} // namespace
} // namespace orlinth
