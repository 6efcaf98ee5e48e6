#include "OrlinthCore/SecureChannel/KeyVault.h"

#include "platform/SystemError.h"
#include "platform/WholeFile.h"

namespace orlinth {

namespace {

constexpr std::uint32_t directoryPermissions = 0700;
constexpr std::uint32_t filePermissions = 0600;

} // namespace

KeyVault::KeyVault(platform::FileSystem& files, const platform::UserDirectories& directories,
                   const std::string& fileName)
    : KeyVault(files, directories.data / defaultDirectoryName, fileName) {}

KeyVault::KeyVault(platform::FileSystem& files, platform::Path directoryURL, const std::string& fileName)
    : files_(files), directoryPath_(std::move(directoryURL)), filePath_(directoryPath_ / fileName) {}

platform::PrivateKey KeyVault::loadOrCreate() {
    std::optional<platform::PrivateKey> stored = load();
    if (stored) {
        return std::move(*stored);
    }
    platform::PrivateKey fresh = platform::PrivateKey::generate();
    store(fresh);
    return fresh;
}

std::optional<platform::PrivateKey> KeyVault::load() {
    constexpr std::size_t size = platform::PrivateKey::size;
    SecretBytes raw(size);
    std::size_t found = 0;
    try {
        // status() and not exists(): a file that cannot be looked at must not be taken for a missing one.
        if (!files_.status(filePath_)) {
            return std::nullopt;
        }
        const std::unique_ptr<platform::File> file = files_.open(filePath_, platform::OpenMode::read);
        found = file->read(raw.revealMutable());
        const auto whole = static_cast<std::size_t>(file->status().size);
        found = found == size ? whole : found;
    } catch (const platform::SystemError& error) {
        throw Error::read(describe(error));
    }
    if (found != size) {
        throw Error::malformedKeyMaterial(found);
    }
    return platform::PrivateKey::fromRaw(raw.reveal());
}

void KeyVault::store(const platform::PrivateKey& key) {
    try {
        files_.createDirectories(directoryPath_, directoryPermissions);
    } catch (const platform::SystemError& error) {
        throw Error::createDirectory(describe(error));
    }
    try {
        platform::writeWholeFile(files_, filePath_, key.reveal(), filePermissions, platform::Flush::now,
                                 platform::Links::follow);
    } catch (const platform::SystemError& error) {
        throw Error::write(describe(error));
    }
}

void KeyVault::wipe() {
    try {
        if (files_.status(filePath_)) {
            files_.remove(filePath_);
        }
    } catch (const platform::SystemError& error) {
        throw Error::write(describe(error));
    }
}

KeyVault::Error KeyVault::Error::createDirectory(const std::string& text) {
    return {Case::createDirectory, "could not create vault directory: ", text};
}

KeyVault::Error KeyVault::Error::write(const std::string& text) {
    return {Case::write, "vault write failed: ", text};
}

KeyVault::Error KeyVault::Error::read(const std::string& text) {
    return {Case::read, "vault read failed: ", text};
}

KeyVault::Error KeyVault::Error::malformedKeyMaterial(std::size_t count) {
    return Error(count);
}

} // namespace orlinth
