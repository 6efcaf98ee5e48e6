#include "OrlinthHost/Phones/AddressMemory.h"

#include "OrlinthHost/HostError.h"
#include "fakes/CrashTrials.h"
#include "fakes/MemoryFileSystem.h"
#include "fakes/RecordingLog.h"
#include "fakes/TemporaryFolder.h"
#include "fakes/VirtualClock.h"
#include "platform/WholeFile.h"
#include "platform/linux/LinuxFileSystem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <sys/stat.h>
#include <thread>
#include <utility>
#include <vector>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

const platform::Path folder = "/home/ann/.local/share/Orlinth";
const platform::Path file = folder / AddressMemory::fileName;
const PeerKey pixel("hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo=");
const PeerKey tablet("AQAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=");
const NetworkId home = *NetworkId::parse("9f86d081884c7d65");

Meeting at(const std::string& literal) {
    return {.host = HostAddress::parse(literal, "wlan0").value(), .network = home};
}

std::vector<std::string> textsOf(const std::vector<KnownAddress>& addresses) {
    std::vector<std::string> texts;
    for (const KnownAddress& address : addresses) {
        texts.push_back(address.host.text());
    }
    return texts;
}

class AddressMemoryTest : public testing::Test {
protected:
    [[nodiscard]] AddressMemory memoryOn(platform::FileSystem& disk) { return {disk, clock, log, folder}; }
    [[nodiscard]] std::vector<std::string> known(platform::FileSystem& disk) {
        return textsOf(memoryOn(disk).addressesOf(pixel));
    }
    /// What is in the file's place counts as empty, and the next change puts a file there.
    void expectEmptyAndReplaced() {
        EXPECT_THAT(known(files), IsEmpty());
        memory.reached(pixel, at("192.168.7.2"));
        EXPECT_THAT(known(files), ElementsAre("192.168.7.2"));
        EXPECT_THAT(log.messages(), IsEmpty());
        EXPECT_EQ(files.status(file)->owner, files.status(folder)->owner);
    }

    asio::io_context context;
    fakes::VirtualClock clock{context};
    fakes::RecordingLog log;
    fakes::MemoryFileSystem files;
    AddressMemory memory = memoryOn(files);
};

TEST_F(AddressMemoryTest, KnowsNothingAndMakesNoFileToLookOrToForget) {
    EXPECT_THAT(memory.addressesOf(pixel), IsEmpty());
    EXPECT_EQ(memory.told(), std::nullopt);
    memory.forget(pixel);
    EXPECT_THAT(files.allFiles(), IsEmpty());
}

TEST_F(AddressMemoryTest, RemembersForWhoeverComesLater) {
    memory.reached(pixel, at("192.168.7.2"));
    memory.came(pixel, at("192.168.7.3"));
    memory.tell({.host = at("192.168.7.10").host, .port = 28471});
    EXPECT_THAT(known(files), ElementsAre("192.168.7.2", "192.168.7.3"));
    for (int i = 0; i < AddressBook::maxFailures; ++i) {
        memory.failed(pixel, at("192.168.7.2").host, home);
    }
    AddressMemory later = memoryOn(files);
    const Surroundings here{.networks = {}, .isOnLink = [](const HostAddress&) { return true; }};
    EXPECT_THAT(textsOf(later.candidates(pixel, here)), ElementsAre("192.168.7.3", "192.168.7.2"));
    EXPECT_EQ(later.told()->port, 28471);
    EXPECT_EQ(later.addressesOf(pixel).front().came, clock.epochMilliseconds());
}

TEST_F(AddressMemoryTest, IsForTheOwnerAlone) {
    memory.reached(pixel, at("192.168.7.2"));
    EXPECT_EQ(files.status(file)->permissions & 0777U, 0600U);
    EXPECT_EQ(files.status(folder)->permissions & 0777U, 0700U);
}

TEST_F(AddressMemoryTest, IsNotWrittenWithoutAChange) {
    memory.reached(pixel, at("192.168.7.2"));
    const std::size_t before = files.count(fakes::Operation::rename);
    memory.reached(pixel, at("192.168.7.2"));
    memory.failed(tablet, at("192.168.7.2").host, home);
    memory.forget(tablet);
    EXPECT_EQ(files.count(fakes::Operation::rename), before);
}

TEST_F(AddressMemoryTest, ForgetsAPhoneAndNoOther) {
    memory.reached(pixel, at("192.168.7.2"));
    memory.reached(tablet, at("192.168.7.3"));
    memory.forget(pixel);
    EXPECT_THAT(known(files), IsEmpty());
    EXPECT_THAT(textsOf(memory.addressesOf(tablet)), ElementsAre("192.168.7.3"));
    EXPECT_THAT(*files.content(file), testing::Not(HasSubstr(pixel.text())));
}

TEST_F(AddressMemoryTest, KeepsPhonesThatArePairedAndNoOther) {
    memory.keepOnly({});
    EXPECT_THAT(files.allFiles(), IsEmpty());
    memory.reached(pixel, at("192.168.7.2"));
    memory.reached(tablet, at("192.168.7.3"));
    const std::size_t before = files.count(fakes::Operation::rename);
    memory.keepOnly({tablet, pixel, PeerKey("another")});
    EXPECT_EQ(files.count(fakes::Operation::rename), before) << "there is nothing to forget";
    memory.keepOnly({tablet});
    EXPECT_THAT(known(files), IsEmpty());
    EXPECT_THAT(textsOf(memory.addressesOf(tablet)), ElementsAre("192.168.7.3"));
    EXPECT_THAT(*files.content(file), testing::Not(HasSubstr(pixel.text())));
}

TEST_F(AddressMemoryTest, LetsOneOfTwoProcessesSweep) {
    AddressMemory other = memoryOn(files);
    EXPECT_TRUE(memory.claimSweep(home));
    EXPECT_FALSE(other.claimSweep(home));
    EXPECT_FALSE(memory.claimSweep(home));
}

TEST_F(AddressMemoryTest, SweepsNothingIfThatCannotBeSaved) {
    files.putFolder(folder);
    files.addFault({.operation = fakes::Operation::write, .errorNumber = ENOSPC});
    EXPECT_FALSE(memory.claimSweep(home));
    EXPECT_THAT(log.messages(), ElementsAre(HasSubstr("cannot save where phones were met: ")));
}

// --- what is in the file's place ---

TEST_F(AddressMemoryTest, TakesWhatDoesNotDecodeForNothing) {
    for (const char* content : {"", "{", "[]", "\xFF\xFE", "{\"phones\":[]}"}) {
        SCOPED_TRACE(content);
        files.put(file, content);
        expectEmptyAndReplaced();
    }
}

TEST_F(AddressMemoryTest, TakesALinkForNothingAndLeavesWhereItLeads) {
    memory.reached(pixel, at("192.168.7.9"));
    const std::string content = *files.content(file);
    files.remove(file);
    files.put("/home/ann/elsewhere.json", content);
    files.putLink(file, "/home/ann/elsewhere.json");
    expectEmptyAndReplaced();
    EXPECT_EQ(files.content("/home/ann/elsewhere.json"), content);
}

TEST_F(AddressMemoryTest, TakesAFileOfSomebodyElsesForNothing) {
    memory.reached(pixel, at("192.168.7.9"));
    files.setPermissions(file, 0644);
    files.setOwner(file, 2000);
    expectEmptyAndReplaced();
}

TEST_F(AddressMemoryTest, TakesAFileWithASecondNameForNothing) {
    memory.reached(pixel, at("192.168.7.9"));
    files.putSecondName("/home/ann/second.json", file);
    expectEmptyAndReplaced();
}

TEST_F(AddressMemoryTest, TakesAFileThatCannotBeReadForNothing) {
    memory.reached(pixel, at("192.168.7.9"));
    files.setPermissions(file, 0);
    expectEmptyAndReplaced();
}

TEST_F(AddressMemoryTest, ReadsNothingOfAFileThatIsTooLarge) {
    files.put(file, "{" + std::string(AddressBook::maxFileBytes - 1, ' ') + "}");
    const std::size_t before = files.count(fakes::Operation::read);
    EXPECT_THAT(known(files), IsEmpty());
    EXPECT_EQ(files.count(fakes::Operation::read), before);
    expectEmptyAndReplaced();
}

TEST_F(AddressMemoryTest, IsNotHeldUpByAGibibyteOrAPipeOnARealDisk) {
    const fakes::TemporaryFolder temporary;
    const platform::Path real = temporary.path() / AddressMemory::fileName;
    platform::LinuxFileSystem disk;
    AddressMemory onDisk(disk, clock, log, temporary.path());
    { // sparse, so it takes no room
        static_cast<void>(disk.open(real, platform::OpenMode::createNew));
        std::filesystem::resize_file(real, std::uintmax_t{1} << 30U);
    }
    EXPECT_THAT(onDisk.addressesOf(pixel), IsEmpty());
    onDisk.reached(pixel, at("192.168.7.2"));
    EXPECT_THAT(textsOf(onDisk.addressesOf(pixel)), ElementsAre("192.168.7.2"));
    EXPECT_LE(std::filesystem::file_size(real), AddressBook::maxFileBytes);
    std::filesystem::remove(real);
    ASSERT_EQ(::mkfifo(real.c_str(), 0600), 0);
    EXPECT_THAT(onDisk.addressesOf(pixel), IsEmpty());
    onDisk.reached(pixel, at("192.168.7.3"));
    EXPECT_THAT(textsOf(onDisk.addressesOf(pixel)), ElementsAre("192.168.7.3"));
    EXPECT_THAT(log.messages(), IsEmpty());
}

// --- trouble while writing ---

TEST_F(AddressMemoryTest, LogsWhatCannotBeWrittenAndStaysAsItWas) {
    fakes::forEveryFailure(
        ENOSPC, [this](fakes::MemoryFileSystem& disk) { memoryOn(disk).reached(pixel, at("192.168.7.2")); },
        [this](fakes::MemoryFileSystem& disk) { memoryOn(disk).reached(pixel, at("192.168.7.3")); },
        [this](fakes::MemoryFileSystem& disk, const std::exception_ptr& thrown) {
            EXPECT_FALSE(thrown) << "it stands in nobody's way";
            EXPECT_THAT(known(disk),
                        testing::AnyOf(ElementsAre("192.168.7.2"), UnorderedElementsAre("192.168.7.2", "192.168.7.3")));
            EXPECT_FALSE(disk.isLocked(file.native() + ".lock"));
        });
    EXPECT_THAT(log.messages(), testing::Each(HasSubstr("cannot save where phones were met: ")));
    EXPECT_THAT(log.messages(), testing::Not(IsEmpty()));
}

TEST_F(AddressMemoryTest, SaysThatAPhoneCannotBeForgotten) {
    memory.reached(pixel, at("192.168.7.2"));
    files.addFault({.operation = fakes::Operation::rename, .errorNumber = EIO});
    try {
        memory.forget(pixel);
        FAIL() << "no error";
    } catch (const HostError& error) {
        EXPECT_THAT(error.description(), HasSubstr("cannot forget where the phone was met: "));
        EXPECT_EQ(error.hint(), "Delete " + file.string() + ", then try again.");
    }
    EXPECT_THAT(known(files), ElementsAre("192.168.7.2"));
}

TEST_F(AddressMemoryTest, IsOldOrNewAfterACrashAtAnyPoint) {
    fakes::forEveryCrash([this](fakes::MemoryFileSystem& disk) { memoryOn(disk).reached(pixel, at("192.168.7.2")); },
                         [this](fakes::MemoryFileSystem& disk) { memoryOn(disk).came(pixel, at("192.168.7.3")); },
                         [this](const fakes::Aftermath& after) {
                             const std::vector<std::string> found = known(after.files);
                             const bool isNew = found == std::vector<std::string>{"192.168.7.2", "192.168.7.3"};
                             EXPECT_TRUE(isNew || found == std::vector<std::string>{"192.168.7.2"});
                             EXPECT_TRUE(isNew || !after.completed) << "what was done is done";
                             memoryOn(after.files).reached(pixel, at("192.168.7.4"));
                             EXPECT_THAT(known(after.files), testing::Contains("192.168.7.4")) << "and it goes on";
                         });
}

TEST_F(AddressMemoryTest, HoldsTheLockFromReadingToWriting) {
    memory.reached(pixel, at("192.168.7.2"));
    std::vector<std::pair<fakes::Operation, bool>> looks;
    files.beforeEach([&](fakes::Operation operation, const platform::Path& path) {
        const bool isRead = operation == fakes::Operation::read && path == file;
        if (isRead || operation == fakes::Operation::rename) {
            looks.emplace_back(operation, files.isLocked(file.native() + ".lock"));
        }
    });
    memory.reached(pixel, at("192.168.7.3"));
    EXPECT_THAT(
        looks, ElementsAre(testing::Pair(fakes::Operation::read, true), testing::Pair(fakes::Operation::rename, true)));
    EXPECT_FALSE(files.isLocked(file.native() + ".lock"));
}

TEST_F(AddressMemoryTest, LosesNothingOfTwoWritersAtOnce) {
    files.beforeEach([](fakes::Operation, const platform::Path&) { std::this_thread::yield(); });
    constexpr int perWriter = 4;
    constexpr int writers = 2;
    {
        std::vector<std::jthread> threads;
        for (int writer = 0; writer < writers; ++writer) {
            threads.emplace_back([this, writer] {
                AddressMemory own = memoryOn(files);
                for (int i = 0; i < perWriter; ++i) {
                    own.reached(pixel, at("192.168.7." + std::to_string(10 + writer * perWriter + i)));
                }
            });
        }
    }
    EXPECT_EQ(known(files).size(), static_cast<std::size_t>(writers * perWriter));
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(AddressMemoryTest, LetsOneOfManyThreadsSweep) {
    files.beforeEach([](fakes::Operation, const platform::Path&) { std::this_thread::yield(); });
    std::atomic<int> sweepers = 0;
    {
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < 4; ++thread) {
            threads.emplace_back([this, &sweepers] { sweepers += memoryOn(files).claimSweep(home) ? 1 : 0; });
        }
    }
    EXPECT_EQ(sweepers, 1);
}

} // namespace
} // namespace orlinth::host
