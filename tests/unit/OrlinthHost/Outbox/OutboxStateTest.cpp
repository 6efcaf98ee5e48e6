#include "OrlinthHost/Outbox/OutboxState.h"

#include "OrlinthHost/Outbox/OutboxBatches.h"
#include "fakes/CrashTrials.h"
#include "fakes/MemoryFileSystem.h"
#include "platform/SystemError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

const platform::Path folder = "/data/outbox/ID";

class OutboxStateTest : public testing::Test {
protected:
    OutboxStateTest() {
        for (const char* key : {"KEY A", "KEY B"}) {
            OutboxState::Phone phone;
            phone.peerKey = PeerKey(key);
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
        record.peer_pubkey = PeerKey(key);
        record.peer_hostname = "name of " + key;
        record.paired_at_epoch_ms = fromEpochMilliseconds(pairedAt);
        return record;
    }

    [[nodiscard]] std::string content() const { return *files_.content(folder / "state.jsonl"); }

    /// Of the question whether a phone was removed.
    static bool neverAsked() {
        ADD_FAILURE();
        return false;
    }

    fakes::MemoryFileSystem files_;
    OutboxState state_{files_, folder};
};

TEST_F(OutboxStateTest, IsTheSameAfterARestart) {
    OutboxState::Phone& phone = *state_.find(PeerKey("KEY A"));
    phone.done = {"a"};
    phone.failed["c"] = "why";
    phone.waiting = "for this";
    OutboxState again = saved();
    ASSERT_EQ(2U, again.phones.size());
    EXPECT_EQ("Pixel", again.phones[0].hostname);
    EXPECT_THAT(again.phones[0].done, ElementsAre("a"));
    EXPECT_THAT(again.phones[0].failed, ElementsAre(Pair("c", "why")));
    EXPECT_EQ("for this", again.phones[0].waiting);
    EXPECT_EQ("KEY B", again.phones[1].peerKey.text());
    EXPECT_EQ("", again.phones[1].waiting);
}

TEST_F(OutboxStateTest, OfWhichNothingCanBeReadIsNone) {
    EXPECT_FALSE(OutboxState::load(files_, folder));
    const std::string good = R"({"pubkey":"A","hostname":"","done":[],"failed":{}})";
    for (const std::string& text :
         {std::string(), std::string("\n"), std::string("{}\n"), std::string("[]\n"), std::string("{\"phones\":[]}\n"),
          std::string("{\"phones\":[{\"pubkey\":\"A\"}]}\n"), "{\"phones\":[" + good + ",{\"pubkey\":\"B\"}]}\n",
          std::string("{\"phones\":[{\"pubkey\":\"A\",\"hostname\":\"\",\"done\":[1],\"failed\":{}}]}\n"),
          std::string("{\"phones\":[{\"pubkey\":\"A\",\"hostname\":\"\",\"done\":[],\"failed\":[]}]}\n"),
          "{\"phones\":[" + good + "]}"}) {
        files_.put(folder / "state.jsonl", text);
        EXPECT_FALSE(OutboxState::load(files_, folder)) << text;
    }
    files_.put(folder / "state.jsonl", "{\"phones\":[" + good + "]}\n");
    EXPECT_TRUE(OutboxState::load(files_, folder));
}

TEST_F(OutboxStateTest, TakesALineMoreForEachFile) {
    OutboxState::Phone& phone = *state_.find(PeerKey("KEY A"));
    phone.waiting = "for this";
    state_.save();
    const std::string whole = content();
    const std::size_t created = files_.count(fakes::Operation::create);
    phone.setDone("a");
    state_.saveFile(phone, "a");
    phone.failed["c"] = "why";
    state_.saveFile(phone, "c");
    EXPECT_EQ(created, files_.count(fakes::Operation::create));
    EXPECT_THAT(content(), StartsWith(whole));
    EXPECT_THAT(content().substr(whole.size()), HasSubstr(R"({"done":true,"file":"a","pubkey":"KEY A"})"));
    const OutboxState again = OutboxState::load(files_, folder).value();
    EXPECT_THAT(again.phones[0].done, ElementsAre("a"));
    EXPECT_THAT(again.phones[0].failed, ElementsAre(Pair("c", "why")));
    EXPECT_EQ("", again.phones[0].waiting);
    EXPECT_THAT(again.phones[1].done, IsEmpty());
}

TEST_F(OutboxStateTest, IsWrittenWholeByTheFirstChangeAfterARestart) {
    state_.save();
    const std::string whole = content();
    OutboxState again = OutboxState::load(files_, folder).value();
    files_.put(folder / "state.jsonl", whole + R"({"done":true,"fi)"); // a power cut stopped this one
    again.phones[1].setDone("b");
    again.saveFile(again.phones[1], "b");
    EXPECT_EQ(1, std::ranges::count(content(), '\n'));
    EXPECT_THAT(OutboxState::load(files_, folder).value().phones[1].done, ElementsAre("b"));
}

TEST_F(OutboxStateTest, KnowsWhatIsBeforeALineThatCannotBeRead) {
    state_.save();
    const std::string before = content() + R"({"done":true,"file":"a","pubkey":"KEY A"})" + "\n";
    const std::string after = std::string(R"({"done":true,"file":"b","pubkey":"KEY A"})") + "\n";
    for (const std::string& line :
         {std::string(40, '\0'), std::string(), std::string("{"), std::string("[]"), std::string(R"({"file":"b"})"),
          std::string(R"({"pubkey":"KEY A","done":true})"), std::string(R"({"pubkey":"KEY A","file":"b"})"),
          std::string(R"({"pubkey":"KEY A","file":"b","begun":"b|1|"})"),
          std::string(R"({"pubkey":"KEY A","file":"b","failed":1})"),
          std::string(R"({"pubkey":"KEY C","file":"b","done":true})")}) {
        files_.put(folder / "state.jsonl", before + line + "\n" + after);
        EXPECT_THAT(OutboxState::load(files_, folder).value().phones[0].done, ElementsAre("a")) << line;
    }
    files_.put(folder / "state.jsonl", before + after.substr(0, after.size() - 1));
    EXPECT_THAT(OutboxState::load(files_, folder).value().phones[0].done, ElementsAre("a")) << "a line without its end";
}

TEST_F(OutboxStateTest, FlushesWhatWasWrittenSince) {
    OutboxState::Phone& phone = *state_.find(PeerKey("KEY A"));
    state_.save();
    const std::size_t flushes = files_.count(fakes::Operation::flush);
    state_.flush();
    phone.setDone("a");
    state_.saveFile(phone, "a");
    EXPECT_EQ(flushes, files_.count(fakes::Operation::flush));
    state_.flush();
    state_.flush();
    EXPECT_EQ(flushes + 1, files_.count(fakes::Operation::flush));
}

TEST(OutboxStateCrash, LosesAtMostWhatWasNotFlushed) {
    bool isFlushed = false;
    const auto prepare = [](fakes::MemoryFileSystem& files) {
        files.putFolder("/data");
        OutboxState state(files, folder);
        state.phones.push_back(freshPhone(PeerKey("KEY A"), nullptr));
        state.save();
    };
    fakes::forEveryCrash(
        prepare,
        [&isFlushed](fakes::MemoryFileSystem& files) {
            isFlushed = false;
            OutboxState state = OutboxState::load(files, folder).value();
            OutboxState::Phone& phone = state.phones.front();
            phone.setDone("a");
            state.saveFile(phone, "a");
            state.flush();
            isFlushed = true;
            phone.failed["c"] = "why";
            state.saveFile(phone, "c");
        },
        [&isFlushed](const fakes::Aftermath& after) {
            const std::optional<OutboxState> state = OutboxState::load(after.files, folder);
            ASSERT_TRUE(state) << "what was there before is lost";
            const OutboxState::Phone& phone = state->phones.front();
            EXPECT_EQ("KEY A", phone.peerKey.text());
            EXPECT_TRUE(phone.isOpen("b"));
            if (isFlushed) {
                EXPECT_FALSE(phone.isOpen("a"));
            }
            if (after.completed && after.kind == fakes::CrashKind::processKill) {
                EXPECT_THAT(phone.failed, ElementsAre(Pair("c", "why")));
            }
        });
}

TEST(OutboxStateFailure, IsMadeUpForByTheNextChange) {
    const auto prepare = [](fakes::MemoryFileSystem& files) { files.putFolder("/data"); };
    fakes::forEveryFailure(
        ENOSPC, prepare,
        [](fakes::MemoryFileSystem& files) {
            OutboxState state(files, folder);
            state.phones.push_back(freshPhone(PeerKey("KEY A"), nullptr));
            OutboxState::Phone& phone = state.phones.front();
            EXPECT_FALSE(state.isBehind());
            for (const char* name : {"a", "b", "c"}) {
                phone.setDone(name);
                try {
                    state.saveFile(phone, name);
                    EXPECT_FALSE(state.isBehind());
                } catch (const platform::SystemError&) {
                    EXPECT_TRUE(state.isBehind());
                }
            }
            if (state.isBehind()) {
                state.save();
            }
        },
        [](fakes::MemoryFileSystem& files, const std::exception_ptr& thrown) {
            EXPECT_FALSE(thrown);
            EXPECT_THAT(OutboxState::load(files, folder).value().phones[0].done, ElementsAre("a", "b", "c"));
        });
}

TEST_F(OutboxStateTest, IsWrittenWholeWhereALineWasCutShort) {
    OutboxState::Phone& phone = *state_.find(PeerKey("KEY A"));
    state_.save();
    files_.addFault({.operation = fakes::Operation::write, .errorNumber = ENOSPC, .times = 1, .writtenBytes = 9});
    phone.setDone("a");
    EXPECT_THROW(state_.saveFile(phone, "a"), platform::SystemError);
    EXPECT_THAT(OutboxState::load(files_, folder).value().phones[0].done, IsEmpty());
    phone.setDone("b");
    state_.saveFile(phone, "b");
    EXPECT_THAT(OutboxState::load(files_, folder).value().phones[0].done, ElementsAre("a", "b"));
}

TEST_F(OutboxStateTest, KnowsWhatIsStillToBeSentToAPhone) {
    OutboxState::Phone& phone = *state_.find(PeerKey("KEY A"));
    EXPECT_TRUE(phone.isOpen("a"));
    phone.done = {"a"};
    EXPECT_FALSE(phone.isOpen("a"));
    EXPECT_TRUE(phone.isOpen("b"));
    phone.failed["b"] = "why";
    EXPECT_FALSE(phone.isOpen("b"));
    state_.forgetFailures();
    EXPECT_TRUE(phone.isOpen("b"));
    EXPECT_FALSE(phone.isOpen("a"));
}

TEST_F(OutboxStateTest, GivesEachPhoneAJournalOfItsOwn) {
    EXPECT_NE(state_.journalFile(PeerKey("KEY A")), state_.journalFile(PeerKey("KEY B")));
    // printf %s 'KEY A' | sha256sum
    EXPECT_EQ(folder / "inflight-298f7faec21c4681.json", state_.journalFile(PeerKey("KEY A")));
}

TEST_F(OutboxStateTest, GoesWithItsJournals) {
    state_.save();
    files_.put(state_.journalFile(PeerKey("KEY A")), "{}");
    files_.put("/data/outbox/OTHER/state.jsonl", "{}");
    state_.remove();
    EXPECT_THAT(files_.allFiles(), ElementsAre("/data/outbox/OTHER/state.jsonl"));
    state_.remove();
}

TEST_F(OutboxStateTest, NamesAPhoneByItsNameElseByItsKey) {
    EXPECT_EQ("Pixel", state_.phones[0].displayName());
    EXPECT_THAT(state_.phones[1].displayName(), HasSubstr("KEY B"));
}

TEST_F(OutboxStateTest, GoesToThePhonesThatWereChosenEachOnce) {
    const PeerBook book{{phone("A", 1), phone("B", 2)}};
    ShareOutbox::Manifest manifest;
    manifest.targetPubkeys = {PeerKey("B"), PeerKey("GONE"), PeerKey("B")};
    const auto phones = phonesFor(manifest, book, neverAsked);
    ASSERT_EQ(2U, phones.size());
    EXPECT_EQ("B", phones[0].peerKey.text());
    EXPECT_EQ("name of B", phones[0].hostname);
    EXPECT_EQ("GONE", phones[1].peerKey.text());
    EXPECT_EQ("", phones[1].hostname);
}

TEST_F(OutboxStateTest, GoesToThePhoneThatWasTheOneWhereThereWasNoChoice) {
    ShareOutbox::Manifest manifest;
    manifest.createdAtMs = fromEpochMilliseconds(100);
    EXPECT_THAT(phonesFor(manifest, {}, neverAsked), IsEmpty());
    EXPECT_EQ("A", phonesFor(manifest, {{phone("A", 100)}}, neverAsked).at(0).peerKey.text());
    EXPECT_EQ("B",
              phonesFor(manifest, {{phone("A", 1), phone("B", 50), phone("C", 101)}}, neverAsked).at(0).peerKey.text());
    EXPECT_EQ(1U, phonesFor(manifest, {{phone("A", 1), phone("B", 50)}}, neverAsked).size());
}

TEST_F(OutboxStateTest, GoesToNobodyWhereThePhoneThatWasTheOneMayBeGone) {
    ShareOutbox::Manifest manifest;
    manifest.createdAtMs = fromEpochMilliseconds(100);
    const PeerBook one{{phone("A", 500)}};
    EXPECT_EQ("A", phonesFor(manifest, one, [] { return false; }).at(0).peerKey.text())
        << "it may have been paired anew";
    EXPECT_THROW(static_cast<void>(phonesFor(manifest, one, [] { return true; })), OutboxError);
    const PeerBook several{{phone("A", 500), phone("B", 400)}};
    EXPECT_THROW(static_cast<void>(phonesFor(manifest, several, neverAsked)), OutboxError);
}

} // namespace
} // namespace orlinth::host
