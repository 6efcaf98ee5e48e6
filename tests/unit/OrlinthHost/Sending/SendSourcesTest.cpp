#include "OrlinthHost/Sending/SendSources.h"

#include "OrlinthCore/Sending/SendError.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class SendSourcesTest : public testing::Test {
protected:
    SendSources& make(std::vector<std::string> paths, std::size_t phones = 1) {
        sources_.emplace(world_.files, world_.mimeTypes, journal_, std::move(paths), phones);
        return *sources_;
    }
    /// One that a run before this has made, and that has ended.
    void forget() {
        sources_->tidy();
        sources_.reset();
    }
    [[nodiscard]] std::vector<std::string> files(int count) {
        std::vector<std::string> paths;
        for (int i = 0; i < count; ++i) {
            paths.push_back("/home/ann/" + std::to_string(i) + ".txt");
            world_.files.put(paths.back(), "content " + std::to_string(i));
        }
        return paths;
    }
    [[nodiscard]] TransferId take(std::size_t file) {
        PreparedFile prepared = sources_->take(file, offer_);
        EXPECT_EQ(prepared.path, sources_->pathOf(file));
        EXPECT_EQ(prepared.transferId, offer_->id);
        return prepared.transferId;
    }
    [[nodiscard]] std::size_t remembered() const { return journal_.snapshotEntries().size(); }

    fakes::World world_;
    InFlightJournal journal_{world_.files, world_.system.directories};
    std::optional<SendSources> sources_;
    std::optional<SendSources::Offer> offer_; ///< the last
};

TEST_F(SendSourcesTest, KnowsTheSizesOfThoseThatCanBeLookedAt) {
    std::vector<std::string> paths = files(1);
    paths.emplace_back("/home/ann/missing");
    EXPECT_THAT(make(paths).sizes(), ElementsAre(9, 0));
    EXPECT_EQ(sources_->sizeOf(0), 9);
}

TEST_F(SendSourcesTest, WritesTheIdsOfSixtyFourFilesDownAtOnce) {
    SendSources& sources = make(files(70));
    EXPECT_TRUE(sources.prepare(0));
    EXPECT_EQ(remembered(), SendSources::filesPreparedAtOnce);
    EXPECT_TRUE(sources.prepare(63));
    EXPECT_EQ(remembered(), SendSources::filesPreparedAtOnce);
    EXPECT_TRUE(sources.prepare(64));
    EXPECT_EQ(remembered(), 70U);
}

TEST_F(SendSourcesTest, ExaminesAFileOnceHoweverManyPhonesGetIt) {
    SendSources& sources = make(files(1), 3);
    EXPECT_TRUE(sources.prepare(0));
    world_.files.addFault({.operation = fakes::Operation::read, .errorNumber = EIO, .nameEnding = "0.txt"});
    EXPECT_TRUE(sources.prepare(0));
    EXPECT_NE(take(0), TransferId());
}

TEST_F(SendSourcesTest, GivesAFileTheIdOfTheAttemptBefore) {
    make(files(1));
    ASSERT_TRUE(sources_->prepare(0));
    const TransferId before = take(0);
    sources_->failed(0, offer_);
    forget();
    make({"/home/ann/0.txt"});
    ASSERT_TRUE(sources_->prepare(0));
    EXPECT_EQ(take(0), before);
}

TEST_F(SendSourcesTest, GivesAFileThatHasChangedSinceAFreshId) {
    const std::string front(FileFingerprint::bytes, 'x'); // by which the journal knows it
    world_.files.put("/home/ann/a.txt", front + "before");
    make({"/home/ann/a.txt"});
    ASSERT_TRUE(sources_->prepare(0));
    const TransferId before = take(0);
    sources_->failed(0, offer_);
    forget();
    world_.files.put("/home/ann/a.txt", front + "behind");
    make({"/home/ann/a.txt"});
    ASSERT_TRUE(sources_->prepare(0));
    EXPECT_NE(take(0), before);
}

TEST_F(SendSourcesTest, EndsAnIdOnlyWhenTheLastPhoneHasTheFile) {
    SendSources& sources = make(files(1), 2);
    ASSERT_TRUE(sources.prepare(0));
    const TransferId id = take(0);
    sources.delivered(0, *offer_);
    EXPECT_TRUE(sources.prepare(0));
    EXPECT_EQ(take(0), id);
    sources.delivered(0, *offer_);
    sources.tidy();
    EXPECT_THAT(journal_.snapshotEntries(), IsEmpty());
}

TEST_F(SendSourcesTest, KeepsTheIdOfWhatOnePhoneDidNotGet) {
    SendSources& sources = make(files(1), 2);
    ASSERT_TRUE(sources.prepare(0));
    static_cast<void>(take(0));
    sources.delivered(0, *offer_);
    static_cast<void>(take(0));
    sources.failed(0, offer_);
    sources.tidy();
    EXPECT_EQ(remembered(), 1U);
}

TEST_F(SendSourcesTest, LetsAnEqualFileWaitUntilTheFirstIsThrough) {
    std::vector<std::string> paths = files(1);
    world_.files.put("/home/ann/copy/0.txt", "content 0");
    paths.emplace_back("/home/ann/copy/0.txt");
    SendSources& sources = make(paths);
    EXPECT_TRUE(sources.prepare(0));
    const TransferId first = take(0);
    EXPECT_FALSE(sources.prepare(1));
    sources.delivered(0, *offer_);
    EXPECT_TRUE(sources.prepare(1));
    EXPECT_NE(take(1), first);
}

TEST_F(SendSourcesTest, PreparesAnewWhatHasBecomeEqualToAnother) {
    const std::vector<std::string> paths = files(2);
    SendSources& sources = make(paths);
    ASSERT_TRUE(sources.prepare(0));
    ASSERT_TRUE(sources.prepare(1));
    world_.files.put("/home/ann/copy/0.txt", "content 0");
    EXPECT_FALSE(sources.hasChanged(0));
    sources.prepareAnew();
    EXPECT_TRUE(sources.prepare(0)) << "nothing is under way";
}

TEST_F(SendSourcesTest, SeesThatAFileHasChanged) {
    const std::vector<std::string> paths = files(1);
    SendSources& sources = make(paths);
    EXPECT_FALSE(sources.hasChanged(0)) << "nothing is known of it yet";
    ASSERT_TRUE(sources.prepare(0));
    EXPECT_FALSE(sources.hasChanged(0));
    world_.files.put(paths[0], "something else");
    EXPECT_TRUE(sources.hasChanged(0));
    world_.files.remove(paths[0]);
    EXPECT_TRUE(sources.hasChanged(0));
}

TEST_F(SendSourcesTest, SaysWhenItsTurnComesWhyAFileCannotBePrepared) {
    std::vector<std::string> paths = files(2);
    paths[0] = "/home/ann/missing";
    SendSources& sources = make(paths);
    EXPECT_TRUE(sources.prepare(0)) << "so that its turn comes";
    EXPECT_THROW(static_cast<void>(take(0)), SendError);
    EXPECT_FALSE(offer_);
    sources.failed(0, offer_);
    EXPECT_NE(take(1), TransferId());
}

TEST_F(SendSourcesTest, TakesAFileThatHasComeMeanwhile) {
    make({"/home/ann/late.txt"});
    ASSERT_TRUE(sources_->prepare(0));
    world_.files.put("/home/ann/late.txt", "here");
    EXPECT_NE(take(0), TransferId());
    EXPECT_EQ(remembered(), 1U);
}

TEST_F(SendSourcesTest, WorksWithoutADiskThatTakesWhatItRemembers) {
    SendSources& sources = make(files(2));
    world_.files.addFault({.operation = fakes::Operation::write, .errorNumber = ENOSPC});
    EXPECT_TRUE(sources.prepare(0));
    EXPECT_NE(take(0), take(1));
    sources.failed(0, offer_);
    sources.tidy();
}

TEST_F(SendSourcesTest, ForgetsOnlyWhatWasNeverBegun) {
    make(files(2));
    ASSERT_TRUE(sources_->prepare(0));
    const TransferId begun = take(0);
    sources_->keepForNextTime(0, offer_);
    forget();
    EXPECT_EQ(remembered(), 2U) << "another process may have found them meanwhile";
    make({"/home/ann/0.txt"});
    ASSERT_TRUE(sources_->prepare(0));
    EXPECT_EQ(take(0), begun);
}

} // namespace
} // namespace orlinth::host
