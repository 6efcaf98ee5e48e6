#include "OrlinthCore/SecureChannel/KeyVault.h"

#include "fakes/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace orlinth {
namespace {

using fakes::MemoryFileSystem;
using fakes::Operation;
using Case = KeyVault::Error::Case;

const platform::Path folder = "/home/me/.local/share/Orlinth";
const platform::Path file = folder / "noise_static.bin";

fakes::Fault fault(Operation operation, int errorNumber) {
    fakes::Fault fault;
    fault.operation = operation;
    fault.errorNumber = errorNumber;
    return fault;
}

/// The vault error of `action`.
template <typename Action>
std::optional<KeyVault::Error> errorOf(Action action) {
    try {
        action();
    } catch (const KeyVault::Error& error) {
        return error;
    }
    ADD_FAILURE() << "no error";
    return std::nullopt;
}

TEST(KeyVault, LivesInTheUsersDataFolder) {
    MemoryFileSystem files;
    const platform::UserDirectories directories{.data = "/home/me/.local/share", .config = {}, .downloads = {}};
    const KeyVault vault(files, directories);
    EXPECT_EQ(vault.directoryURL(), folder);
    EXPECT_EQ(vault.fileURL(), file);
}

TEST(KeyVault, HonoursAnotherFolderAndFileName) {
    MemoryFileSystem files;
    const KeyVault vault(files, "/elsewhere/keys", "my.key");
    EXPECT_EQ(vault.directoryURL(), "/elsewhere/keys");
    EXPECT_EQ(vault.fileURL(), "/elsewhere/keys/my.key");
}

TEST(KeyVault, MakesAPrivateKeyFileOnFirstUse) {
    MemoryFileSystem files;
    KeyVault vault(files, folder);
    const platform::PrivateKey key = vault.loadOrCreate();
    EXPECT_EQ(files.content(file), toText(key.reveal()));
    EXPECT_EQ(files.status(file)->permissions, 0600u);
    EXPECT_EQ(files.status(folder)->permissions, 0700u);
    EXPECT_EQ(files.allFiles(), std::vector<std::string>{file.string()});
}

TEST(KeyVault, ReturnsTheSameKeyAgain) {
    MemoryFileSystem files;
    const platform::PublicKey first = KeyVault(files, folder).loadOrCreate().publicKey();
    const std::size_t mutations = files.mutations();
    EXPECT_EQ(KeyVault(files, folder).loadOrCreate().publicKey(), first);
    EXPECT_EQ(files.mutations(), mutations) << "loading writes nothing";
}

TEST(KeyVault, LoadsTheRawScalar) {
    MemoryFileSystem files;
    const platform::PrivateKey key = platform::PrivateKey::generate();
    files.put(file, toText(key.reveal()), 0600);
    EXPECT_EQ(KeyVault(files, folder).loadOrCreate().publicKey(), key.publicKey());
}

TEST(KeyVault, LeavesThePermissionsOfAnExistingFolder) {
    MemoryFileSystem files;
    files.putFolder(folder, 0755);
    static_cast<void>(KeyVault(files, folder).loadOrCreate());
    EXPECT_EQ(files.status(folder)->permissions, 0755u);
    EXPECT_EQ(files.status(file)->permissions, 0600u);
}

TEST(KeyVault, ReportsAFileOfAnotherLengthAndLeavesIt) {
    for (const std::size_t length : {0U, 1U, 31U, 33U, 64U, 100'000U}) {
        MemoryFileSystem files;
        const std::string content(length, 'k');
        files.put(file, content);
        const auto error = errorOf([&] { static_cast<void>(KeyVault(files, folder).loadOrCreate()); });
        EXPECT_EQ(error->which(), Case::malformedKeyMaterial);
        EXPECT_EQ(error->description(), "stored key has wrong length " + std::to_string(length) + " (want 32)");
        EXPECT_EQ(files.content(file), content);
        EXPECT_EQ(files.mutations(), 0u);
    }
}

TEST(KeyVault, NeverReplacesAKeyThatItCannotRead) {
    for (const Operation operation : {Operation::status, Operation::open, Operation::read}) {
        MemoryFileSystem files;
        files.put(file, std::string(32, 'k'));
        files.addFault(fault(operation, EACCES));
        const auto error = errorOf([&] { static_cast<void>(KeyVault(files, folder).loadOrCreate()); });
        EXPECT_EQ(error->which(), Case::read);
        EXPECT_EQ(error->description(), "vault read failed: Permission denied");
        files.clearFaults();
        EXPECT_EQ(files.content(file), std::string(32, 'k'));
    }
}

TEST(KeyVault, ReportsAFolderInTheFilesPlace) {
    MemoryFileSystem files;
    files.putFolder(file);
    EXPECT_EQ(errorOf([&] { static_cast<void>(KeyVault(files, folder).loadOrCreate()); })->which(), Case::read);
}

TEST(KeyVault, ReportsAFolderThatCannotBeMade) {
    MemoryFileSystem files;
    files.addFault(fault(Operation::createDirectory, EROFS));
    const auto error = errorOf([&] { static_cast<void>(KeyVault(files, folder).loadOrCreate()); });
    EXPECT_EQ(error->which(), Case::createDirectory);
    EXPECT_EQ(error->description(), "could not create vault directory: Read-only file system");
}

TEST(KeyVault, ReportsAFailedWriteAndLeavesNoRubbish) {
    for (const Operation operation : {Operation::create, Operation::write, Operation::flush, Operation::rename}) {
        MemoryFileSystem files;
        files.addFault(fault(operation, ENOSPC));
        const auto error = errorOf([&] { static_cast<void>(KeyVault(files, folder).loadOrCreate()); });
        EXPECT_EQ(error->which(), Case::write);
        EXPECT_EQ(error->description(), "vault write failed: No space left on device");
        EXPECT_TRUE(files.allFiles().empty());
    }
}

TEST(KeyVault, HoldsAWholeKeyOrNoneAfterACrashAtAnyMoment) {
    for (std::size_t mutations = 0;; ++mutations) {
        MemoryFileSystem files;
        files.crashAfter(mutations, 7);
        try {
            static_cast<void>(KeyVault(files, folder).loadOrCreate());
        } catch (const fakes::Crash&) { // what the test is about
        }
        for (const fakes::CrashKind kind : fakes::allCrashKinds) {
            const auto next = files.afterCrash(kind);
            const auto content = next->content(file);
            EXPECT_TRUE(!content || content->size() == 32) << "after " << mutations << " mutations";
            const platform::PublicKey key = KeyVault(*next, folder).loadOrCreate().publicKey();
            EXPECT_EQ(KeyVault(*next, folder).loadOrCreate().publicKey(), key);
        }
        if (!files.hasCrashed()) {
            EXPECT_GT(mutations, 3u);
            break;
        }
    }
}

TEST(KeyVault, MakesAnotherKeyAfterBeingWiped) {
    MemoryFileSystem files;
    KeyVault vault(files, folder);
    const platform::PublicKey before = vault.loadOrCreate().publicKey();
    vault.wipe();
    EXPECT_FALSE(files.exists(file));
    EXPECT_TRUE(files.exists(folder));
    EXPECT_NE(vault.loadOrCreate().publicKey(), before);
}

TEST(KeyVault, HasNothingToWipeWhereThereIsNoFile) {
    MemoryFileSystem files;
    KeyVault(files, folder).wipe();
    EXPECT_EQ(files.mutations(), 0u);
}

TEST(KeyVault, ReportsAFailedWipe) {
    MemoryFileSystem files;
    files.put(file, std::string(32, 'k'));
    files.addFault(fault(Operation::remove, EACCES));
    const auto error = errorOf([&] { KeyVault(files, folder).wipe(); });
    EXPECT_EQ(error->which(), Case::write);
    EXPECT_EQ(error->description(), "vault write failed: Permission denied");
}

TEST(KeyVaultError, HasItsPayload) {
    EXPECT_EQ(KeyVault::Error::read("why").detail(), "why");
    EXPECT_EQ(KeyVault::Error::write("why").description(), "vault write failed: why");
    EXPECT_EQ(KeyVault::Error::malformedKeyMaterial(31).count(), 31U);
    EXPECT_EQ(KeyVault::Error::malformedKeyMaterial(31).detail(), "");
}

} // namespace
} // namespace orlinth
