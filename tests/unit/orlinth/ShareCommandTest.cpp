#include "OrlinthCore/Share/ShareOutbox.h"
#include "unit/orlinth/CommandWorld.h"

namespace orlinth::cli {
namespace {

using fakes::Operation;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

const platform::Path container = "/home/ann/.local/share/group.com.tarvinex.orlinth";
const std::string notRunning = "The Orlinth service is not running. Files will be sent once it starts: `orlinth serve`";

class ShareCommandTest : public CommandWorldTest {
protected:
    ShareCommandTest() {
        world.files.put("/home/ann/a.txt", "some text");
        world.files.put("/home/ann/b.txt", "more text");
    }
    Ended share(std::vector<std::string> words) {
        words.insert(words.begin(), "share");
        return run(makeShareCommand, words);
    }
    /// What a command has failed with that was to share a.txt.
    std::vector<std::string> errorsOfSharing() {
        const Ended ended = share({"/home/ann/a.txt"});
        EXPECT_EQ(ended.status, 1);
        EXPECT_EQ(ended.output, "");
        return ended.errors;
    }
    [[nodiscard]] std::vector<std::string> batches() const {
        return world.files.exists(container / "Outbox") ? world.files.list(container / "Outbox")
                                                        : std::vector<std::string>();
    }
    /// Of the batch that the command has named.
    [[nodiscard]] ShareOutbox::Manifest manifest(const Ended& ended) const {
        const std::string batch = ended.events().back().at("batch");
        return ShareOutbox::Manifest::fromJson(
            parseJson(world.files.content(container / "Outbox" / batch / "manifest.json").value()));
    }
    PeerRecord pairTablet() {
        PeerRecord tablet = world.phoneRecord();
        tablet.peer_hostname = "Tablet";
        tablet.peer_pubkey = PeerKey(platform::PrivateKey::generate().publicKey().base64());
        tablet.paired_at_epoch_ms = world.phoneRecord().paired_at_epoch_ms + 1ms;
        pair({world.phoneRecord(), tablet});
        return tablet;
    }
};

TEST_F(ShareCommandTest, LeavesACopyForTheServiceToSend) {
    const Ended ended = share({"/home/ann/a.txt"});
    EXPECT_EQ(ended.status, 0);
    ASSERT_EQ(batches().size(), 1U);
    EXPECT_EQ(ended.output, "shared 1 file with Pixel-8, batch " + batches().front().substr(0, 8) + "\n");
    EXPECT_THAT(ended.errors, ElementsAre(notRunning));
    EXPECT_EQ(world.files.content(container / "Outbox" / batches().front() / "a.txt"), "some text");
}

TEST_F(ShareCommandTest, ShowsTheSameToScripts) {
    const Ended ended = share({"--json", "/home/ann/a.txt", "/home/ann/b.txt"});
    ASSERT_EQ(batches().size(), 1U);
    EXPECT_THAT(ended.events(), ElementsAre(Json({{"event", "shared"},
                                                  {"batch", batches().front()},
                                                  {"files", {"a.txt", "b.txt"}},
                                                  {"to", {"Pixel-8"}},
                                                  {"service_running", false}})));
    EXPECT_THAT(manifest(ended).files, ElementsAre("a.txt", "b.txt"));
    EXPECT_EQ(manifest(ended).id, batches().front());
}

TEST_F(ShareCommandTest, SaysThatARunningServiceSendsIt) {
    world.alongside(serveOthers({""}));
    const Ended ended = share({"--json", "/home/ann/a.txt"});
    EXPECT_EQ(ended.events().back().at("service_running"), true);
    EXPECT_THAT(ended.errors, ElementsAre("The service sends it now, or as soon as the phone can be reached."));
    EXPECT_THAT(asked, IsEmpty()) << "it finds the batch by itself";
}

TEST_F(ShareCommandTest, StartsTheServiceIfNoneRuns) {
    world.system.directories.home = "/home/ann";
    world.userServices.outcome = {.outcome = platform::ServiceStart::Outcome::running};
    const Ended ended = share({"--json", "/home/ann/a.txt"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.events().back().at("service_running"), true);
    EXPECT_THAT(ended.errors, ElementsAre("The service sends it now, or as soon as the phone can be reached."));
    EXPECT_THAT(world.userServices.asked(), ElementsAre("start com.tarvinex.orlinth1 orlinth.service"));
}

TEST_F(ShareCommandTest, SaysWhyTheServiceCannotBeStarted) {
    world.system.directories.home = "/home/ann";
    world.userServices.outcome = {.outcome = platform::ServiceStart::Outcome::failed, .problem = "it is masked"};
    const Ended ended = share({"--json", "/home/ann/a.txt"});
    EXPECT_EQ(ended.status, 0) << "the files are in the outbox";
    EXPECT_EQ(ended.events().back().at("service_running"), false);
    EXPECT_THAT(ended.errors, ElementsAre(HasSubstr("cannot be started: it is masked.")));
}

TEST_F(ShareCommandTest, StartsNoServiceIfNothingIsShared) {
    world.system.directories.home = "/home/ann";
    EXPECT_EQ(share({"/home/ann/none"}).status, 1);
    pair({});
    EXPECT_EQ(share({"/home/ann/a.txt"}).status, 1);
    EXPECT_THAT(world.userServices.asked(), IsEmpty());
}

TEST_F(ShareCommandTest, IsSilentWhenAskedToBe) {
    EXPECT_THAT(share({"-q", "/home/ann/a.txt"}).errors, IsEmpty());
}

TEST_F(ShareCommandTest, ChoosesNothingWhereThereIsOnePhoneAndNobodyIsNamed) {
    EXPECT_EQ(manifest(share({"--json", "/home/ann/a.txt"})).targetPubkeys, std::nullopt);
    EXPECT_EQ(manifest(share({"--json", "--to", "pixel", "/home/ann/a.txt"})).targetPubkeys,
              std::vector{world.phoneRecord().peer_pubkey});
}

TEST_F(ShareCommandTest, ChoosesThePhonePairedLastOrThoseThatAreNamedEachOnce) {
    const PeerRecord tablet = pairTablet();
    EXPECT_EQ(manifest(share({"--json", "/home/ann/a.txt"})).targetPubkeys, std::vector{tablet.peer_pubkey});
    const Ended both = share({"--json", "--to", "Pixel-8", "--to", "tab", "--to", "PIXEL-8", "/home/ann/a.txt"});
    EXPECT_EQ(manifest(both).targetPubkeys, (std::vector{world.phoneRecord().peer_pubkey, tablet.peer_pubkey}));
    EXPECT_EQ(both.events().back().at("to"), Json({"Pixel-8", "Tablet"}));
    EXPECT_THAT(share({"--to", "pixel", "--to", "tab", "/home/ann/a.txt"}).output,
                StartsWith("shared 1 file with Pixel-8, Tablet, batch "));
}

TEST_F(ShareCommandTest, CopiesNothingIfThereIsNobodyToSendItTo) {
    EXPECT_EQ(share({"--to", "nobody", "/home/ann/a.txt"}).failure(), "orlinth: no paired phone matches 'nobody'");
    pairTablet();
    pair({});
    EXPECT_THAT(errorsOfSharing().at(0), "orlinth: no phone is paired yet");
    EXPECT_THAT(batches(), IsEmpty());
}

TEST_F(ShareCommandTest, NamesWhatCannotBeSharedAndSharesTheRest) {
    world.files.putFolder("/home/ann/folder");
    world.files.putSpecial("/home/ann/pipe");
    world.files.put("/home/ann/locked", "", 0);
    const Ended ended = share(
        {"--json", "/home/ann/none", "/home/ann/a.txt", "/home/ann/folder", "/home/ann/pipe", "/home/ann/locked"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.errors,
                ElementsAre("orlinth: '/home/ann/none' was skipped: there is no such file",
                            "orlinth: '/home/ann/folder' was skipped: it is a folder, and only files are shared",
                            "orlinth: '/home/ann/pipe' was skipped: it is no regular file",
                            "orlinth: '/home/ann/locked' was skipped: Permission denied", notRunning));
    EXPECT_THAT(ended.names(), ElementsAre("error", "error", "error", "error", "shared"));
    EXPECT_EQ(ended.events()[0], Json({{"event", "error"},
                                       {"file", "/home/ann/none"},
                                       {"message", "'/home/ann/none' was skipped: there is no such file"}}));
    EXPECT_EQ(ended.events().back().at("files"), Json({"a.txt"}));
}

TEST_F(ShareCommandTest, LeavesNothingBehindIfNothingCanBeShared) {
    const Ended ended = share({"--json", "/home/ann/none"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.names(), ElementsAre("error", "error"));
    EXPECT_THAT(ended.errors, ElementsAre("orlinth: '/home/ann/none' was skipped: there is no such file",
                                          "orlinth: Could not read the shared file(s)", "Nothing was queued."));
    EXPECT_THAT(batches(), IsEmpty());
}

TEST_F(ShareCommandTest, SaysWhyAFileCouldNotBeCopied) {
    world.files.addFault({.operation = Operation::write, .errorNumber = EFBIG, .nameEnding = "a.txt"});
    EXPECT_THAT(
        errorsOfSharing(),
        ElementsAre("orlinth: '/home/ann/a.txt' was skipped: it cannot be copied into the outbox: File too large",
                    "orlinth: Could not read the shared file(s)", "Nothing was queued."));
}

TEST_F(ShareCommandTest, SaysWhereTheFolderCannotBeMadeAndWhy) {
    world.files.put(container, "in the way");
    EXPECT_THAT(errorsOfSharing(), ElementsAre("orlinth: App Group container unavailable — check entitlement",
                                               "Cannot make the folder " + container.string() +
                                                   ": File exists. Make the folder above it writable for this "
                                                   "account."));
}

TEST_F(ShareCommandTest, SaysWhereTheOutboxIsIfABatchCannotBeMade) {
    world.files.put(container / "Outbox", "in the way");
    EXPECT_THAT(errorsOfSharing().back(), HasSubstr("The outbox is in " + container.string() +
                                                    ". Free some space there, or make it writable for this account."));
}

TEST_F(ShareCommandTest, TakesBackABatchWhoseManifestCannotBeWritten) {
    world.files.addFault({.operation = Operation::rename, .errorNumber = ENOSPC, .nameEnding = "manifest.json"});
    EXPECT_THAT(errorsOfSharing().back(), HasSubstr("The outbox is in " + container.string()));
    for (const std::string& batch : batches()) {
        EXPECT_FALSE(world.files.exists(container / "Outbox" / batch / "manifest.json"));
    }
}

TEST_F(ShareCommandTest, WantsFilesAndSelectorsThatAreNotEmpty) {
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {}, {""}, {"--to", "Pixel-8"}, {"--to", "", "/home/ann/a.txt"}, {"--bogus", "/home/ann/a.txt"}}) {
        const Ended ended = share(words);
        EXPECT_EQ(ended.status, 2) << testing::PrintToString(words);
        EXPECT_NE(ended.failure(), "");
        EXPECT_EQ(ended.errors.back(), "`orlinth share --help` explains the command line.");
    }
    EXPECT_THAT(batches(), IsEmpty());
}

} // namespace
} // namespace orlinth::cli
