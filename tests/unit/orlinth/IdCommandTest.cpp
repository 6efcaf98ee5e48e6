#include "unit/orlinth/CommandWorld.h"

namespace orlinth::cli {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class IdCommandTest : public CommandWorldTest {
protected:
    Ended id(std::vector<std::string> words = {}) {
        words.insert(words.begin(), "id");
        return run(makeIdCommand, words);
    }
    const platform::Path keyFile = dataFolder / "noise_static.bin";
};

TEST_F(IdCommandTest, ShowsTheKeyTheNameAndTheFolder) {
    const Ended ended = id();
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.output, "public key   " + ownKey().base64() +
                                "\nhost name    workshop\ndata folder  /home/ann/.local/share/Orlinth\n");
    EXPECT_THAT(ended.errors, IsEmpty());
}

TEST_F(IdCommandTest, ShowsTheSameToScripts) {
    const Ended ended = id({"--json"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.events(), ElementsAre(Json({{"event", "id"},
                                                  {"self_pubkey", ownKey().base64()},
                                                  {"hostname", "workshop"},
                                                  {"data_dir", "/home/ann/.local/share/Orlinth"}})));
}

TEST_F(IdCommandTest, ShowsTheNameOfTheSettingsToo) {
    computerName = "Ann's laptop";
    EXPECT_THAT(id().output, testing::HasSubstr("\nhost name    workshop\nname         Ann's laptop\n"));
    EXPECT_EQ(id({"--json"}).events().at(0).at("name"), "Ann's laptop");
}

TEST_F(IdCommandTest, MakesTheIdentityOnFirstUseAndKeepsIt) {
    ASSERT_FALSE(world.files.exists(keyFile));
    const std::string first = id().output;
    EXPECT_EQ(world.files.content(keyFile).value_or("").size(), 32U);
    EXPECT_EQ(id().output, first);
}

TEST_F(IdCommandTest, LeavesADamagedKeyAloneAndSaysWhatToDo) {
    world.files.put(keyFile, std::string(31, 'x'), 0600);
    const Ended ended = id({"--json"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.events(),
                ElementsAre(Json({{"event", "error"}, {"message", "stored key has wrong length 31 (want 32)"}})));
    EXPECT_THAT(ended.errors, ElementsAre("orlinth: stored key has wrong length 31 (want 32)",
                                          "This computer's key, " + keyFile.string() +
                                              ", is damaged. Restore it from a backup, or delete it and pair every "
                                              "phone again."));
    EXPECT_EQ(world.files.content(keyFile), std::string(31, 'x'));
}

TEST_F(IdCommandTest, SaysWhereAKeyThatCannotBeWrittenBelongs) {
    world.files.addFault({.operation = fakes::Operation::write, .errorNumber = ENOSPC});
    const Ended ended = id();
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.output, "");
    EXPECT_EQ(ended.errors.back(),
              "This computer's key belongs in " + keyFile.string() + ". Make its folder writable for this account.");
}

TEST_F(IdCommandTest, ShowsAHostNameOnOneLineWhateverIsInIt) {
    world.interfaces.name = "work\nshop\x1b[2J";
    EXPECT_THAT(id().output, testing::HasSubstr("\nhost name    work\\u{000A}shop\\u{001B}[2J\n"));
}

TEST_F(IdCommandTest, TakesNothingElse) {
    for (const char* word : {"--bogus", "superfluous", "--quiet"}) {
        const Ended ended = id({word});
        EXPECT_EQ(ended.status, 2) << word;
        EXPECT_EQ(ended.output, "");
        EXPECT_NE(ended.failure(), "");
        EXPECT_EQ(ended.errors.back(), "`orlinth id --help` explains the command line.");
    }
    EXPECT_FALSE(world.files.exists(keyFile)) << "nothing was begun";
}

} // namespace
} // namespace orlinth::cli
