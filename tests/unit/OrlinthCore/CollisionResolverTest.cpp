#include "OrlinthCore/Receiving/CollisionResolver.h"

#include "OrlinthCore/Receiving/PartialMeta.h"
#include "fakes/MemoryFileSystem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace orlinth {
namespace {

using fakes::MemoryFileSystem;
using fakes::Operation;

const platform::Path dir = "/downloads";
constexpr const char* uuidPattern = "[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}";

/// As the resolver's results are, but with whole paths.
struct Resolved {
    platform::Path final;
    platform::Path partial;
    std::int64_t resumeOffset;
};

const PeerKey phone{"hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo="};

Resolved resolveTarget(platform::FileSystem& files, const std::string& baseName, const std::string& transferId,
                       const PeerKey& from = phone) {
    const CollisionResolver::Target target = CollisionResolver::resolveTarget(
        *files.openFolder(dir), baseName, {.id = TransferId(transferId), .peerKey = from});
    return {dir / target.final.text(), dir / target.partial.text(), target.resumeOffset.bytesBefore()};
}

platform::Path resolveFinalURL(platform::FileSystem& files, const std::string& baseName) {
    return dir / CollisionResolver::resolveFinalURL(*files.openFolder(dir), baseName).text();
}

TEST(Sanitize, TakesTheLastPathComponent) {
    EXPECT_EQ(CollisionResolver::sanitize("../../etc/passwd"), "passwd");
    EXPECT_EQ(CollisionResolver::sanitize("a/b"), "b");
    EXPECT_EQ(CollisionResolver::sanitize("a/b//"), "b");
    EXPECT_EQ(CollisionResolver::sanitize("/etc/shadow"), "shadow");
    EXPECT_EQ(CollisionResolver::sanitize("/"), "_");
    EXPECT_EQ(CollisionResolver::sanitize("///"), "_");
}

TEST(Sanitize, ReplacesBackslashesAndNulCharacters) {
    EXPECT_EQ(CollisionResolver::sanitize("a\\b"), "a_b");
    EXPECT_EQ(CollisionResolver::sanitize("..\\..\\x"), ".._.._x");
    EXPECT_EQ(CollisionResolver::sanitize(std::string("a\0b.txt\0", 8)), "a_b.txt_");
    EXPECT_EQ(CollisionResolver::sanitize(std::string("\0", 1)), "_");
}

TEST(Sanitize, TrimsUnicodeWhiteSpace) {
    EXPECT_EQ(CollisionResolver::sanitize(" \t\r\n a b.txt \u00a0\u3000\u2028"), "a b.txt");
}

TEST(Sanitize, NamesWhatHasNoName) {
    for (const char* name : {"", " ", "\t\n", "\u3000", ".", "..", " . ", " ..\n", "a/..", "a/ ", "x/./"}) {
        EXPECT_EQ(CollisionResolver::sanitize(name), "received") << testing::PrintToString(name);
    }
}

TEST(Sanitize, KeepsWhatIsHarmless) {
    for (const char* name : {".bashrc", "...", "..x", "photo 2.jpg", "caf\xe9.txt", "\u202egpj.exe", "-rf", "con"}) {
        EXPECT_EQ(CollisionResolver::sanitize(name), name);
    }
    EXPECT_EQ(CollisionResolver::sanitize(std::string(1000, 'x')), std::string(1000, 'x'));
}

class CollisionResolverTest : public testing::Test {
protected:
    CollisionResolverTest() { files.putFolder(dir); }

    void putPartial(const std::string& name, const std::string& content, const std::string& transferId,
                    const PeerKey& of = phone) {
        files.put(dir / (name + ".partial"), content);
        files.put(dir / (name + ".partial.meta.json"),
                  prettyJson(PartialMeta{TransferId(transferId), 999, fromEpochMilliseconds(1), of}.toJson()));
    }

    void expectTarget(const std::string& baseName, const std::string& finalName, std::int64_t offset) {
        const Resolved target = resolveTarget(files, baseName, "mine");
        EXPECT_EQ(target.final, dir / finalName);
        EXPECT_EQ(target.partial, dir / (finalName + ".partial"));
        EXPECT_EQ(target.resumeOffset, offset);
    }

    MemoryFileSystem files;
};

TEST_F(CollisionResolverTest, TakesAFreeNameAsItIs) {
    expectTarget("x.pdf", "x.pdf", 0);
    EXPECT_EQ(resolveFinalURL(files, "x.pdf"), dir / "x.pdf");
    EXPECT_EQ(files.mutations(), 0U);
}

TEST_F(CollisionResolverTest, NumbersATakenName) {
    files.put(dir / "x.pdf", "");
    expectTarget("x.pdf", "x 2.pdf", 0);
    files.put(dir / "x 2.pdf", "");
    expectTarget("x.pdf", "x 3.pdf", 0);
    files.putFolder(dir / "README");
    expectTarget("README", "README 2", 0);
    files.put(dir / ".bashrc", "");
    expectTarget(".bashrc", ".bashrc 2", 0);
    files.put(dir / "a.tar.gz", "");
    expectTarget("a.tar.gz", "a.tar 2.gz", 0);
}

TEST_F(CollisionResolverTest, ResumesThePartialFileOfTheSameTransfer) {
    putPartial("x.pdf", "12345", "mine");
    expectTarget("x.pdf", "x.pdf", 5);
}

TEST_F(CollisionResolverTest, ResumesFromAnEmptyPartialFileToo) {
    putPartial("x.pdf", "", "mine");
    expectTarget("x.pdf", "x.pdf", 0);
}

TEST_F(CollisionResolverTest, LeavesTheSizeOutOfTheDecision) {
    files.put(dir / "x.pdf.partial", std::string(5000, 'x'));
    files.put(dir / "x.pdf.partial.meta.json", R"({"transfer_id":"mine","advertised_size":1,"started_at_epoch_ms":0})");
    expectTarget("x.pdf", "x.pdf", 5000);
}

TEST_F(CollisionResolverTest, LeavesThePartialFileOfAnotherTransferAlone) {
    putPartial("x.pdf", "12345", "other");
    expectTarget("x.pdf", "x 2.pdf", 0);
    putPartial("x 2.pdf", "123", "mine");
    expectTarget("x.pdf", "x 2.pdf", 3);
    putPartial("y", "1", "MINE");
    expectTarget("y", "y 2", 0);
}

TEST_F(CollisionResolverTest, LeavesAPartialFileWithoutAUsableSidecarAlone) {
    files.put(dir / "x.pdf.partial", "12345");
    expectTarget("x.pdf", "x 2.pdf", 0);
    for (const char* sidecar : {"", "rubbish", "{}", R"({"transfer_id":"mine"})",
                                R"({"transfer_id":"mine","advertised_size":"1","started_at_epoch_ms":0})"}) {
        files.put(dir / "x.pdf.partial.meta.json", sidecar);
        expectTarget("x.pdf", "x 2.pdf", 0);
    }
}

TEST_F(CollisionResolverTest, DoesNotResumeUnderATakenFinalName) {
    putPartial("x.pdf", "12345", "mine");
    files.put(dir / "x.pdf", "");
    expectTarget("x.pdf", "x 2.pdf", 0);
}

TEST_F(CollisionResolverTest, IgnoresASidecarWithoutItsPartialFile) {
    files.put(dir / "x.pdf.partial.meta.json",
              prettyJson(PartialMeta{TransferId("mine"), 1, fromEpochMilliseconds(1)}.toJson()));
    expectTarget("x.pdf", "x.pdf", 0);
}

TEST_F(CollisionResolverTest, BeginsAnewWhereTheLengthCannotBeRead) {
    putPartial("x.pdf", "12345", "mine");
    int looks = 0;
    files.beforeEach([&](Operation operation, const platform::Path& path) {
        if (operation == Operation::status && path == dir / "x.pdf.partial" && ++looks == 2) {
            files.addFault({.operation = Operation::status, .errorNumber = EIO});
        }
    });
    expectTarget("x.pdf", "x.pdf", 0);
    EXPECT_EQ(looks, 2);
}

TEST_F(CollisionResolverTest, TakesALinkThatLeadsNowhereForATakenName) {
    files.putLink(dir / "x.pdf", "/gone");
    files.putLink(dir / "x 2.pdf.partial", "/gone/too");
    files.putLink(dir / "x 3.pdf", "x 3.pdf"); // to itself
    files.putFolder("/locked", 0);
    files.putLink(dir / "x 4.pdf", "/locked/up");
    files.put("/file", "");
    files.putLink(dir / "x 5.pdf", "/file/below");
    expectTarget("x.pdf", "x 6.pdf", 0);
    EXPECT_EQ(resolveFinalURL(files, "x.pdf"), dir / "x 6.pdf");
}

TEST_F(CollisionResolverTest, DoesNotResumeThroughALinkOrIntoWhatIsNoFile) {
    putPartial("x.pdf", "", "mine");
    files.put("/home/ada/.bashrc", "precious");
    files.putLink(dir / "x.pdf.partial", "/home/ada/.bashrc");
    expectTarget("x.pdf", "x 2.pdf", 0);
    files.putSpecial(dir / "x.pdf.partial");
    expectTarget("x.pdf", "x 2.pdf", 0);
    files.putFolder(dir / "x.pdf.partial");
    expectTarget("x.pdf", "x 2.pdf", 0);
}

TEST_F(CollisionResolverTest, ResumesOnlyWhatThisPhoneHasBegun) {
    putPartial("x.pdf", "12345", "mine", PeerKey("another phone"));
    expectTarget("x.pdf", "x 2.pdf", 0);
    EXPECT_EQ(resolveTarget(files, "x.pdf", "mine", PeerKey("another phone")).resumeOffset, 5);
    putPartial("y.pdf", "12345", "mine", PeerKey()); // of an older version
    expectTarget("y.pdf", "y.pdf", 5);
}

TEST_F(CollisionResolverTest, ResumesNoFileOfSomebodyElseAndNoneThatHasAnotherName) {
    putPartial("x.pdf", "12345", "mine");
    files.setOwner(dir / "x.pdf.partial", 1001);
    expectTarget("x.pdf", "x 2.pdf", 0);
    files.setOwner(dir / "x.pdf.partial", 1000);
    expectTarget("x.pdf", "x.pdf", 5);
    files.putSecondName("/home/ada/thesis.pdf", dir / "x.pdf.partial");
    expectTarget("x.pdf", "x 2.pdf", 0);
    files.remove("/home/ada/thesis.pdf");
    expectTarget("x.pdf", "x.pdf", 5);
}

TEST_F(CollisionResolverTest, GivesNoFileTheNameOfAPartialFileOrASidecar) {
    for (const auto& [name, stored] : std::vector<std::pair<std::string, std::string>>{
             {"x.pdf.partial.meta.json", "x.pdf.partial.meta_json"},
             {"x.PARTIAL.Meta.JSON", "x.PARTIAL.Meta_JSON"},
             {"x.partial.meta.j\u017fon", "x.partial.meta_j\u017fon"}, // a long s is an s without its case
             {"x.par\u200btial", "x_par\u200btial"},
             {"x.partial.meta.json..", "x.partial.meta.json._"},
             {"x.partial. .", "x.partial. _"},
             {"x.partial", "x_partial"},
             {"x.Partial", "x_Partial"},
             {".partial", "_partial"},
             {".partial.meta.json", ".partial.meta_json"},
             {"x.partial.partial", "x.partial_partial"},
             {"x.partial.pdf", "x.partial.pdf"},
             {"x.partial.meta.json.txt", "x.partial.meta.json.txt"},
             {"partial", "partial"},
             {"meta.json", "meta.json"}}) {
        EXPECT_FALSE(CollisionResolver::isReserved(stored)) << stored;
        EXPECT_EQ(CollisionResolver::isReserved(name), name != stored) << name;
        expectTarget(name, stored, 0);
        EXPECT_EQ(resolveFinalURL(files, name), dir / stored);
    }
    files.put(dir / "x_partial", "");
    expectTarget("x.partial", "x 2_partial", 0);
}

TEST_F(CollisionResolverTest, GivesNoFileSuchANameByShorteningAnotherEither) {
    const std::string sidecar = std::string(219, 'x') + ".partial.meta" + std::string(20, 'y') + ".json";
    EXPECT_EQ(resolveTarget(files, sidecar, "mine").final, dir / (std::string(219, 'x') + ".partial.meta_json"));
    const std::string partial = std::string(229, 'x') + ".partial" + std::string(200, 'y');
    EXPECT_EQ(resolveTarget(files, partial, "mine").final, dir / (std::string(229, 'x') + "_partial"));
}

TEST_F(CollisionResolverTest, CountsAPartialFileAsTakenForTheFinalName) {
    files.put(dir / "x.pdf.partial", "");
    EXPECT_EQ(resolveFinalURL(files, "x.pdf"), dir / "x 2.pdf");
    files.put(dir / "x 2.pdf", "");
    files.put(dir / "x 3.pdf.partial", "");
    EXPECT_EQ(resolveFinalURL(files, "x.pdf"), dir / "x 4.pdf");
}

TEST_F(CollisionResolverTest, GivesAnUnreachableFolderToTheCallerToFailOn) {
    files.setPermissions(dir, 0);
    expectTarget("x.pdf", "x.pdf", 0);
    EXPECT_EQ(resolveFinalURL(files, "x.pdf"), dir / "x.pdf");
    expectTarget(std::string(300, 'x'), std::string(237, 'x'), 0);
}

TEST_F(CollisionResolverTest, UsesTheLastNumberBeforeItUsesAUuid) {
    files.put(dir / "notes", "");
    for (int number = 2; number <= 9998; ++number) {
        files.put(dir / ("notes " + std::to_string(number)), "");
    }
    expectTarget("notes", "notes 9999", 0);
    EXPECT_EQ(resolveFinalURL(files, "notes"), dir / "notes 9999");
}

TEST_F(CollisionResolverTest, FallsBackToAUuidWithADotOnlyForTheFinalName) {
    for (const std::string ending : {"", ".txt"}) {
        files.put(dir / ("notes" + ending), "");
        for (int number = 2; number <= 9999; ++number) {
            files.put(dir / ("notes " + std::to_string(number) + ending), "");
        }
    }
    const auto expectName = [](const platform::Path& path, const std::string& pattern) {
        EXPECT_THAT(path.filename().native(), testing::MatchesRegex(pattern));
    };
    const std::string stem = std::string("notes-") + uuidPattern;
    const Resolved bare = resolveTarget(files, "notes", "mine");
    expectName(bare.final, stem);
    EXPECT_EQ(bare.partial.native(), bare.final.native() + ".partial");
    EXPECT_EQ(bare.resumeOffset, 0);
    expectName(resolveTarget(files, "notes.txt", "mine").final, stem + "\\.txt");
    const platform::Path first = resolveFinalURL(files, "notes");
    expectName(first, stem + "\\.");
    EXPECT_NE(resolveFinalURL(files, "notes"), first);
    expectName(resolveFinalURL(files, "notes.txt"), stem + "\\.txt");
}

// ---- names for which there is hardly room

/// A name of so many bytes, with an extension.
std::string nameOf(std::size_t bytes) {
    return std::string(bytes - 4, 'x') + ".txt";
}

TEST_F(CollisionResolverTest, ANameKeepsAllThatLeavesRoomForItsSidecar) {
    for (const std::size_t bytes : {5U, 232U, 233U, 237U}) {
        const auto target = resolveTarget(files, nameOf(bytes), "ID-1");
        EXPECT_EQ(target.final, dir / nameOf(bytes)) << bytes;
        EXPECT_EQ(target.resumeOffset, 0);
    }
}

TEST_F(CollisionResolverTest, ALongerNameLosesTheEndOfItsStem) {
    for (const std::size_t bytes : {238U, 239U, 255U, 300U, 5000U}) {
        const auto target = resolveTarget(files, nameOf(bytes), "ID-1");
        EXPECT_EQ(target.final, dir / nameOf(237)) << bytes;
        EXPECT_EQ(PartialMetaIO::metaName(platform::FileName(target.partial.filename())).text().size(), 255U);
        EXPECT_EQ(resolveFinalURL(files, nameOf(bytes)), dir / nameOf(237));
    }
}

TEST_F(CollisionResolverTest, ANumberTakesItsRoomFromTheStem) {
    files.put(dir / nameOf(237), "");
    const std::string second = std::string(231, 'x') + " 2.txt";
    EXPECT_EQ(resolveTarget(files, nameOf(237), "ID-1").final, dir / second);
    EXPECT_EQ(resolveTarget(files, nameOf(255), "ID-1").final, dir / second);
    EXPECT_EQ(resolveFinalURL(files, nameOf(255)), dir / second);
    for (int number = 2; number < 10; ++number) {
        files.put(dir / (std::string(231, 'x') + " " + std::to_string(number) + ".txt"), "");
    }
    EXPECT_EQ(resolveTarget(files, nameOf(255), "ID-1").final, dir / (std::string(230, 'x') + " 10.txt"));
}

TEST_F(CollisionResolverTest, TheCutLiesBetweenCharacters) {
    const auto finalOf = [&](const std::string& name) {
        return resolveTarget(files, name, "ID-1").final.filename().native();
    };
    const auto repeated = [](const std::string& text, int times) {
        std::string result;
        for (int i = 0; i < times; ++i) {
            result += text;
        }
        return result;
    };
    EXPECT_EQ(finalOf(repeated("\u00e4", 125) + ".txt"), repeated("\u00e4", 116) + ".txt")
        << "233 bytes: 116 and a half";
    EXPECT_EQ(finalOf(repeated("e\u0301", 80) + ".txt"), repeated("e\u0301", 77) + ".txt");
    EXPECT_EQ(finalOf("x" + repeated("\U0001F600", 63)), "x" + repeated("\U0001F600", 59));
    EXPECT_EQ(finalOf(std::string(232, 'x') + "  and more.txt"), std::string(232, 'x') + ".txt")
        << "no blank before it";
}

TEST_F(CollisionResolverTest, AnExtensionThatLeavesNoRoomIsNone) {
    const std::string longExtension = "a." + std::string(250, 'y');
    EXPECT_EQ(resolveTarget(files, longExtension, "ID-1").final, dir / ("a." + std::string(235, 'y')));
    const std::string kept = std::string(200, 'x') + "." + std::string(100, 'y');
    EXPECT_EQ(resolveTarget(files, kept, "ID-1").final, dir / (std::string(136, 'x') + "." + std::string(100, 'y')));
}

TEST_F(CollisionResolverTest, TheFileSystemSaysHowLongANameMayBe) {
    files.setLongestName(143);
    EXPECT_EQ(resolveTarget(files, nameOf(125), "ID-1").final, dir / nameOf(125));
    EXPECT_EQ(resolveTarget(files, nameOf(126), "ID-1").final, dir / nameOf(125));
}

TEST_F(CollisionResolverTest, AShortenedNameIsResumedUnderTheSameName) {
    putPartial(nameOf(237), "01234", "ID-1");
    const auto target = resolveTarget(files, nameOf(255), "ID-1");
    EXPECT_EQ(target.final, dir / nameOf(237));
    EXPECT_EQ(target.resumeOffset, 5);
    EXPECT_EQ(resolveTarget(files, nameOf(250), "ID-2").final, dir / (std::string(231, 'x') + " 2.txt"))
        << "another long name that is shortened to the same";
}

} // namespace
} // namespace orlinth
