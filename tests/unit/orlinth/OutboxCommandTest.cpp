#include "OrlinthHost/Outbox/OutboxStore.h"
#include "unit/orlinth/CommandWorld.h"

namespace orlinth::cli {
namespace {

using fakes::Operation;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

const platform::Path container = "/home/ann/.local/share/group.com.tarvinex.orlinth";
const std::string first = "0A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9";
const std::string second = "0B1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9";
const std::string third = "1A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9";
const std::string notRunning = "The Orlinth service is not running. Files will be sent once it starts: `orlinth serve`";
const std::string found = R"({"found":true})";
const std::string notFound = R"({"found":false})";

class OutboxCommandTest : public CommandWorldTest {
protected:
    Ended outbox(std::vector<std::string> words = {}) {
        words.insert(words.begin(), "outbox");
        return run(makeOutboxCommand, words);
    }
    [[nodiscard]] static platform::Path folderOf(const std::string& id, bool isSetAside = false) {
        return container / (isSetAside ? "OutboxSetAside" : "Outbox") / id;
    }
    /// A batch of two files, 10 seconds old.
    void put(const std::string& id, bool isSetAside = false) {
        const platform::Path folder = folderOf(id, isSetAside);
        world.files.put(folder / "a.txt", "12345");
        world.files.put(folder / "b.txt", "6789");
        const ShareOutbox::Manifest manifest{
            .id = id, .createdAtMs = world.clock.epochMilliseconds() - 10s, .files = {"a.txt", "b.txt"}};
        world.files.put(folder / "manifest.json", compactJson(manifest.toJson()));
    }
    [[nodiscard]] host::OutboxState::Phone phone() const {
        host::OutboxState::Phone phone;
        phone.peerKey = world.phoneRecord().peer_pubkey;
        phone.hostname = "Pixel-8";
        return phone;
    }
    void remember(const std::string& id, host::OutboxState::Phone phone) {
        host::OutboxState state(world.files, dataFolder / "outbox" / id);
        state.phones.push_back(std::move(phone));
        state.save();
    }
    [[nodiscard]] bool isThere(const std::string& id, bool isSetAside = false) const {
        return world.files.exists(folderOf(id, isSetAside) / "manifest.json");
    }
    /// A request for this batch, as a line.
    [[nodiscard]] static std::string asking(const std::string& request, const std::string& batch) {
        return R"({"batch":")" + batch + R"(","request":")" + request + R"("})";
    }
};

// Listing

TEST_F(OutboxCommandTest, ListsNothingIfThereIsNothing) {
    const Ended ended = outbox();
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.output, "");
    EXPECT_THAT(ended.errors, ElementsAre("Nothing waits to be sent. `orlinth share FILE` shares a file."));
    EXPECT_EQ(outbox({"--json"}).output, "");
    EXPECT_THAT(outbox({"--quiet"}).errors, IsEmpty());
}

TEST_F(OutboxCommandTest, ListsWhatWaitsAndWhy) {
    put(first);
    host::OutboxState::Phone waiting = phone();
    waiting.done = {"a.txt"};
    waiting.waiting = "network: Connection refused";
    remember(first, waiting);
    const Ended ended = outbox();
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.output, MatchesRegex("0A1B2C3D  [0-9-]+ [0-9:]+  2 files, 9 bytes\n"
                                           "  to Pixel-8: 1 sent, 1 waiting \\(network: Connection refused\\)\n"));
    EXPECT_THAT(outbox({"--json"}).events(),
                ElementsAre(Json({{"event", "batch"},
                                  {"batch", first},
                                  {"set_aside", false},
                                  {"created_at_epoch_ms", toNumber(world.clock.epochMilliseconds() - 10s)},
                                  {"age_seconds", 10.0},
                                  {"files", {{{"name", "a.txt"}, {"size", 5}}, {{"name", "b.txt"}, {"size", 4}}}},
                                  {"phones", Json::array({{{"to", "Pixel-8"},
                                                           {"peer_pubkey", world.phoneRecord().peer_pubkey},
                                                           {"done", Json::array({"a.txt"})},
                                                           {"failed", Json::array()},
                                                           {"message", "network: Connection refused"}}})}})));
}

TEST_F(OutboxCommandTest, ListsWhatFailedForGoodWithItsReason) {
    put(first, true);
    host::OutboxState::Phone failed = phone();
    failed.done = {"a.txt"};
    failed.failed = {{"b.txt", "the phone declined the file."}};
    failed.waiting = "network: Connection refused";
    remember(first, failed);
    EXPECT_THAT(outbox().output, MatchesRegex("0A1B2C3D  [0-9-]+ [0-9:]+  2 files, 9 bytes, set aside\n"
                                              "  to Pixel-8: 1 sent, 0 waiting\n"
                                              "    b.txt not sent: the phone declined the file.\n"));
    const Json event = outbox({"--json"}).events().at(0);
    EXPECT_EQ(event.at("set_aside"), true);
    EXPECT_EQ(event.at("phones").at(0).at("failed"),
              Json::array({{{"file", "b.txt"}, {"message", "the phone declined the file."}}}));
}

TEST_F(OutboxCommandTest, SaysWhyABatchCannotBeRead) {
    put(first, true);
    world.files.put(folderOf(first, true) / "manifest.json", "{");
    put(third);
    world.files.remove(folderOf(third) / "b.txt");
    const std::vector<Json> events = outbox({"--json"}).events();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].at("set_aside"), true);
    EXPECT_THAT(events[0].at("message").get<std::string>(), testing::HasSubstr("makes no sense"));
    EXPECT_EQ(events[1],
              Json({{"event", "batch"}, {"batch", third}, {"set_aside", false}, {"message", "'b.txt' is not there"}}));
    EXPECT_THAT(outbox().output, MatchesRegex("0A1B2C3D, set aside: .*makes no sense.*\n"
                                              "1A1B2C3D: 'b.txt' is not there\n"));
}

TEST_F(OutboxCommandTest, SaysToWhomItWillGo) {
    put(first);
    EXPECT_THAT(outbox().output, testing::EndsWith("\n  to Pixel-8: 0 sent, 2 waiting\n"));
}

// Retrying

TEST_F(OutboxCommandTest, RetriesWithoutAServiceOnceOneRuns) {
    put(first);
    host::OutboxState::Phone failed = phone();
    failed.failed = {{"b.txt", "the phone declined the file."}};
    remember(first, failed);
    const Ended ended = outbox({"retry", "0a", "--json"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.events(), ElementsAre(Json({{"event", "retry"}, {"batch", first}, {"service_running", false}})));
    EXPECT_THAT(ended.errors, ElementsAre(notRunning));
    EXPECT_THAT(outbox().output, testing::EndsWith("\n  to Pixel-8: 0 sent, 2 waiting\n"));
}

TEST_F(OutboxCommandTest, SaysOfAllThatWaitsThatNoServiceRuns) {
    put(first);
    EXPECT_THAT(outbox({"retry"}).errors, ElementsAre(notRunning));
    world.system.directories.home = "/home/ann"; // of which the data folder is the usual one
    EXPECT_THAT(outbox({"retry"}).errors, ElementsAre("The Orlinth service is not running. Files will be sent once it "
                                                      "starts: `systemctl --user start orlinth`"));
}

TEST_F(OutboxCommandTest, BringsBackWhatWasSetAside) {
    put(first, true);
    EXPECT_EQ(outbox({"retry", first}).status, 0);
    EXPECT_TRUE(isThere(first));
    EXPECT_FALSE(isThere(first, true));
}

TEST_F(OutboxCommandTest, LeavesRetryingToARunningService) {
    put(first);
    world.alongside(serveOthers({found, found}));
    const Ended one = outbox({"retry", "0a", "--json"});
    EXPECT_EQ(one.status, 0);
    EXPECT_THAT(one.events(), ElementsAre(Json({{"event", "retry"}, {"batch", first}, {"service_running", true}})));
    EXPECT_THAT(one.errors, ElementsAre("The service is trying again now."));
    const Ended all = outbox({"retry", "--json"});
    EXPECT_THAT(all.events(), ElementsAre(Json({{"event", "retry"}, {"service_running", true}})));
    EXPECT_THAT(all.errors, ElementsAre("The service is trying again now."));
    EXPECT_THAT(asked, ElementsAre(asking("outbox_retry", first), R"({"request":"outbox_retry"})"));
}

TEST_F(OutboxCommandTest, SaysIfTheServiceKnowsTheBatchNoMore) {
    put(first);
    world.alongside(serveOthers({notFound}));
    const Ended ended = outbox({"retry", first});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.errors, ElementsAre("orlinth: the batch is not there any more",
                                          "`orlinth outbox` lists the batches that are."));
}

TEST_F(OutboxCommandTest, SaysIfTheServiceDoesNotDoIt) {
    put(first);
    world.alongside(serveOthers({R"({"error":"the outbox cannot be read"})", R"({"port":7000})"}));
    EXPECT_EQ(outbox({"retry"}).failure(), "orlinth: the running service did not do it: the outbox cannot be read");
    EXPECT_EQ(outbox({"drop", first}).failure(),
              "orlinth: the running service did not do it: its answer makes no sense");
    EXPECT_TRUE(isThere(first));
}

TEST_F(OutboxCommandTest, PromisesNothingIfNothingWaits) {
    put(first, true); // which a retry of everything does not bring back
    EXPECT_THAT(outbox({"retry"}).errors, ElementsAre("Nothing is waiting to be sent."));
    world.alongside(serveOthers({found}));
    EXPECT_THAT(outbox({"retry"}).errors, ElementsAre("Nothing is waiting to be sent."));
    EXPECT_TRUE(isThere(first, true));
}

// Dropping

TEST_F(OutboxCommandTest, DropsBatchesWithoutAService) {
    put(first);
    put(second, true);
    put(third);
    remember(first, phone());
    const Ended ended = outbox({"drop", "0a", "0b", "0A1B"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.output, "dropped batch 0A1B2C3D\ndropped batch 0B1B2C3D\n");
    EXPECT_THAT(ended.errors, IsEmpty());
    EXPECT_FALSE(isThere(first));
    EXPECT_FALSE(isThere(second, true));
    EXPECT_FALSE(world.files.exists(dataFolder / "outbox" / first));
    EXPECT_TRUE(isThere(third));
    EXPECT_THAT(outbox({"drop", "1", "--json"}).events(), ElementsAre(Json({{"event", "dropped"}, {"batch", third}})));
}

TEST_F(OutboxCommandTest, HasARunningServiceDropWhatItMaySend) {
    put(first);
    put(second, true);
    world.alongside(serveOthers({found}));
    EXPECT_EQ(outbox({"drop", first, second}).status, 0);
    EXPECT_THAT(asked, ElementsAre(asking("outbox_drop", first))) << "what was set aside is nobody's";
    EXPECT_TRUE(isThere(first)) << "the service removes it, not the command";
    EXPECT_FALSE(isThere(second, true));
}

TEST_F(OutboxCommandTest, DropsWhatTheServiceDoesNotKnow) {
    put(first);
    world.alongside(serveOthers({notFound}));
    EXPECT_EQ(outbox({"drop", first}).output, "dropped batch 0A1B2C3D\n");
    EXPECT_FALSE(isThere(first));
}

TEST_F(OutboxCommandTest, SaysWhereABatchIsThatCannotBeRemoved) {
    put(first);
    world.files.addFault({.operation = Operation::remove, .errorNumber = EACCES});
    const Ended ended = outbox({"drop", first});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.output, "");
    EXPECT_THAT(ended.errors, ElementsAre("orlinth: cannot remove batch 0A1B2C3D: Permission denied",
                                          "It is in " + folderOf(first).string() + "."));
}

// Words

TEST_F(OutboxCommandTest, WantsSelectorsThatMeanOneBatchEach) {
    put(first);
    put(second);
    for (const char* command : {"retry", "drop"}) {
        EXPECT_THAT(outbox({command, "0"}).errors,
                    ElementsAre("orlinth: several batches begin with '0'", "`orlinth outbox` lists them."));
        const Ended none = outbox({command, "b", "--json"});
        EXPECT_EQ(none.status, 1);
        EXPECT_THAT(none.events(), ElementsAre(Json({{"event", "error"}, {"message", "no batch begins with 'b'"}})));
    }
    EXPECT_EQ(outbox({"drop", "0a", "7"}).status, 1);
    EXPECT_TRUE(isThere(first)) << "all or nothing";
}

TEST_F(OutboxCommandTest, TakesNothingElse) {
    using Words = std::vector<std::string>;
    for (const Words& words :
         {Words{"bogus"}, Words{"drop"}, Words{"drop", ""}, Words{"retry", "A", "B"}, Words{"--bogus"}}) {
        const Ended ended = outbox(words);
        EXPECT_EQ(ended.status, 2) << testing::PrintToString(words);
        EXPECT_NE(ended.failure(), "");
        EXPECT_THAT(ended.errors.back(), MatchesRegex("`orlinth outbox.* --help` explains the command line\\."));
    }
}

} // namespace
} // namespace orlinth::cli
