#include "OrlinthCore/Sending/InFlightJournal.h"

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

} // namespace

std::string InFlightKey::text() const {
    std::string key = name + "|" + std::to_string(size) + "|" + mime;
    if (!fingerprint.empty()) {
        key += "|" + fingerprint;
    }
    // JSON holds no other text than UTF-8. The bytes behind it keep names apart that differ only in what is not.
    return isUtf8(key) ? key : toUtf8(key) + "|" + hexEncode(asBytes(name));
}

std::string FileFingerprint::compute(platform::FileSystem& files, const platform::Path& url) {
    const std::unique_ptr<platform::File> file = files.open(url, platform::OpenMode::read);
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
    : files_(files), fileURL_(std::move(fileURL)) {}

std::string InFlightJournal::getOrCreate(const std::string& name, std::int64_t size, const std::string& mime,
                                         const std::string& fingerprint) {
    const std::lock_guard guard(lock_);
    const std::string key = InFlightKey{name, size, mime, fingerprint}.text();
    if (batch_ != nullptr) {
        if (const auto reserved = batch_->reserved_.find(key); reserved != batch_->reserved_.end()) {
            reserved->second.isBegun = true;
            return reserved->second.id;
        }
    }
    const bool isSpent = batch_ != nullptr && batch_->finished_.erase(key) > 0; // and only not yet written so
    const Entries known = load();
    if (const auto found = known.find(key); found != known.end() && !isSpent) {
        return found->second;
    }
    try {
        files_.createDirectories(fileURL_.parent_path());
    } catch (const std::exception&) {
        return platform::randomUuidText();
    }
    const std::optional<platform::FileLock> held = tryToLock(files_, fileURL_);
    Entries entries = load(); // another process may have been here since
    if (isSpent) {
        entries.erase(key);
    }
    const auto [entry, isNew] = entries.try_emplace(key);
    if (isNew) {
        entry->second = platform::randomUuidText();
        write(entries);
    }
    return entry->second;
}

void InFlightJournal::complete(const std::string& name, std::int64_t size, const std::string& mime,
                               const std::string& fingerprint) {
    const std::lock_guard guard(lock_);
    const std::string key = InFlightKey{name, size, mime, fingerprint}.text();
    if (batch_ != nullptr) {
        if (const auto reserved = batch_->reserved_.find(key); reserved != batch_->reserved_.end()) {
            if (--reserved->second.uses <= 0) {
                batch_->finished_.insert(key);
                batch_->reserved_.erase(reserved);
            }
            return;
        }
    }
    if (!load().contains(key)) {
        return;
    }
    const std::optional<platform::FileLock> held = tryToLock(files_, fileURL_);
    Entries entries = load();
    if (entries.erase(key) > 0) {
        write(entries);
    }
}

std::map<std::string, std::string> InFlightJournal::snapshotEntries() const {
    const std::lock_guard guard(lock_);
    return load();
}

void InFlightJournal::wipe() {
    const std::lock_guard guard(lock_);
    if (!files_.exists(fileURL_)) {
        return;
    }
    const std::optional<platform::FileLock> held = tryToLock(files_, fileURL_);
    try {
        files_.remove(fileURL_);
    } catch (const std::exception&) {
        // It stays then: a journal that is too long does no harm.
    }
}

InFlightJournal::Batch::Batch(InFlightJournal& journal) : journal_(journal) {
    const std::lock_guard guard(journal_.lock_);
    journal_.batch_ = this;
}

InFlightJournal::Batch::~Batch() {
    const std::lock_guard guard(journal_.lock_);
    journal_.batch_ = nullptr;
    for (const auto& [key, entry] : reserved_) {
        if (entry.isNew && !entry.isBegun) {
            finished_.insert(key);
        }
    }
    if (finished_.empty()) {
        return;
    }
    const std::optional<platform::FileLock> held = tryToLock(journal_.files_, journal_.fileURL_);
    Entries entries = journal_.load();
    std::size_t erased = 0;
    for (const std::string& key : finished_) {
        erased += entries.erase(key);
    }
    if (erased > 0) {
        journal_.write(entries);
    }
}

std::vector<std::string> InFlightJournal::Batch::reserve(const std::vector<Wanted>& files, int uses) {
    const std::lock_guard guard(journal_.lock_);
    try {
        journal_.files_.createDirectories(journal_.fileURL_.parent_path());
    } catch (const std::exception&) {
        // The write will fail as well; the ids hold for this batch.
    }
    const std::optional<platform::FileLock> held = tryToLock(journal_.files_, journal_.fileURL_);
    Entries entries = journal_.load();
    const Entries before = entries;
    for (const std::string& key : finished_) {
        entries.erase(key);
    }
    finished_.clear();
    std::vector<std::string> ids;
    for (const Wanted& file : files) {
        const std::string key = file.key.text();
        if (file.isFresh) {
            entries.erase(key);
        }
        const auto [entry, isNew] = entries.try_emplace(key);
        if (isNew) {
            entry->second = platform::randomUuidText();
        }
        reserved_[key] = {.id = entry->second, .uses = uses, .isNew = isNew, .isBegun = false};
        ids.push_back(entry->second);
    }
    if (entries != before) {
        journal_.write(entries);
    }
    return ids;
}

void InFlightJournal::Batch::restore(const InFlightKey& file, const std::string& id) {
    const std::lock_guard guard(journal_.lock_);
    const std::string key = file.text();
    finished_.erase(key);
    reserved_[key] = {.id = id, .uses = 1, .isNew = false, .isBegun = true};
    const std::optional<platform::FileLock> held = tryToLock(journal_.files_, journal_.fileURL_);
    Entries entries = journal_.load();
    if (std::exchange(entries[key], id) != id) {
        journal_.write(entries);
    }
}

InFlightJournal::Entries InFlightJournal::load() const {
    try {
        const Json snapshot = parseJson(platform::readWholeFile(files_, fileURL_));
        return decodeEntries(snapshot);
    } catch (const std::exception&) {
        return {}; // missing, unreadable or no journal: empty
    }
}

void InFlightJournal::write(const Entries& entries) {
    const Json snapshot = {{"entries", entries}};
    try {
        platform::writeWholeFile(files_, fileURL_, asBytes(prettyJson(snapshot)), ownerOnly);
    } catch (const std::exception&) {
        // The file is as it was: the next attempt to send begins anew instead of resuming.
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
