#include "platform/linux/LinuxMimeTypes.h"

#include "fakes/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <thread>

namespace orlinth::platform {
namespace {

using fakes::writeText;

/// A user's folder and a system's, as the lines of their databases.
class LinuxMimeTypesTest : public testing::Test {
protected:
    LinuxMimeTypes database(std::string_view user, std::string_view system) {
        writeText(folder_ / "user/mime/globs2", user);
        writeText(folder_ / "system/mime/globs2", system);
        return LinuxMimeTypes({folder_ / "user", folder_ / "missing", folder_ / "system"});
    }

private:
    fakes::TemporaryFolder folder_;
};

TEST_F(LinuxMimeTypesTest, KnowsAnExtensionInAnyLetterCase) {
    const LinuxMimeTypes types = database("", "50:image/png:*.png\n50:text/x-odd:*.OdD\n");
    EXPECT_EQ(types.typeForExtension("png"), "image/png");
    EXPECT_EQ(types.typeForExtension("PnG"), "image/png");
    EXPECT_EQ(types.typeForExtension("odd"), "text/x-odd");
    EXPECT_EQ(types.typeForExtension("jpg"), std::nullopt);
}

TEST_F(LinuxMimeTypesTest, TakesTheHighestWeightWhereverItStands) {
    const LinuxMimeTypes types = database("40:a/user:*.x\n", "50:a/light:*.x\n70:a/heavy:*.x\n60:a/later:*.x\n");
    EXPECT_EQ(types.typeForExtension("x"), "a/heavy");
}

TEST_F(LinuxMimeTypesTest, PrefersTheUsersFolderThenTheEarlierLineAtEqualWeights) {
    const LinuxMimeTypes types = database("50:a/user:*.x\n", "50:a/system:*.x\n50:a/first:*.y\n50:a/second:*.y\n");
    EXPECT_EQ(types.typeForExtension("x"), "a/user");
    EXPECT_EQ(types.typeForExtension("y"), "a/first");
}

TEST_F(LinuxMimeTypesTest, TellsTheCasesApartOnlyWhereTheDatabaseDoes) {
    const LinuxMimeTypes types =
        database("", "50:text/x-c++src:*.C:cs\n50:text/x-csrc:*.c:cs\n50:a/any:*.d\n50:a/upper:*.D:other,cs\n");
    EXPECT_EQ(types.typeForExtension("C"), "text/x-c++src");
    EXPECT_EQ(types.typeForExtension("c"), "text/x-csrc");
    EXPECT_EQ(types.typeForExtension("D"), "a/upper");
    EXPECT_EQ(types.typeForExtension("d"), "a/any");
}

TEST_F(LinuxMimeTypesTest, LetsAHeavierPatternOfAnyCaseBeatAnExactOne) {
    const LinuxMimeTypes types = database("", "50:a/exact:*.X:cs\n60:a/any:*.x\n");
    EXPECT_EQ(types.typeForExtension("X"), "a/any");
}

TEST_F(LinuxMimeTypesTest, DoesNotTakePatternsThatAreNoPlainExtension) {
    const LinuxMimeTypes types =
        database("", "90:a/tar:*.tar.gz\n90:a/make:makefile\n90:a/range:*.[0-9]\n90:a/star:*.g*\n50:a/gzip:*.gz\n");
    EXPECT_EQ(types.typeForExtension("gz"), "a/gzip");
    EXPECT_EQ(types.typeForExtension("makefile"), std::nullopt);
    EXPECT_EQ(types.typeForExtension("1"), std::nullopt);
    EXPECT_EQ(types.typeForExtension("g*"), std::nullopt);
}

TEST_F(LinuxMimeTypesTest, ForgetsATypesPatternsOfLowerFoldersOnNoglobsOnly) {
    const LinuxMimeTypes types =
        database("0:a/gone:__NOGLOBS__\n50:a/gone:*.kept\n", "90:a/gone:*.x\n50:a/other:*.x\n0:a/other:__NOGLOBS__\n");
    EXPECT_EQ(types.typeForExtension("x"), "a/other");
    EXPECT_EQ(types.typeForExtension("kept"), "a/gone");
}

TEST_F(LinuxMimeTypesTest, SkipsCommentsAndLinesThatMakeNoSense) {
    const LinuxMimeTypes types =
        database("", "# comment\n\n:::\nx:a/b:*.a\n50\n50:a/b\n50:no-slash:*.b\n50:a/\x01:*.c\n"
                     "99999999999999:a/b:*.e\n50:a/b:*.\n50:a/last:*.d");
    for (const char* extension : {"a", "b", "c", "e", ""}) {
        EXPECT_EQ(types.typeForExtension(extension), std::nullopt) << extension;
    }
    EXPECT_EQ(types.typeForExtension("d"), "a/last");
}

TEST_F(LinuxMimeTypesTest, AnswersAnyTextFromOutside) {
    const LinuxMimeTypes types = database("", "50:a/b:*.a\n");
    for (const std::string& extension :
         {std::string("../../etc/passwd"), std::string("\0a", 2), std::string("\xFF\xFE"), std::string(100000, 'a')}) {
        EXPECT_EQ(types.typeForExtension(extension), std::nullopt);
    }
}

TEST_F(LinuxMimeTypesTest, IsLoadedOnceForManyThreads) {
    const LinuxMimeTypes types = database("", "50:a/b:*.a\n");
    std::vector<std::optional<std::string>> answers(8);
    std::vector<std::thread> threads;
    for (auto& answer : answers) {
        threads.emplace_back([&types, &answer] { answer = types.typeForExtension("A"); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(answers, std::vector<std::optional<std::string>>(8, "a/b"));
}

TEST_F(LinuxMimeTypesTest, CallsFilmsAndSoundsWhatPhonesCallThem) {
    const LinuxMimeTypes types =
        database("", "50:text/vnd.trolltech.linguist:*.ts\n50:audio/x-wav:*.wav\n50:video/x-msvideo:*.avi\n");
    EXPECT_EQ(types.typeForExtension("ts"), "video/mp2t");
    EXPECT_EQ(types.typeForExtension("TS"), "video/mp2t");
    EXPECT_EQ(types.typeForExtension("wav"), "audio/wav");
    EXPECT_EQ(types.typeForExtension("avi"), "video/x-msvideo");
    EXPECT_EQ(types.typeForExtension("tsx"), std::nullopt);
}

TEST_F(LinuxMimeTypesTest, KnowsNothingWithoutADatabase) {
    EXPECT_EQ(LinuxMimeTypes({"/nonexistent"}).typeForExtension("png"), std::nullopt);
    EXPECT_EQ(LinuxMimeTypes({}).typeForExtension("png"), std::nullopt);
}

} // namespace
} // namespace orlinth::platform
