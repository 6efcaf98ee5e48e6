#pragma once

#include "base/CaseError.h"
#include "platform/Crypto.h"
#include "platform/Directories.h"
#include "platform/FileSystem.h"

namespace orlinth {

/// Keeps this computer's static key: 32 raw bytes of an X25519 private key in a file that only the owner may read.
///
/// Losing the file means pairing every phone again, so nothing here ever replaces one that is damaged or unreadable.
/// No lock: two processes that create the key at the same moment may each write one, whole; the last one stays.
class KeyVault {
public:
    class Error;

    static constexpr const char* defaultDirectoryName = "Orlinth";
    static constexpr const char* defaultFileName = "noise_static.bin";

    /// The key file in the folder "Orlinth" of the user's application data.
    KeyVault(platform::FileSystem& files, const platform::UserDirectories& directories,
             const std::string& fileName = defaultFileName);
    /// The key file in another folder. `files` must outlive the vault.
    KeyVault(platform::FileSystem& files, platform::Path directoryURL, const std::string& fileName = defaultFileName);

    [[nodiscard]] const platform::Path& fileURL() const noexcept { return filePath_; }
    [[nodiscard]] const platform::Path& directoryURL() const noexcept { return directoryPath_; }

    /// The stored key; on first use a fresh one, stored (folder 0700, file 0600).
    /// @throws Error::read, malformedKeyMaterial: the file stays as it is. Error::createDirectory, write.
    [[nodiscard]] platform::PrivateKey loadOrCreate();
    /// Forgets the key: removes the file if there is one. The folder stays. @throws Error::write
    void wipe();

private:
    [[nodiscard]] std::optional<platform::PrivateKey> load();
    void store(const platform::PrivateKey& key);

    platform::FileSystem& files_;
    platform::Path directoryPath_;
    platform::Path filePath_;
};

/// What KeyVault throws.
class KeyVault::Error : public CaseError<KeyVault::Error> {
public:
    enum class Case { createDirectory, write, read, malformedKeyMaterial };

    [[nodiscard]] static Error createDirectory(const std::string& text);
    [[nodiscard]] static Error write(const std::string& text);
    [[nodiscard]] static Error read(const std::string& text);
    /// `count` is how many bytes the file has.
    [[nodiscard]] static Error malformedKeyMaterial(std::size_t count);

    /// Of malformedKeyMaterial: the bytes found; else 0.
    [[nodiscard]] std::size_t count() const noexcept { return count_; }

private:
    Error(Case which, const std::string& prefix, const std::string& detail) : CaseError(which, prefix, detail) {}
    explicit Error(std::size_t count)
        : CaseError(Case::malformedKeyMaterial, "stored key has wrong length " + std::to_string(count) + " (want 32)"),
          count_(count) {}
    std::size_t count_ = 0;
};

} // namespace orlinth
