#include "orlinth/OutboxState.h"

#include "OrlinthCore/Sending/InFlightJournal.h"
#include "fakes/MemoryFileSystem.h"
#include "orlinth/OutboxBatches.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

const platform::Path folder = "/data/outbox/ID";

class OutboxStateTest : public testing::Test {
protected:
    OutboxStateTest() {
        for (const char* key : {"KEY A", "KEY B"}) {
            OutboxState::Phone phone;
            phone.pubkey = key;
            state_.phones.push_back(phone);
        }
        state_.phones[0].hostname = "Pixel";
    }
    /// As it is on the disk.
    [[nodiscard]] OutboxState saved() {
        state_.save();
        return OutboxState::load(files_, folder).value();
    }
    [[nodiscard]] static PeerRecord phone(const std::string& key, std::int64_t pairedAt) {
        PeerRecord record;
        record.peer_pubkey = key;
        record.peer_hostname = "name of " + key;
        record.paired_at_epoch_ms = pairedAt;
        return record;
    }

    /// Of the question whether a phone was removed.
    static bool neverAsked() {
        ADD_FAILURE();
        return false;
    }

    fakes::MemoryFileSystem files_;
    OutboxState state_{files_, folder};
};

TEST_F(OutboxStateTest, IsTheSameAfterARestart) {
    OutboxState::Phone& phone = *state_.find("KEY A");
    phone.done = {"a"};
    phone.begun["b"] = "b|1|";
    phone.failed["c"] = "why";
    phone.waiting = "for this";
    OutboxState again = saved();
    ASSERT_EQ(2U, again.phones.size());
    EXPECT_EQ("Pixel", again.phones[0].hostname);
    EXPECT_THAT(again.phones[0].done, ElementsAre("a"));
    EXPECT_THAT(again.phones[0].begun, ElementsAre(Pair("b", "b|1|")));
    EXPECT_THAT(again.phones[0].failed, ElementsAre(Pair("c", "why")));
    EXPECT_EQ("for this", again.phones[0].waiting);
    EXPECT_EQ("KEY B", again.phones[1].pubkey);
    EXPECT_EQ("", again.phones[1].waiting);
}

TEST_F(OutboxStateTest, OfWhichNothingCanBeReadIsNone) {
    EXPECT_FALSE(OutboxState::load(files_, folder));
    for (const char* text : {"", "{}", "[]", R"({"phones":[]})", R"({"phones":[{"pubkey":"A"}]})",
                             R"({"phones":[{"pubkey":"A","hostname":"","done":[1],"begun":{},"failed":{}}]})",
                             R"({"phones":[{"pubkey":"A","hostname":"","done":[],"begun":[],"failed":{}}]})"}) {
        files_.put(folder / "state.json", text);
        EXPECT_FALSE(OutboxState::load(files_, folder)) << text;
    }
}

TEST_F(OutboxStateTest, KnowsWhatIsStillToBeSentToAPhone) {
    OutboxState::Phone& phone = *state_.find("KEY A");
    EXPECT_TRUE(phone.isOpen("a"));
    phone.done = {"a"};
    EXPECT_FALSE(phone.isOpen("a"));
    phone.begun["b"] = "b|1|";
    EXPECT_TRUE(phone.isOpen("b"));
    phone.failed["b"] = "why";
    EXPECT_FALSE(phone.isOpen("b"));
    state_.forgetFailures();
    EXPECT_TRUE(phone.isOpen("b"));
    EXPECT_FALSE(phone.isOpen("a"));
}

TEST_F(OutboxStateTest, TakesAFileForSentThatWasBegunAndHasLeftTheJournal) {
    InFlightJournal journal(files_, state_.journalFile("KEY A"));
    static_cast<void>(journal.getOrCreate("a", 1, "", ""));
    static_cast<void>(journal.getOrCreate("b", 1, "", ""));
    journal.complete("a", 1, "", "");
    state_.find("KEY A")->begun = {{"a", InFlightKey{"a", 1, "", ""}.text()},
                                   {"b", InFlightKey{"b", 1, "", ""}.text()}};
    state_.find("KEY B")->begun = {{"a", InFlightKey{"a", 1, "", ""}.text()}};
    OutboxState again = saved();
    again.learnFromJournals();
    EXPECT_THAT(again.find("KEY A")->done, ElementsAre("a"));
    EXPECT_THAT(again.find("KEY A")->begun, ElementsAre(Pair("b", "b|1|")));
    EXPECT_THAT(again.find("KEY B")->done, IsEmpty()) << "its own journal says nothing";
}

TEST_F(OutboxStateTest, LearnsNothingFromAJournalThatCannotBeRead) {
    state_.find("KEY A")->begun = {{"a", "a|1|"}};
    for (const char* text : {"", "{", "{}", R"({"entries":[]})"}) {
        files_.put(state_.journalFile("KEY A"), text);
        state_.learnFromJournals();
        EXPECT_THAT(state_.find("KEY A")->done, IsEmpty()) << text;
    }
    files_.put(state_.journalFile("KEY A"), R"({"entries":{}})");
    state_.learnFromJournals();
    EXPECT_THAT(state_.find("KEY A")->done, ElementsAre("a"));
}

TEST_F(OutboxStateTest, LearnsNothingOfAFileThatHasFailed) {
    OutboxState::Phone& phone = *state_.find("KEY A");
    phone.begun = {{"a", "a|1|"}, {"b", "b|1|"}};
    phone.setFailed("a", "why");
    EXPECT_THAT(phone.failed, ElementsAre(Pair("a", "why")));
    files_.put(state_.journalFile("KEY A"), R"({"entries":{}})");
    state_.forgetFailures();
    state_.learnFromJournals();
    EXPECT_THAT(phone.done, ElementsAre("b"));
}

TEST_F(OutboxStateTest, GivesEachPhoneAJournalOfItsOwn) {
    EXPECT_NE(state_.journalFile("KEY A"), state_.journalFile("KEY B"));
    // printf %s 'KEY A' | sha256sum
    EXPECT_EQ(folder / "inflight-298f7faec21c4681.json", state_.journalFile("KEY A"));
}

TEST_F(OutboxStateTest, GoesWithItsJournals) {
    state_.save();
    InFlightJournal journal(files_, state_.journalFile("KEY A"));
    static_cast<void>(journal.getOrCreate("a", 1, "", ""));
    files_.put("/data/outbox/OTHER/state.json", "{}");
    state_.remove();
    EXPECT_THAT(files_.allFiles(), ElementsAre("/data/outbox/OTHER/state.json"));
    state_.remove();
}

TEST_F(OutboxStateTest, NamesAPhoneByItsNameElseByItsKey) {
    EXPECT_EQ("Pixel", state_.phones[0].displayName());
    EXPECT_THAT(state_.phones[1].displayName(), testing::HasSubstr("KEY B"));
}

TEST_F(OutboxStateTest, GoesToThePhonesThatWereChosenEachOnce) {
    const PeerBook book{{phone("A", 1), phone("B", 2)}};
    ShareOutbox::Manifest manifest;
    manifest.targetPubkeys = {"B", "GONE", "B"};
    const auto phones = phonesFor(manifest, book, neverAsked);
    ASSERT_EQ(2U, phones.size());
    EXPECT_EQ("B", phones[0].pubkey);
    EXPECT_EQ("name of B", phones[0].hostname);
    EXPECT_EQ("GONE", phones[1].pubkey);
    EXPECT_EQ("", phones[1].hostname);
}

TEST_F(OutboxStateTest, GoesToThePhoneThatWasTheOneWhereThereWasNoChoice) {
    ShareOutbox::Manifest manifest;
    manifest.createdAtMs = 100;
    EXPECT_THAT(phonesFor(manifest, {}, neverAsked), IsEmpty());
    EXPECT_EQ("A", phonesFor(manifest, {{phone("A", 100)}}, neverAsked).at(0).pubkey);
    EXPECT_EQ("B", phonesFor(manifest, {{phone("A", 1), phone("B", 50), phone("C", 101)}}, neverAsked).at(0).pubkey);
    EXPECT_EQ(1U, phonesFor(manifest, {{phone("A", 1), phone("B", 50)}}, neverAsked).size());
}

TEST_F(OutboxStateTest, GoesToNobodyWhereThePhoneThatWasTheOneMayBeGone) {
    ShareOutbox::Manifest manifest;
    manifest.createdAtMs = 100;
    const PeerBook one{{phone("A", 500)}};
    EXPECT_EQ("A", phonesFor(manifest, one, [] { return false; }).at(0).pubkey) << "it may have been paired anew";
    EXPECT_THROW(static_cast<void>(phonesFor(manifest, one, [] { return true; })), OutboxError);
    const PeerBook several{{phone("A", 500), phone("B", 400)}};
    EXPECT_THROW(static_cast<void>(phonesFor(manifest, several, neverAsked)), OutboxError);
}

} // namespace
} // namespace orlinth::host
