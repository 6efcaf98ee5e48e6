#include "OrlinthCore/Sending/InFlightJournal.h"

#include "fakes/CrashTrials.h"
#include "fakes/MemoryFileSystem.h"
#include "platform/SystemError.h"
#include "platform/linux/LinuxFileSystem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace orlinth {
namespace {

using fakes::Aftermath;
using fakes::MemoryFileSystem;
using fakes::Operation;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::Pair;

const platform::Path folder = "/home/ada/.local/share/Orlinth";
const platform::Path file = folder / "inflight.json";

bool isIdentifier(const std::string& text) {
    return testing::Matches(testing::ContainsRegex("^[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$"))(
        text);
}

class InFlightJournalTest : public testing::Test {
protected:
    MemoryFileSystem files;
    InFlightJournal journal{files, file};
};

TEST_F(InFlightJournalTest, LivesInTheUsersFolderOrWhereItIsTold) {
    const platform::UserDirectories directories{.data = "/data", .config = "/config", .downloads = "/downloads"};
    EXPECT_EQ(InFlightJournal(files, directories).fileURL(), "/data/Orlinth/inflight.json");
    EXPECT_EQ(journal.fileURL(), file);
    EXPECT_EQ(files.mutations(), 0U);
}

TEST_F(InFlightJournalTest, GivesAFreshUpperCaseUuid) {
    const std::string first = journal.getOrCreate("a", 1, "m", "f");
    const std::string second = journal.getOrCreate("b", 1, "m", "f");
    EXPECT_TRUE(isIdentifier(first)) << first;
    EXPECT_TRUE(isIdentifier(second)) << second;
    EXPECT_NE(first, second);
}

TEST_F(InFlightJournalTest, GivesTheSameFileTheSameIdentifierWithoutWriting) {
    const std::string first = journal.getOrCreate("report.pdf", 12, "application/pdf", "0011223344556677");
    const std::size_t mutations = files.mutations();
    EXPECT_EQ(journal.getOrCreate("report.pdf", 12, "application/pdf", "0011223344556677"), first);
    EXPECT_EQ(InFlightJournal(files, file).getOrCreate("report.pdf", 12, "application/pdf", "0011223344556677"), first);
    EXPECT_EQ(files.mutations(), mutations);
}

TEST_F(InFlightJournalTest, GivesAnotherIdentifierWhereAnyOfTheFourValuesDiffers) {
    const std::set<std::string> identifiers{
        journal.getOrCreate("a", 1, "m", "f"), journal.getOrCreate("b", 1, "m", "f"),
        journal.getOrCreate("a", 2, "m", "f"), journal.getOrCreate("a", 1, "n", "f"),
        journal.getOrCreate("a", 1, "m", "g"), journal.getOrCreate("a", 1, "m", "")};
    EXPECT_EQ(identifiers.size(), 6U);
}

TEST_F(InFlightJournalTest, BuildsKeysOfThreeOrFourFields) {
    static_cast<void>(journal.getOrCreate("a|b/c.txt", 9223372036854775807, "text/plain", "00ff"));
    static_cast<void>(journal.getOrCreate("x", 0, "m", ""));
    EXPECT_THAT(journal.snapshotEntries(),
                ElementsAre(Key("a|b/c.txt|9223372036854775807|text/plain|00ff"), Key("x|0|m")));
}

TEST_F(InFlightJournalTest, WritesThePrettyFormForTheOwnerAlone) {
    const std::string id = journal.getOrCreate("x/y", 3, "text/plain", "");
    EXPECT_EQ(files.content(file), "{\n  \"entries\" : {\n    \"x/y|3|text/plain\" : \"" + id + "\"\n  }\n}");
    EXPECT_EQ(files.status(file)->permissions, 0600U);
}

TEST_F(InFlightJournalTest, ForgetsACompletedFileAndKeepsTheOthers) {
    const std::string kept = journal.getOrCreate("kept", 1, "m", "f");
    const std::string done = journal.getOrCreate("done", 1, "m", "f");
    journal.complete("done", 1, "m", "f");
    EXPECT_THAT(journal.snapshotEntries(), ElementsAre(Pair("kept|1|m|f", kept)));
    EXPECT_NE(journal.getOrCreate("done", 1, "m", "f"), done);
}

TEST_F(InFlightJournalTest, KeepsAnEmptyObjectWhenTheLastEntryGoes) {
    static_cast<void>(journal.getOrCreate("a", 1, "m", "f"));
    journal.complete("a", 1, "m", "f");
    EXPECT_EQ(files.content(file), "{\n  \"entries\" : {}\n}");
}

TEST_F(InFlightJournalTest, WritesNothingForAnUnknownFile) {
    journal.complete("a", 1, "m", "f");
    EXPECT_EQ(files.mutations(), 0U);
    static_cast<void>(journal.getOrCreate("a", 1, "m", "f"));
    const std::size_t mutations = files.mutations();
    journal.complete("b", 1, "m", "f");
    journal.complete("a", 1, "m", "");
    EXPECT_EQ(files.mutations(), mutations);
}

TEST_F(InFlightJournalTest, TakesWhatIsNoJournalAsEmptyAndReplacesIt) {
    for (const char* content : {"", "rubbish", "[]", "{}", "{\"entries\":[]}", "{\"entries\":{\"a|1|m\":7}}",
                                "{\"entries\":{\"a|1|m\":\"id\",\"b|1|m\":null}}", "{\"entries\":{\"a|1|m\":\"\xff\"}}",
                                "{\"entries\":{\"a|1|m\":\"id\"}", "null"}) {
        files.put(file, content);
        EXPECT_THAT(journal.snapshotEntries(), IsEmpty()) << content;
        journal.complete("a", 1, "m", "");
        EXPECT_EQ(files.content(file), content);
        const std::string id = journal.getOrCreate("a", 1, "m", "");
        EXPECT_TRUE(isIdentifier(id)) << content;
        EXPECT_THAT(InFlightJournal(files, file).snapshotEntries(), ElementsAre(Pair("a|1|m", id))) << content;
    }
}

TEST_F(InFlightJournalTest, ReadsWhatAnotherProgramWrote) {
    files.put(file, R"({"version":2,"entries":{"a|1|m":"any text"}})");
    EXPECT_EQ(journal.getOrCreate("a", 1, "m", ""), "any text");
}

TEST_F(InFlightJournalTest, KeepsNamesOfAnyBytes) {
    const std::string odd = "caf\xe9\n\"\\|";
    const std::string otherOdd = "caf\xe8\n\"\\|";
    const std::string withNul("a\0b", 3);
    const std::string id = journal.getOrCreate(odd, 1, "m", "f");
    EXPECT_NE(journal.getOrCreate(otherOdd, 1, "m", "f"), id);
    EXPECT_EQ(journal.getOrCreate(odd, 1, "m", "f"), id);
    const std::string nulId = journal.getOrCreate(withNul, 1, "m", "f");
    EXPECT_EQ(journal.getOrCreate(withNul, 1, "m", "f"), nulId);
    EXPECT_EQ(journal.snapshotEntries().size(), 3U);
    journal.complete(odd, 1, "m", "f");
    journal.complete(otherOdd, 1, "m", "f");
    journal.complete(withNul, 1, "m", "f");
    EXPECT_THAT(journal.snapshotEntries(), IsEmpty());
}

TEST_F(InFlightJournalTest, NeverFailsWhereNothingCanBeWritten) {
    files.putFolder(folder, 0500);
    const std::string first = journal.getOrCreate("a", 1, "m", "f");
    EXPECT_TRUE(isIdentifier(first));
    EXPECT_NE(journal.getOrCreate("a", 1, "m", "f"), first);
    EXPECT_NO_THROW(journal.complete("a", 1, "m", "f"));
    EXPECT_NO_THROW(journal.wipe());
    EXPECT_THAT(files.allFiles(), IsEmpty());
}

TEST_F(InFlightJournalTest, NeverFailsWhereItsFolderCannotBeMade) {
    files.put(folder.parent_path(), "a file in the way");
    EXPECT_TRUE(isIdentifier(journal.getOrCreate("a", 1, "m", "f")));
    EXPECT_NO_THROW(journal.complete("a", 1, "m", "f"));
    EXPECT_NO_THROW(journal.wipe());
}

TEST_F(InFlightJournalTest, WorksOnWhereTheLockCannotBeHad) {
    files.addFault({.operation = Operation::lock, .errorNumber = ENOLCK});
    const std::string id = journal.getOrCreate("a", 1, "m", "f");
    EXPECT_EQ(journal.getOrCreate("a", 1, "m", "f"), id);
    journal.complete("a", 1, "m", "f");
    EXPECT_THAT(journal.snapshotEntries(), IsEmpty());
}

TEST_F(InFlightJournalTest, TakesAnUnreadableFileAsEmpty) {
    static_cast<void>(journal.getOrCreate("a", 1, "m", "f"));
    files.addFault({.operation = Operation::read, .errorNumber = EIO});
    EXPECT_THAT(journal.snapshotEntries(), IsEmpty());
    EXPECT_TRUE(isIdentifier(journal.getOrCreate("a", 1, "m", "f")));
}

TEST_F(InFlightJournalTest, DoesNotLoseWhatAnotherProcessAddedBetweenLookAndLock) {
    bool done = false;
    files.beforeEach([&](Operation operation, const platform::Path&) {
        if (operation == Operation::lock && !done) {
            done = true;
            files.put(file, R"({"entries":{"other|1|m":"O","mine|1|m":"M"}})");
        }
    });
    EXPECT_EQ(journal.getOrCreate("mine", 1, "m", ""), "M");
    done = false;
    const std::string id = journal.getOrCreate("third", 1, "m", "");
    EXPECT_THAT(journal.snapshotEntries(),
                ElementsAre(Pair("mine|1|m", "M"), Pair("other|1|m", "O"), Pair("third|1|m", id)));
}

TEST_F(InFlightJournalTest, WipesTheFile) {
    static_cast<void>(journal.getOrCreate("a", 1, "m", "f"));
    journal.wipe();
    EXPECT_FALSE(files.exists(file));
    EXPECT_NO_THROW(journal.wipe());
    static_cast<void>(journal.getOrCreate("a", 1, "m", "f"));
    files.addFault({.operation = Operation::remove, .errorNumber = EPERM});
    EXPECT_NO_THROW(journal.wipe());
    EXPECT_TRUE(files.exists(file));
}

const char* const oneEntry = R"({"entries":{"old|1|m":"OLD"}})";

void prepareOneEntry(MemoryFileSystem& files) {
    files.put(file, oneEntry, 0600);
}

std::vector<InFlightJournal::Batch::Wanted> wanted(std::initializer_list<const char*> names, bool isFresh = false) {
    std::vector<InFlightJournal::Batch::Wanted> files;
    for (const char* name : names) {
        files.push_back({.key = {.name = name, .size = 1, .mime = "m", .fingerprint = "f"}, .isFresh = isFresh});
    }
    return files;
}

InFlightKey keyOf(const char* name) {
    return {.name = name, .size = 1, .mime = "m", .fingerprint = "f"};
}

class InFlightJournalBatch : public InFlightJournalTest {
protected:
    /// Another process at the same journal file.
    TransferId elsewhere(const char* name) { return TransferId(other.getOrCreate(name, 1, "m", "f")); }
    void completeElsewhere(const char* name) { other.complete(name, 1, "m", "f"); }
    InFlightJournal other{files, file};
};

TEST_F(InFlightJournalBatch, WritesTheIdsOfAllItsFilesAtOnceAndBeforeTheyAreUsed) {
    InFlightJournal::Batch batch(journal);
    batch.reserve(wanted({"a", "b", "c"}));
    const auto entries = journal.snapshotEntries();
    EXPECT_THAT(entries, ElementsAre(Key("a|1|m|f"), Key("b|1|m|f"), Key("c|1|m|f")));
    const std::size_t mutations = files.mutations();
    EXPECT_EQ(batch.idOf(keyOf("a")).text(), entries.at("a|1|m|f"));
    EXPECT_EQ(batch.idOf(keyOf("c")).text(), entries.at("c|1|m|f"));
    EXPECT_EQ(files.mutations(), mutations);
}

TEST_F(InFlightJournalBatch, KeepsTheIdOfAnEarlierAttemptUnlessAFreshOneIsWanted) {
    const TransferId a = elsewhere("a");
    const TransferId b = elsewhere("b");
    InFlightJournal::Batch batch(journal);
    batch.reserve(wanted({"a"}));
    batch.reserve(wanted({"b"}, true));
    EXPECT_EQ(batch.idOf(keyOf("a")), a);
    EXPECT_NE(batch.idOf(keyOf("b")), b);
}

TEST_F(InFlightJournalBatch, NeverGivesTheIdOfACompletedFileAgain) {
    InFlightJournal::Batch batch(journal);
    batch.reserve(wanted({"a"}));
    const TransferId first = batch.idOf(keyOf("a"));
    batch.complete(keyOf("a"), first);
    batch.reserve(wanted({"a"}));
    EXPECT_NE(batch.idOf(keyOf("a")), first);
}

TEST_F(InFlightJournalBatch, WritesCompletionsWithTheNextReservationAndAtItsEnd) {
    {
        InFlightJournal::Batch batch(journal);
        batch.reserve(wanted({"a", "b", "c"}));
        const std::size_t mutations = files.mutations();
        batch.complete(keyOf("a"), batch.idOf(keyOf("a")));
        batch.complete(keyOf("b"), batch.idOf(keyOf("b")));
        EXPECT_EQ(files.mutations(), mutations);
        batch.reserve(wanted({"d"}));
        EXPECT_THAT(journal.snapshotEntries(), ElementsAre(Key("c|1|m|f"), Key("d|1|m|f")));
        batch.complete(keyOf("c"), batch.idOf(keyOf("c")));
    }
    EXPECT_THAT(journal.snapshotEntries(), ElementsAre(Key("d|1|m|f"))) << "d has not completed";
}

TEST_F(InFlightJournalBatch, KeepsTheIdsOfWhatHasNotCompletedWhetherItWasBegunOrNot) {
    const TransferId before = elsewhere("before");
    TransferId begun;
    TransferId taken;
    {
        InFlightJournal::Batch batch(journal);
        batch.reserve(wanted({"before", "begun", "not begun"}));
        begun = batch.idOf(keyOf("begun"));
        taken = elsewhere("not begun"); // by another process, which goes on when this one has ended
    }
    EXPECT_THAT(journal.snapshotEntries(),
                ElementsAre(Pair("before|1|m|f", before.text()), Pair("begun|1|m|f", begun.text()),
                            Pair("not begun|1|m|f", taken.text())));
}

TEST_F(InFlightJournalBatch, KeepsAnIdUntilEveryUseOfItHasCompleted) {
    {
        InFlightJournal::Batch batch(journal);
        auto files = wanted({"both", "one"});
        files[0].uses = 2;
        files[1].uses = 2;
        const std::vector<TransferId> ids = batch.reserve(files);
        batch.complete(keyOf("both"), ids[0]);
        batch.complete(keyOf("both"), ids[0]);
        batch.complete(keyOf("one"), ids[1]);
    }
    EXPECT_THAT(journal.snapshotEntries(), ElementsAre(Key("one|1|m|f")));
}

TEST_F(InFlightJournalBatch, TakesNoIdFromAnotherProcess) {
    InFlightJournal::Batch batch(journal);
    batch.reserve(wanted({"a"}));
    const TransferId ours = batch.idOf(keyOf("a"));
    EXPECT_EQ(elsewhere("a"), ours);
    completeElsewhere("a");
    const TransferId theirs = elsewhere("a"); // the same file again, under an id of its own
    batch.complete(keyOf("a"), ours);
    batch.flush();
    EXPECT_THAT(journal.snapshotEntries(), ElementsAre(Pair("a|1|m|f", theirs.text())));
}

TEST_F(InFlightJournalBatch, ReadsAgainWhatAnotherProcessHasWritten) {
    InFlightJournal::Batch batch(journal);
    batch.reserve(wanted({"a", "b", "c"}));
    const TransferId b = batch.idOf(keyOf("b"));
    const TransferId c = batch.idOf(keyOf("c"));
    completeElsewhere("a"); // and with it the id has gone
    completeElsewhere("b");
    const TransferId fresh = elsewhere("b");
    batch.reserve(wanted({"d"})); // sees it by the way
    EXPECT_EQ(batch.idOf(keyOf("b")), fresh);
    EXPECT_NE(fresh, b);
    EXPECT_EQ(batch.idOf(keyOf("c")), c);
    const TransferId a = batch.idOf(keyOf("a"));
    EXPECT_THAT(journal.snapshotEntries(), testing::Contains(Pair("a|1|m|f", a.text()))) << "written before it is used";
}

TEST_F(InFlightJournalBatch, KeepsItsIdsWhereTheDiskTakesNone) {
    InFlightJournal::Batch batch(journal);
    files.addFault({.errorNumber = ENOSPC});
    batch.reserve(wanted({"a"}));
    const TransferId id = batch.idOf(keyOf("a"));
    EXPECT_EQ(batch.idOf(keyOf("a")), id);
    files.clearFaults();
    EXPECT_EQ(batch.idOf(keyOf("a")), id);
    EXPECT_THAT(journal.snapshotEntries(), ElementsAre(Pair("a|1|m|f", id.text()))) << "once it does again";
}

TEST_F(InFlightJournalBatch, NeverGivesTheIdOfAnotherContentAlsoWhereTheDiskTakesNoFreshOne) {
    const TransferId stale = elsewhere("a");
    InFlightJournal::Batch batch(journal);
    files.addFault({.operation = fakes::Operation::write, .errorNumber = ENOSPC});
    const TransferId fresh = batch.reserve(wanted({"a"}, true)).front();
    EXPECT_NE(fresh, stale);
    EXPECT_EQ(batch.idOf(keyOf("a")), fresh);
    EXPECT_EQ(elsewhere("a"), stale) << "what the disk has";
    files.clearFaults();
    EXPECT_EQ(batch.idOf(keyOf("a")), fresh);
    EXPECT_THAT(journal.snapshotEntries(), ElementsAre(Pair("a|1|m|f", fresh.text())));
}

TEST_F(InFlightJournalBatch, KeepsTheIdOfAFileThatAnotherProcessHasCompleted) {
    InFlightJournal::Batch batch(journal);
    const TransferId ours = batch.reserve(wanted({"a"})).front();
    completeElsewhere("a"); // to another phone
    batch.keep(keyOf("a"), ours);
    EXPECT_THAT(journal.snapshotEntries(), ElementsAre(Pair("a|1|m|f", ours.text())));
    EXPECT_EQ(batch.idOf(keyOf("a")), ours);
}

TEST_F(InFlightJournalBatch, ReservesAFileThatItDoesNotKnowWhenItsIdIsAskedFor) {
    const TransferId known = elsewhere("a");
    InFlightJournal::Batch batch(journal);
    EXPECT_EQ(batch.idOf(keyOf("a")), known);
    const TransferId fresh = batch.idOf(keyOf("b"));
    EXPECT_THAT(journal.snapshotEntries(), ElementsAre(Pair("a|1|m|f", known.text()), Pair("b|1|m|f", fresh.text())));
}

TEST_F(InFlightJournalBatch, LeavesOtherFilesAlone) {
    {
        InFlightJournal::Batch batch(journal);
        batch.reserve(wanted({"a"}));
        static_cast<void>(elsewhere("other"));
        completeElsewhere("other");
        static_cast<void>(elsewhere("another"));
        batch.complete(keyOf("a"), batch.idOf(keyOf("a")));
    }
    EXPECT_THAT(journal.snapshotEntries(), ElementsAre(Key("another|1|m|f")));
}

TEST(InFlightJournalCrash, LeavesTheOldOrTheNewEntries) {
    std::string id;
    fakes::forEveryCrash(
        prepareOneEntry,
        [&id](MemoryFileSystem& files) { id = InFlightJournal(files, file).getOrCreate("new", 1, "m", ""); },
        [&id](const Aftermath& after) {
            InFlightJournal next(after.files, file);
            const auto entries = next.snapshotEntries();
            EXPECT_EQ(entries.at("old|1|m"), "OLD");
            EXPECT_TRUE(entries.size() == 1 || (entries.size() == 2 && entries.contains("new|1|m")));
            if (after.completed) {
                EXPECT_EQ(entries.at("new|1|m"), id);
            }
            const std::string again = next.getOrCreate("new", 1, "m", "");
            EXPECT_EQ(next.getOrCreate("new", 1, "m", ""), again);
        });
    fakes::forEveryCrash(
        prepareOneEntry, [](MemoryFileSystem& files) { InFlightJournal(files, file).complete("old", 1, "m", ""); },
        [](const Aftermath& after) {
            const auto entries = InFlightJournal(after.files, file).snapshotEntries();
            EXPECT_TRUE(after.files.exists(file));
            EXPECT_TRUE(entries.empty() || (!after.completed && entries.at("old|1|m") == "OLD"));
        });
}

TEST(InFlightJournalFailure, IsSwallowedAndLeavesAWholeJournal) {
    for (const int errorNumber : {ENOSPC, EIO, EACCES}) {
        fakes::forEveryFailure(
            errorNumber, prepareOneEntry,
            [](MemoryFileSystem& files) {
                EXPECT_TRUE(isIdentifier(InFlightJournal(files, file).getOrCreate("new", 1, "m", "")));
            },
            [](MemoryFileSystem& files, const std::exception_ptr& thrown) {
                EXPECT_EQ(thrown, nullptr);
                EXPECT_EQ(InFlightJournal(files, file).snapshotEntries().at("old|1|m"), "OLD");
            });
        fakes::forEveryFailure(
            errorNumber, prepareOneEntry,
            [](MemoryFileSystem& files) { InFlightJournal(files, file).complete("old", 1, "m", ""); },
            [](MemoryFileSystem& files, const std::exception_ptr& thrown) {
                EXPECT_EQ(thrown, nullptr);
                EXPECT_NO_THROW(static_cast<void>(InFlightJournal::decodeEntries(parseJson(*files.content(file)))));
            });
    }
}

TEST(InFlightJournalTogether, LosesNoEntryOfConcurrentThreads) {
    constexpr int threadCount = 4;
    constexpr int entries = 25;
    MemoryFileSystem files;
    InFlightJournal shared(files, file);
    {
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < threadCount; ++thread) {
            threads.emplace_back([&, thread] {
                InFlightJournal own(files, file);
                InFlightJournal& journal = thread % 2 == 0 ? shared : own;
                for (int i = 0; i < entries; ++i) {
                    const std::string name = std::to_string(thread) + "-" + std::to_string(i);
                    static_cast<void>(journal.getOrCreate(name, i, "m", "f"));
                    static_cast<void>(journal.getOrCreate("for all " + std::to_string(i), i, "m", "f"));
                }
            });
        }
    }
    EXPECT_EQ(shared.snapshotEntries().size(), std::size_t{(threadCount + 1) * entries});
}

TEST(InFlightJournalTogether, LosesNoEntryOfConcurrentProcesses) {
    constexpr int processCount = 4;
    constexpr int entries = 20;
    std::string pattern = (std::filesystem::temp_directory_path() / "orlinth-journal-XXXXXX").native();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    const platform::Path temporary = pattern;
    const platform::Path shared = temporary / "made" / "inflight.json";
    std::vector<pid_t> children;
    for (int process = 0; process < processCount; ++process) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            platform::LinuxFileSystem files;
            InFlightJournal journal(files, shared);
            for (int i = 0; i < entries; ++i) {
                static_cast<void>(journal.getOrCreate(std::to_string(process), i, "m", "f"));
                static_cast<void>(journal.getOrCreate("done", i, std::to_string(process), "f"));
                journal.complete("done", i, std::to_string(process), "f");
            }
            ::_exit(0);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = -1;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    platform::LinuxFileSystem files;
    EXPECT_EQ(InFlightJournal(files, shared).snapshotEntries().size(), std::size_t{processCount * entries});
    std::filesystem::remove_all(temporary);
}

TEST(FileFingerprint, IsTheFrontOfTheDigestOfTheFilesFront) {
    MemoryFileSystem files;
    files.put("/empty", "");
    files.put("/abc", "abc");
    // The digests of nothing and of "abc" begin so (FIPS 180-4 examples).
    EXPECT_EQ(FileFingerprint::compute(files, "/empty"), "e3b0c44298fc1c14");
    EXPECT_EQ(FileFingerprint::compute(files, "/abc"), "ba7816bf8f01cfea");
}

TEST(FileFingerprint, LooksAtTheFirstSixtyFourKibibytesAlone) {
    MemoryFileSystem files;
    const std::string front(65536, 'x');
    files.put("/exact", front);
    files.put("/longer", front + "tail");
    files.put("/shorter", front.substr(1));
    files.put("/changed", front.substr(1) + "y");
    const std::string exact = FileFingerprint::compute(files, "/exact");
    EXPECT_EQ(exact.size(), 16U);
    EXPECT_EQ(FileFingerprint::compute(files, "/longer"), exact);
    EXPECT_NE(FileFingerprint::compute(files, "/shorter"), exact);
    EXPECT_NE(FileFingerprint::compute(files, "/changed"), exact);
}

TEST(FileFingerprint, ReportsAFileThatCannotBeOpenedOrRead) {
    MemoryFileSystem files;
    files.put("/x", "content");
    files.putFolder("/folder");
    EXPECT_THROW(static_cast<void>(FileFingerprint::compute(files, "/missing")), platform::SystemError);
    EXPECT_THROW(static_cast<void>(FileFingerprint::compute(files, "/folder")), platform::SystemError);
    files.addFault({.operation = Operation::read, .errorNumber = EIO});
    EXPECT_THROW(static_cast<void>(FileFingerprint::compute(files, "/x")), platform::SystemError);
}

TEST(InFlightJournalSnapshot, IsTheFilesContent) {
    const InFlightJournal::Snapshot snapshot{{{"a.txt|1|text/plain", "id"}}};
    EXPECT_EQ(prettyJson(snapshot.toJson()), "{\n  \"entries\" : {\n    \"a.txt|1|text/plain\" : \"id\"\n  }\n}");
    EXPECT_EQ(InFlightJournal::Snapshot::fromJson(snapshot.toJson()).entries, snapshot.entries);
    EXPECT_THROW(static_cast<void>(InFlightJournal::Snapshot::fromJson(Json::array())), JsonError);
}

} // namespace
} // namespace orlinth
