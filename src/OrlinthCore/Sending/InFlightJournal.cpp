#include "OrlinthCore/Sending/InFlightJournal.h"

#include "OrlinthCore/Sending/OutgoingFile.h"
#include "base/Hex.h"
#include "base/Json.h"
#include "base/Text.h"
#include "platform/Crypto.h"
#include "platform/WholeFile.h"

#include <algorithm>
#include <array>
#include <utility>

namespace orlinth {
namespace {

constexpr const char* directoryName = "Orlinth";

/// The names of what somebody sends are nobody else's business.
constexpr std::uint32_t ownerOnly = 0600;

/// The lock that keeps processes apart, if it can be had: without it the journal works on.
std::optional<platform::FileLock> tryToLock(platform::FileSystem& files, const platform::Path& path) {
    try {
        return platform::FileLock(files, path);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

TransferId newTransferId() {
    return TransferId(platform::randomUuidText());
}

} // namespace

std::string InFlightKey::text() const {
    std::string key = name + "|" + std::to_string(size) + "|" + mime;
    if (!fingerprint.empty()) {
        key += "|" + fingerprint;
    }
    // JSON holds no other text than UTF-8. The bytes behind it keep names apart that differ only in what is not.
    return isUtf8(key) ? key : toUtf8(key) + "|" + hexEncode(asBytes(name));
}

InFlightKey keyOf(const OutgoingFile& file) {
    return {.name = file.name, .size = file.size, .mime = file.mime, .fingerprint = file.fingerprint};
}

std::string FileFingerprint::compute(platform::FileSystem& files, const platform::Path& path) {
    const std::unique_ptr<platform::File> file = files.open(path, platform::OpenMode::read);
    platform::Sha256 hash;
    Bytes front(static_cast<std::size_t>(bytes));
    std::size_t filled = 0;
    while (filled < front.size()) {
        const std::size_t count = file->read(MutableBytes(front).subspan(filled));
        if (count == 0) {
            break;
        }
        filled += count;
    }
    hash.update(ByteView(front).first(filled));
    constexpr std::size_t digestBytesShown = 8;
    const platform::Sha256Digest digest = hash.finish();
    return hexEncode(ByteView(digest).first(digestBytesShown));
}

InFlightJournal::InFlightJournal(platform::FileSystem& files, const platform::UserDirectories& directories)
    : InFlightJournal(files, directories.data / directoryName / defaultFileName) {}

InFlightJournal::InFlightJournal(platform::FileSystem& files, platform::Path fileURL)
    : files_(files), filePath_(std::move(fileURL)) {}

std::string InFlightJournal::getOrCreate(const std::string& name, std::int64_t size, const std::string& mime,
                                         const std::string& fingerprint) {
    const MutexLock guard(lock_);
    const std::string key = InFlightKey{name, size, mime, fingerprint}.text();
    const Entries known = load();
    if (const auto found = known.find(key); found != known.end()) {
        return found->second;
    }
    try {
        files_.createDirectories(filePath_.parent_path());
    } catch (const std::exception&) {
        return platform::randomUuidText();
    }
    const std::optional<platform::FileLock> held = tryToLock(files_, filePath_);
    Entries entries = load(); // another process may have been here since
    const auto [entry, isNew] = entries.try_emplace(key);
    if (isNew) {
        entry->second = platform::randomUuidText();
        write(entries);
    }
    return entry->second;
}

void InFlightJournal::complete(const std::string& name, std::int64_t size, const std::string& mime,
                               const std::string& fingerprint) {
    const MutexLock guard(lock_);
    const std::string key = InFlightKey{name, size, mime, fingerprint}.text();
    if (!load().contains(key)) {
        return;
    }
    const std::optional<platform::FileLock> held = tryToLock(files_, filePath_);
    Entries entries = load();
    if (entries.erase(key) > 0) {
        write(entries);
    }
}

std::map<std::string, std::string> InFlightJournal::snapshotEntries() const {
    const MutexLock guard(lock_);
    return load();
}

void InFlightJournal::wipe() {
    const MutexLock guard(lock_);
    if (!files_.exists(filePath_)) {
        return;
    }
    const std::optional<platform::FileLock> held = tryToLock(files_, filePath_);
    try {
        files_.remove(filePath_);
    } catch (const std::exception&) {
        // It stays then: a journal that is too long does no harm.
    }
}

InFlightJournal::Batch::~Batch() {
    flush();
}

/// Before the content is read: what is written in between is seen as a change then, and read once more.
InFlightJournal::Batch::Look InFlightJournal::Batch::look() const {
    try {
        return journal_.files_.status(journal_.filePath_);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

void InFlightJournal::Batch::makeFolder() noexcept {
    try {
        journal_.files_.createDirectories(journal_.filePath_.parent_path());
    } catch (const std::exception&) {
        return; // the write will fail as well; the ids hold for this batch
    }
}

/// But for those that somebody else has given a new id since.
void InFlightJournal::Batch::eraseFinished(Entries& entries) {
    for (const auto& [key, id] : finished_) {
        if (const auto entry = entries.find(key); entry != entries.end() && entry->second == id.text()) {
            entries.erase(entry);
        }
    }
    finished_.clear();
}

std::vector<TransferId> InFlightJournal::Batch::reserve(const std::vector<Wanted>& files) {
    const MutexLock guard(journal_.lock_);
    makeFolder();
    const std::optional<platform::FileLock> held = tryToLock(journal_.files_, journal_.filePath_);
    Entries entries = journal_.load();
    adopt(entries);
    const Entries before = entries;
    eraseFinished(entries);
    std::vector<TransferId> ids;
    for (const Wanted& file : files) {
        const std::string key = file.key.text();
        const auto known = before.find(key);
        if (file.isFresh) {
            entries.erase(key);
        }
        const auto [entry, isNew] = entries.try_emplace(key);
        if (isNew) {
            entry->second = platform::randomUuidText();
        }
        reserved_[key] = {.id = TransferId(entry->second),
                          .superseded = TransferId(isNew && known != before.end() ? known->second : ""),
                          .uses = file.uses,
                          .isWritten = false};
        ids.emplace_back(entry->second);
    }
    const bool isWritten = entries == before || journal_.write(entries);
    for (const Wanted& file : files) {
        reserved_[file.key.text()].isWritten = isWritten;
    }
    known_ = held ? look() : std::nullopt; // without the lock somebody may have written in between
    return ids;
}

void InFlightJournal::Batch::update() {
    const Look now = look();
    if (!now || now != known_) {
        adopt(journal_.load());
        known_ = now;
    }
}

/// Takes over what another process has written about our files. Only what the journal file does not hold although it
/// once did is gone: an id that the disk has not taken is still ours.
void InFlightJournal::Batch::adopt(const Entries& entries) {
    for (auto& [key, reserved] : reserved_) {
        const auto entry = entries.find(key);
        if (entry != entries.end() && entry->second != reserved.superseded.text()) {
            reserved.id = TransferId(entry->second);
            reserved.isWritten = true;
        } else if (entry == entries.end() && reserved.isWritten) {
            reserved = {.id = newTransferId(), .superseded = {}, .uses = reserved.uses, .isWritten = false};
        }
    }
}

TransferId InFlightJournal::Batch::idOf(const InFlightKey& file) {
    const MutexLock guard(journal_.lock_);
    update();
    const auto at = reserved_.try_emplace(file.text(), Reserved{.id = newTransferId(), .uses = 1}).first;
    Reserved& reserved = at->second;
    if (!reserved.isWritten) {
        makeFolder();
        const std::optional<platform::FileLock> held = tryToLock(journal_.files_, journal_.filePath_);
        Entries entries = journal_.load();
        const auto [entry, isNew] = entries.try_emplace(file.text(), reserved.id.text());
        if (!isNew && entry->second == reserved.superseded.text()) {
            entry->second = reserved.id.text();
        }
        reserved.id = TransferId(entry->second);
        reserved.isWritten = journal_.write(entries);
        known_ = held ? look() : std::nullopt;
    }
    return reserved.id;
}

void InFlightJournal::Batch::complete(const InFlightKey& file, const TransferId& id) {
    const MutexLock guard(journal_.lock_);
    const auto reserved = reserved_.find(file.text());
    if (reserved == reserved_.end() || reserved->second.id != id) {
        finished_.insert_or_assign(file.text(), id); // it has another one by now, which is not to go
    } else if (--reserved->second.uses <= 0) {
        finished_.insert_or_assign(reserved->first, id);
        reserved_.erase(reserved);
    }
}

void InFlightJournal::Batch::keep(const InFlightKey& file, const TransferId& id) {
    const MutexLock guard(journal_.lock_);
    const std::optional<platform::FileLock> held = tryToLock(journal_.files_, journal_.filePath_);
    Entries entries = journal_.load();
    if (entries.try_emplace(file.text(), id.text()).second) {
        journal_.write(entries);
        known_.reset();
    }
}

void InFlightJournal::Batch::flush() {
    const MutexLock guard(journal_.lock_);
    if (finished_.empty()) {
        return;
    }
    const std::optional<platform::FileLock> held = tryToLock(journal_.files_, journal_.filePath_);
    Entries entries = journal_.load();
    const std::size_t before = entries.size();
    eraseFinished(entries);
    if (entries.size() != before) {
        journal_.write(entries);
    }
}

InFlightJournal::Entries InFlightJournal::load() const {
    try {
        const Json snapshot = parseJson(platform::readWholeFile(files_, filePath_));
        return Snapshot::fromJson(snapshot).entries;
    } catch (const std::exception&) {
        return {}; // missing, unreadable or no journal: empty
    }
}

bool InFlightJournal::write(const Entries& entries) {
    const Json snapshot = Snapshot{entries}.toJson();
    try {
        platform::writeWholeFile(files_, filePath_, asBytes(prettyJson(snapshot)), ownerOnly, platform::Flush::now,
                                 platform::Links::follow);
        return true;
    } catch (const std::exception&) {
        return false; // the file is as it was: the next attempt to send begins anew instead of resuming
    }
}

std::map<std::string, std::string> InFlightJournal::decodeEntries(const Json& snapshot) {
    if (!snapshot.is_object() || !snapshot.contains("entries") || !snapshot["entries"].is_object()) {
        throw JsonError("not a journal: no object \"entries\"");
    }
    const Json& members = snapshot["entries"];
    Entries entries;
    for (const auto& [key, value] : members.items()) {
        if (!value.is_string()) {
            throw JsonError(std::string("not a journal: expected a string, found ") + value.type_name());
        }
        entries[key] = value.get<std::string>();
    }
    return entries;
}

} // namespace orlinth
