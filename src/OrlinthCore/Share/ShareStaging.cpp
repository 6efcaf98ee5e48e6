#include "OrlinthCore/Share/ShareStaging.h"

#include "base/Text.h"
#include "platform/Crypto.h"
#include "platform/SystemError.h"
#include "platform/WholeFile.h"

#include <system_error>
#include <utility>

namespace orlinth {

using platform::FileSystem;
using platform::LogLevel;
using platform::OpenMode;
using platform::Path;
using platform::SystemError;

namespace {

constexpr const char* logCategory = "share";
constexpr std::uint32_t ownersFolder = 0700;
constexpr std::uint32_t ownersFile = 0600;

/// The longest name that the usual file systems take, in bytes.
constexpr std::size_t longestName = 255;

/// The first so many bytes of a text, or a few less where that would cut through a character.
std::string firstBytes(const std::string& text, std::size_t count) {
    if (text.size() <= count) {
        return text;
    }
    const auto isInside = [&text](std::size_t at) { return (static_cast<unsigned char>(text[at]) & 0xC0U) == 0x80U; };
    std::size_t end = count;
    while (end > 0 && isInside(end)) {
        --end;
    }
    return text.substr(0, end);
}

/// "name.ext", "name 2.ext", "name 3.ext", ..., of which the manifest's own is left out. Where that is too long for a
/// file system, the name before the number is shortened.
class Candidates {
public:
    explicit Candidates(const std::string& preferredName) : whole_(preferredName), stem_(preferredName) {
        constexpr std::size_t longestEnding = 200; // with more there is no room for a name: it is no extension
        const std::string extension = pathExtension(preferredName);
        if (!extension.empty() && extension.size() <= longestEnding) {
            stem_ = withoutPathExtension(preferredName);
            ending_ = "." + extension;
        }
    }

    [[nodiscard]] std::string next() {
        std::string name = take();
        return name == ShareOutbox::manifestName ? take() : name;
    }

private:
    std::string take() {
        ++number_;
        if (number_ == 1 && whole_.size() <= longestName) {
            return whole_;
        }
        const std::string rest = (number_ == 1 ? "" : " " + std::to_string(number_)) + ending_;
        return firstBytes(stem_, longestName - rest.size()) + rest;
    }

    std::string whole_;
    std::string stem_;
    std::string ending_; ///< with its dot
    int number_ = 0;
};

/// For clearing up, where every step is tried and the failure that led there is the one that is told.
template <typename Step>
bool isDone(const Step& step) noexcept {
    try {
        step();
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

/// Copies a file whole and to the disk; false if the name is taken.
bool copyUnlessTaken(FileSystem& files, const Path& from, const Path& to) {
    try {
        files.copyToNew(from, to, ownersFile);
    } catch (const SystemError& error) {
        if (error.code() == std::errc::file_exists) {
            return false;
        }
        throw;
    }
    try {
        files.open(to, OpenMode::write, platform::Links::refuse)->flush();
    } catch (const std::exception&) {
        static_cast<void>(isDone([&] { files.remove(to); }));
        throw;
    }
    return true;
}

/// Makes a folder and takes its lock. In the moment between the two the host may take the folder for one that was left
/// behind, and clear it away: nothing then.
std::unique_ptr<platform::File> makeHeldFolder(FileSystem& files, const Path& folder) {
    files.createDirectories(folder, ownersFolder);
    try {
        std::unique_ptr<platform::File> hold = files.open(folder, OpenMode::read, platform::Links::refuse);
        hold->lock();
        const std::optional<platform::FileStatus> found = files.status(folder);
        const bool isSame = found && platform::isSameFile(*found, hold->status());
        return isSame ? std::move(hold) : nullptr;
    } catch (const SystemError& error) {
        if (error.code() == std::errc::no_such_file_or_directory) {
            return nullptr;
        }
        static_cast<void>(isDone([&] { files.removeDirectory(folder); }));
        throw;
    }
}

} // namespace

ShareError ShareError::nothingShareable() {
    return {Case::nothingShareable, "Nothing shareable — Orlinth sends files only"};
}

ShareError ShareError::containerUnavailable() {
    return {Case::containerUnavailable, "App Group container unavailable — check entitlement"};
}

ShareError ShareError::batchNotCreated(const std::string& text) {
    return {Case::batchNotCreated, "Could not create outbox batch: ", text};
}

ShareError ShareError::nothingRead() {
    return {Case::nothingRead, "Could not read the shared file(s)"};
}

ShareError ShareError::manifestNotWritten(const std::string& text) {
    return {Case::manifestNotWritten, "Could not write manifest: ", text};
}

ShareStaging::ShareStaging(System system, const ShareOutbox& outbox)
    : system_(system), id_(platform::randomUuidText()) {
    const std::optional<Path> root = outbox.outboxRoot();
    if (!root) {
        throw ShareError::containerUnavailable();
    }
    folder_ = *root / id_;
    constexpr int attempts = 10; // the host would have to come in between each time
    try {
        for (int attempt = 0; attempt < attempts && !hold_; ++attempt) {
            hold_ = makeHeldFolder(system_.files, folder_);
        }
    } catch (const SystemError& error) {
        throw ShareError::batchNotCreated(error.description());
    }
    if (!hold_) {
        throw ShareError::batchNotCreated("the folder disappears");
    }
}

ShareStaging::~ShareStaging() {
    if (!isFinished_) {
        discard();
    }
}

bool ShareStaging::add(const Path& file) noexcept {
    try {
        // Names are bytes on this computer, and text in the manifest.
        Candidates candidates(toUtf8(lastPathComponent(file.native())));
        std::string name = candidates.next();
        while (system_.files.exists(folder_ / name) || !copyUnlessTaken(system_.files, file, folder_ / name)) {
            name = candidates.next();
        }
        const MutexLock guard(lock_);
        names_.push_back(std::move(name));
        return true;
    } catch (const std::exception& error) {
        system_.log.write(LogLevel::error, logSubsystem, logCategory, "copy failed: " + describe(error));
        const MutexLock guard(lock_);
        lastProblem_ = describe(error);
        return false;
    }
}

std::vector<std::string> ShareStaging::copiedNames() const {
    const MutexLock guard(lock_);
    return names_;
}

std::string ShareStaging::lastProblem() const {
    const MutexLock guard(lock_);
    return lastProblem_;
}

ShareOutbox::Manifest ShareStaging::finish(std::optional<std::vector<PeerKey>> targetPubkeys) {
    std::vector<std::string> names = copiedNames();
    if (names.empty()) {
        discard();
        throw ShareError::nothingRead();
    }
    ShareOutbox::Manifest manifest{.id = id_,
                                   .createdAtMs = system_.clock.epochMilliseconds(),
                                   .files = std::move(names),
                                   .targetPubkeys = std::move(targetPubkeys)};
    try {
        system_.files.flushDirectory(folder_); // a manifest on the disk means that its files are there too
        platform::writeWholeFile(system_.files, folder_ / ShareOutbox::manifestName,
                                 asBytes(compactJson(manifest.toJson())), ownersFile, platform::Flush::content);
    } catch (const SystemError& error) {
        discard();
        throw ShareError::manifestNotWritten(error.description());
    }
    isFinished_ = true; // from here on it is the host's, which may be sending it already, or have sent it
    flushManifest();
    hold_.reset();
    ShareOutbox::postPending(system_.busSignals);
    system_.log.write(LogLevel::info, logSubsystem, logCategory,
                      "staged " + std::to_string(manifest.files.size()) + " file(s) in batch " + id_);
    return manifest;
}

/// A failure changes nothing: but for a power cut the batch is there.
void ShareStaging::flushManifest() {
    try {
        system_.files.flushDirectory(folder_);
    } catch (const SystemError& error) {
        if (error.code() != std::errc::no_such_file_or_directory) { // else it was sent and removed meanwhile
            system_.log.write(LogLevel::error, logSubsystem, logCategory,
                              "cannot flush the folder of batch " + id_ + ": " + error.description());
        }
    }
}

Path ShareStaging::uniqueDestination(const FileSystem& files, const Path& folder, const std::string& preferredName) {
    Candidates candidates(preferredName);
    Path candidate = folder / candidates.next();
    while (files.exists(candidate)) {
        candidate = folder / candidates.next();
    }
    return candidate;
}

void ShareStaging::discard() noexcept {
    if (!hold_) {
        return;
    }
    FileSystem& files = system_.files;
    // The manifest first, if it got that far: without it the rest is no batch, however far this gets.
    if (isDone([&] { files.remove(folder_ / ShareOutbox::manifestName); })) {
        static_cast<void>(isDone([&] { files.flushDirectory(folder_); }));
    }
    static_cast<void>(isDone([&] {
        for (const std::string& name : files.list(folder_)) {
            static_cast<void>(isDone([&] { files.remove(folder_ / name); }));
        }
    }));
    static_cast<void>(isDone([&] { files.removeDirectory(folder_); }));
    hold_.reset();
}

} // namespace orlinth
