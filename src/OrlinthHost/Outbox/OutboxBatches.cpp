#include "OrlinthHost/Outbox/OutboxBatches.h"

#include "base/Text.h"
#include "platform/SystemError.h"

#include <algorithm>

namespace orlinth::host {

namespace {

constexpr std::size_t uuidCharacters = 36;

/// Whether it says nothing about the file: the same call may work a moment later.
bool isPassing(const platform::SystemError& error) {
    return platform::isShortage(error.code()) || error.code() == std::errc::interrupted;
}

/// Runs a step of reading; what the system says about the file becomes a fault of the batch.
template <typename Step>
auto reading(const std::string& what, Step step) {
    try {
        return step();
    } catch (const platform::SystemError& error) {
        if (isPassing(error)) {
            throw;
        }
        throw OutboxError("cannot read " + what + ": " + error.description());
    }
}

/// Opens a regular file. Looked at first: merely to open a pipe would wait for somebody at its other end.
std::unique_ptr<platform::File> openRegular(platform::FileSystem& files, const platform::Path& path,
                                            const std::string& what) {
    return reading(what, [&] {
        const std::optional<platform::FileStatus> seen = files.status(path);
        if (!seen) {
            throw OutboxError(what + " is not there");
        }
        if (seen->kind != platform::FileKind::regular) {
            throw OutboxError(what + " is not a file");
        }
        std::unique_ptr<platform::File> file;
        try {
            file = files.open(path, platform::OpenMode::read, platform::Links::refuse);
        } catch (const platform::SystemError& error) {
            if (error.code() == std::errc::too_many_symbolic_link_levels) {
                throw OutboxError(what + " is a link");
            }
            throw;
        }
        if (file->status().kind != platform::FileKind::regular) {
            throw OutboxError(what + " is not a file");
        }
        return file;
    });
}

void checkName(const std::string& name) {
    const bool leaves = name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
                        name.find('\0') != std::string::npos;
    if (leaves) {
        throw OutboxError("its manifest names something that is not in the folder: '" + name + "'");
    }
    if (name == ShareOutbox::manifestName) {
        throw OutboxError("its manifest names itself as a file");
    }
}

void checkManifest(const ShareOutbox::Manifest& manifest, const BatchId& id) {
    if (manifest.id != id.text()) {
        throw OutboxError("its manifest is that of another batch: '" + manifest.id + "'");
    }
    if (manifest.createdAtMs < EpochMilliseconds()) {
        throw OutboxError("its manifest says that it is older than any computer");
    }
    if (manifest.files.empty()) {
        throw OutboxError("its manifest names no file");
    }
    std::set<std::string> seen;
    for (const std::string& name : manifest.files) {
        checkName(name);
        if (!seen.insert(name).second) {
            throw OutboxError("its manifest names a file twice: '" + name + "'");
        }
    }
    if (manifest.targetPubkeys && manifest.targetPubkeys->empty()) {
        throw OutboxError("its manifest chooses no phone");
    }
}

} // namespace

OutboxBatches::OutboxBatches(platform::FileSystem& files, platform::Clock& clock,
                             const platform::UserDirectories& directories)
    : files_(files),
      clock_(clock),
      outbox_(files, directories),
      root_(directories.data / ShareOutbox::appGroupID / "Outbox") {}

platform::Path OutboxBatches::makeFolder() {
    const std::optional<platform::Path> root = outbox_.outboxRoot();
    if (!root) {
        throw OutboxError("there is no outbox, and none can be made at " + root_.string() + ": " +
                          outbox_.containerProblem().value_or("it has come meanwhile"));
    }
    try {
        files_.createDirectories(*root, 0700);
    } catch (const platform::SystemError& error) {
        throw OutboxError("there is no outbox, and none can be made at " + root->string() + ": " + error.description());
    }
    return *root;
}

bool OutboxBatches::isId(const std::string& name) noexcept {
    if (name.size() != uuidCharacters) {
        return false;
    }
    for (std::size_t i = 0; i < name.size(); ++i) {
        const char c = name[i];
        const bool isDash = i == 8 || i == 13 || i == 18 || i == 23;
        const bool isDigit = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
        if (isDash ? c != '-' : !isDigit) {
            return false;
        }
    }
    return true;
}

/// What does not tell is thrown: somebody's files may depend on it.
bool OutboxBatches::isRealFolder(const platform::Path& path) const {
    try {
        const std::optional<platform::FileStatus> seen = files_.status(path);
        return seen && seen->kind == platform::FileKind::directory &&
               files_.open(path, platform::OpenMode::read, platform::Links::refuse)->status().kind ==
                   platform::FileKind::directory;
    } catch (const platform::SystemError& error) {
        const bool isNone = error.code() == std::errc::no_such_file_or_directory ||
                            error.code() == std::errc::not_a_directory ||
                            error.code() == std::errc::too_many_symbolic_link_levels; // a link, or gone meanwhile
        if (!isNone) {
            throw;
        }
        return false;
    }
}

bool OutboxBatches::isGoneFrom(const platform::Path& parent, const BatchId& id) const noexcept {
    try {
        return !isRealFolder(parent / id.text());
    } catch (const std::exception&) {
        return false;
    }
}

std::vector<BatchId> OutboxBatches::idsIn(const platform::Path& folder) const {
    std::vector<BatchId> ids;
    if (!files_.status(folder)) {
        return ids;
    }
    for (std::string& name : files_.list(folder)) {
        try {
            if (isId(name) && isRealFolder(folder / name)) {
                ids.emplace_back(std::move(name));
            }
        } catch (const platform::SystemError& error) {
            if (error.code() != std::errc::permission_denied) {
                throw; // else it concerns this one alone
            }
        }
    }
    std::ranges::sort(ids);
    return ids;
}

std::vector<BatchId> OutboxBatches::ids() const {
    return idsIn(root_);
}

std::vector<BatchId> OutboxBatches::setAsideIds() const {
    return idsIn(setAsideFolder());
}

bool OutboxBatches::isComplete(const BatchId& id) const noexcept {
    return files_.exists(root_ / id.text() / ShareOutbox::manifestName);
}

OutboxBatches::Batch OutboxBatches::read(const BatchId& id) const {
    return readIn(root_, id);
}

OutboxBatches::Batch OutboxBatches::readSetAside(const BatchId& id) const {
    return readIn(setAsideFolder(), id);
}

OutboxBatches::Batch OutboxBatches::readIn(const platform::Path& parent, const BatchId& id) const {
    const platform::Path folder = parent / id.text();
    const std::string what = "its manifest";
    const std::unique_ptr<platform::File> file = openRegular(files_, folder / ShareOutbox::manifestName, what);
    Bytes content(maxManifestBytes + 1);
    const std::size_t count = reading(what, [&] { return file->read(content); });
    if (count > maxManifestBytes) {
        throw OutboxError("its manifest is larger than " + std::to_string(maxManifestBytes) + " bytes");
    }
    Batch batch{.manifest = {}, .folder = folder};
    try {
        batch.manifest = ShareOutbox::Manifest::fromJson(parseJson(ByteView(content).first(count)));
    } catch (const JsonError& error) {
        throw OutboxError("its manifest makes no sense: " + error.description());
    }
    checkManifest(batch.manifest, id);
    return batch;
}

void OutboxBatches::checkFile(const Batch& batch, const std::string& name) const {
    static_cast<void>(openRegular(files_, batch.folder / name, "'" + name + "'"));
}

void OutboxBatches::removeFolder(const platform::Path& folder) {
    if (!isRealFolder(folder)) {
        throw platform::SystemError(std::make_error_code(std::errc::not_a_directory));
    }
    bool hasManifest = false;
    for (const std::string& name : files_.list(folder)) {
        if (name == ShareOutbox::manifestName) {
            hasManifest = true;
        } else {
            files_.remove(folder / name);
        }
    }
    if (hasManifest) { // last: until then it is a batch, whose removal can be begun again
        files_.remove(folder / ShareOutbox::manifestName);
    }
    files_.removeDirectory(folder);
}

void OutboxBatches::remove(const BatchId& id) {
    removeFolder(root_ / id.text());
}

void OutboxBatches::removeSetAside(const BatchId& id) {
    removeFolder(setAsideFolder() / id.text());
}

platform::Path OutboxBatches::setAside(const BatchId& id) {
    constexpr int attempts = 100;
    files_.createDirectories(setAsideFolder(), 0700);
    platform::Path to = setAsideFolder() / id.text();
    for (int number = 2; !files_.renameNoReplace(root_ / id.text(), to); ++number) {
        if (number > attempts) {
            throw platform::SystemError(std::make_error_code(std::errc::file_exists));
        }
        to = setAsideFolder() / (id.text() + " " + std::to_string(number));
    }
    return to;
}

void OutboxBatches::bringBack(const BatchId& id) {
    static_cast<void>(makeFolder());
    if (!files_.renameNoReplace(setAsideFolder() / id.text(), root_ / id.text())) {
        throw OutboxError("there is a batch of this name in the outbox");
    }
}

bool OutboxBatches::isAbandoned(const platform::Path& folder) const {
    const std::optional<platform::FileStatus> seen = files_.status(folder);
    return seen && clock_.epochMilliseconds() - inMilliseconds(seen->modifiedAt) >= abandonedAfter;
}

bool OutboxBatches::clearIfAbandoned(const platform::Path& folder) {
    if (!isAbandoned(folder)) {
        return false;
    }
    const std::unique_ptr<platform::File> hold = files_.open(folder, platform::OpenMode::read, platform::Links::refuse);
    if (!hold->tryLock()) {
        return false; // somebody fills it
    }
    const std::vector<std::string> names = files_.list(folder); // a look for the manifest might just fail
    if (std::find(names.begin(), names.end(), ShareOutbox::manifestName) != names.end()) {
        return false; // it was done just now
    }
    try {
        removeFolder(folder);
        return true;
    } catch (const platform::SystemError&) {
        return false; // somebody else's doing; it is in nobody's way
    }
}

std::size_t OutboxBatches::clearAbandoned(const std::set<BatchId>& known) noexcept {
    std::size_t cleared = 0;
    try {
        for (const BatchId& id : ids()) {
            if (!known.contains(id) && !isComplete(id) && clearIfAbandoned(root_ / id.text())) {
                ++cleared;
            }
        }
    } catch (const std::exception&) {
        return cleared; // it is tried again
    }
    return cleared;
}

} // namespace orlinth::host
