#include "OrlinthCore/Peers/PeerRecord.h"

#include "OrlinthCore/Peers/PeerNames.h"
#include "base/Mutex.h"
#include "base/Text.h"
#include "platform/FileChangeCheck.h"
#include "platform/SystemError.h"
#include "platform/WholeFile.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace orlinth {

using platform::SystemError;

namespace {

/// The file holds push tokens: nobody else's business.
constexpr std::uint32_t ownerOnly = 0600;
constexpr std::uint32_t ownersFolder = 0700;

bool isMissing(const SystemError& error) {
    return error.code() == std::errc::no_such_file_or_directory || error.code() == std::errc::not_a_directory;
}

using Matches = std::vector<const PeerRecord*>;

template <typename TextOf>
Matches withPrefix(const std::vector<PeerRecord>& peers, TextOf textOf, const std::string& prefix) {
    Matches matches;
    for (const PeerRecord& peer : peers) {
        if (lowerCased(textOf(peer)).starts_with(prefix)) {
            matches.push_back(&peer);
        }
    }
    return matches;
}

std::string hostNames(const Matches& peers) {
    std::string names;
    for (const PeerRecord* peer : peers) {
        names += (names.empty() ? "" : ", ") + peer->peer_hostname;
    }
    return names;
}

} // namespace

PeerRecord PeerRecord::withFcmToken(std::string token) const {
    PeerRecord copy = *this;
    copy.peer_fcm_token = std::move(token);
    return copy;
}

PeerRecord PeerRecord::withHostname(std::string name) const {
    PeerRecord copy = *this;
    copy.peer_hostname = std::move(name);
    return copy;
}

Json PeerRecord::toJson() const {
    return {
        {"peer_pubkey", peer_pubkey},
        {"peer_ip", peer_ip},
        {"peer_port", peer_port},
        {"peer_subnet", peer_subnet},
        {"peer_hostname", peer_hostname},
        {"peer_mac", peer_mac},
        {"paired_at_epoch_ms", toNumber(paired_at_epoch_ms)},
        {"self_pubkey", self_pubkey},
        {"peer_fcm_token", peer_fcm_token},
        {"peer_android", peer_android},
    };
}

PeerRecord PeerRecord::fromJson(const Json& json) {
    PeerRecord record;
    record.peer_pubkey = PeerKey(requireString(json, "peer_pubkey"));
    record.peer_ip = requireString(json, "peer_ip");
    record.peer_port = requireInt64(json, "peer_port");
    record.peer_subnet = requireString(json, "peer_subnet");
    record.peer_hostname = requireString(json, "peer_hostname");
    record.peer_mac = requireString(json, "peer_mac");
    record.paired_at_epoch_ms = fromEpochMilliseconds(requireInt64(json, "paired_at_epoch_ms"));
    record.self_pubkey = PeerKey(optionalString(json, "self_pubkey").value_or(""));
    record.peer_fcm_token = optionalString(json, "peer_fcm_token").value_or("");
    record.peer_android = optionalString(json, "peer_android").value_or("");
    return record;
}

Json PeerBook::toJson() const {
    Json list = Json::array();
    for (const PeerRecord& peer : peers) {
        list.push_back(peer.toJson());
    }
    return {{"peers", std::move(list)}};
}

PeerBook PeerBook::fromJson(const Json& json) {
    PeerBook book;
    for (const Json& item : requireArray(json, "peers")) {
        book.peers.push_back(PeerRecord::fromJson(item));
    }
    return book;
}

const PeerRecord* PeerBook::find(const PeerKey& peerKey) const noexcept {
    const auto at = std::find_if(peers.begin(), peers.end(),
                                 [&peerKey](const PeerRecord& record) { return record.peer_pubkey == peerKey; });
    return at == peers.end() ? nullptr : &*at;
}

PeerStoreError PeerStoreError::directoryCreate(const std::string& text) {
    return {Case::directoryCreate, "could not create storage directory: ", text};
}

PeerStoreError PeerStoreError::write(const std::string& text) {
    return {Case::write, "PeerRecord write failed: ", text};
}

PeerStoreError PeerStoreError::read(const std::string& text) {
    return {Case::read, "PeerRecord read failed: ", text};
}

PeerStoreError PeerStoreError::decode(const std::string& text) {
    return {Case::decode, "PeerRecord decode failed: ", text};
}

PeerStore::PeerStore(platform::FileSystem& files, const platform::UserDirectories& directories,
                     const std::string& fileName)
    : PeerStore(files, directories.data / defaultDirectoryName, fileName) {}

PeerStore::PeerStore(platform::FileSystem& files, platform::Path directoryURL, const std::string& fileName)
    : files_(files), directoryPath_(std::move(directoryURL)), filePath_(directoryPath_ / fileName) {}

/// What was read last, of all copies of a store.
struct PeerStore::KeptBook {
    explicit KeptBook(const platform::Clock& clockOf) : clock(clockOf) {}

    const platform::Clock& clock;
    Mutex lock;
    platform::FileChangeCheck check ORLINTH_GUARDED_BY(lock);
    std::optional<PeerBook> book ORLINTH_GUARDED_BY(lock);
};

PeerStore PeerStore::keepingBook(platform::FileSystem& files, const platform::UserDirectories& directories,
                                 const platform::Clock& clock) {
    PeerStore store(files, directories);
    store.kept_ = std::make_shared<KeptBook>(clock);
    return store;
}

PeerBook PeerStore::loadBook() const {
    if (!kept_) {
        return readBook();
    }
    const MutexLock guard(kept_->lock);
    bool isKept = false;
    try {
        isKept = kept_->check.look(files_, kept_->clock, filePath_) == platform::FileChangeCheck::Answer::same;
    } catch (const SystemError&) {
        // reading it says the same
    }
    if (!isKept || !kept_->book) {
        kept_->book.reset();
        kept_->book = readBook();
    }
    return *kept_->book;
}

PeerBook PeerStore::readBook() const {
    Bytes content;
    try {
        content = platform::readWholeFile(files_, filePath_);
    } catch (const SystemError& error) {
        if (isMissing(error)) {
            return {};
        }
        throw PeerStoreError::read(error.description());
    }
    try {
        const Json json = parseJson(content);
        try {
            return PeerBook::fromJson(json);
        } catch (const JsonError& bookError) {
            try {
                return PeerBook{{PeerRecord::fromJson(json)}};
            } catch (const JsonError& recordError) {
                throw json.contains("peers") ? bookError : recordError;
            }
        }
    } catch (const JsonError& error) {
        throw PeerStoreError::decode(error.description());
    }
}

void PeerStore::writeBook(const PeerBook& book) {
    createDirectory();
    try {
        platform::writeWholeFile(files_, filePath_, asBytes(prettyJson(book.toJson())), ownerOnly, platform::Flush::now,
                                 platform::Links::follow);
    } catch (const SystemError& error) {
        throw PeerStoreError::write(error.description());
    }
}

void PeerStore::createDirectory() {
    try {
        files_.createDirectories(directoryPath_, ownersFolder);
    } catch (const SystemError& error) {
        throw PeerStoreError::directoryCreate(error.description());
    }
}

platform::FileLock PeerStore::lock() {
    createDirectory();
    try {
        return platform::FileLock(files_, filePath_);
    } catch (const SystemError& error) {
        throw PeerStoreError::write(error.description());
    }
}

void PeerStore::update(const std::function<bool(PeerBook&)>& change) {
    if (!files_.exists(directoryPath_)) {
        PeerBook nobody;
        if (!change(nobody)) {
            return;
        }
    }
    const platform::FileLock held = lock();
    PeerBook book = readBook();
    if (change(book)) {
        writeBook(book);
    }
}

std::optional<PeerRecord> PeerStore::load() const {
    return mostRecent();
}

void PeerStore::save(const PeerRecord& record) {
    upsert(record);
}

void PeerStore::upsert(const PeerRecord& record) {
    update([&record](PeerBook& book) {
        std::erase_if(book.peers, [&record](const PeerRecord& peer) { return peer.peer_pubkey == record.peer_pubkey; });
        book.peers.push_back(record);
        return true;
    });
}

std::vector<PeerRecord> PeerStore::takeOut(PeerBook& book, const PeerKey& peerKey, const IsSamePhone& isSamePhone) {
    std::vector<PeerRecord> taken;
    std::vector<PeerRecord> kept;
    for (PeerRecord& peer : book.peers) {
        if (peer.peer_pubkey != peerKey) {
            (isSamePhone(peer) ? taken : kept).push_back(std::move(peer));
        }
    }
    book.peers = std::move(kept);
    return taken;
}

std::vector<PeerRecord> PeerStore::upsertReplacingStale(const PeerRecord& record) {
    std::vector<PeerRecord> stale;
    update([&record, &stale](PeerBook& book) {
        stale = takeOut(book, record.peer_pubkey, [&record](const PeerRecord& earlier) {
            return earlier.peer_hostname == record.peer_hostname && earlier.peer_ip == record.peer_ip;
        });
        book.peers.push_back(record);
        return true;
    });
    return stale;
}

bool PeerStore::isEarlierIdentity(const PeerRecord& earlier, const PeerRecord& record) {
    if (earlier.peer_pubkey == record.peer_pubkey) {
        return false;
    }
    const bool isSameDevice = !record.peer_android.empty() && earlier.peer_android == record.peer_android;
    return isSameDevice ||
           (isFormOfName(earlier.peer_hostname, record.peer_hostname) && earlier.peer_ip == record.peer_ip);
}

PeerStore::Recorded PeerStore::upsertUnderFreeName(const PeerRecord& record, const IsSamePhone& isEarlier) {
    Recorded recorded;
    update([&](PeerBook& book) {
        const bool isNew = book.find(record.peer_pubkey) == nullptr;
        recorded.replaced = takeOut(book, record.peer_pubkey, [&](const PeerRecord& earlier) {
            return isEarlierIdentity(earlier, record) || (isEarlier && isEarlier(earlier));
        });
        recorded.namesakes.clear();
        std::ranges::copy_if(book.peers, std::back_inserter(recorded.namesakes),
                             [&record, isNew](const PeerRecord& other) {
                                 return isNew && (isFormOfName(other.peer_hostname, record.peer_hostname) ||
                                                  lookOf(other.peer_hostname) == lookOf(record.peer_hostname));
                             });
        recorded.record = record.withHostname(freeName(book, record.peer_pubkey, record.peer_hostname));
        book.peers.push_back(recorded.record);
        return true;
    });
    return recorded;
}

std::optional<PeerRecord> PeerStore::removeFirst(const std::function<bool(const PeerRecord&)>& predicate) {
    // A look without the lock first: where there is nothing to remove, a folder that cannot be written is no failure.
    if (std::ranges::none_of(loadBook().peers, predicate)) {
        return std::nullopt;
    }
    std::optional<PeerRecord> removed;
    update([&predicate, &removed](PeerBook& book) {
        removed.reset();
        const auto found = std::ranges::find_if(book.peers, predicate);
        if (found == book.peers.end()) {
            return false;
        }
        removed = std::move(*found);
        book.peers.erase(found);
        return true;
    });
    return removed;
}

std::optional<PeerRecord> PeerStore::mostRecent() const {
    const PeerBook book = loadBook();
    const auto latest = std::ranges::max_element(book.peers, {}, &PeerRecord::paired_at_epoch_ms);
    return latest == book.peers.end() ? std::nullopt : std::optional(*latest);
}

std::optional<PeerRecord> PeerStore::resolve(const std::string& selector) const {
    const std::string query = lowerCased(selector);
    const PeerBook book = loadBook();
    const auto exact = std::ranges::find_if(
        book.peers, [&query](const PeerRecord& peer) { return lowerCased(peer.peer_hostname) == query; });
    if (exact != book.peers.end()) {
        return *exact;
    }
    const auto nameOf = [](const PeerRecord& peer) { return peer.peer_hostname; };
    const Matches byName = withPrefix(book.peers, nameOf, query);
    if (byName.size() > 1) {
        throw PeerStoreError::decode("selector '" + selector + "' is ambiguous (matches: " + hostNames(byName) + ")");
    }
    if (byName.size() == 1) {
        return *byName.front();
    }
    const auto keyTextOf = [](const PeerRecord& peer) { return peer.peer_pubkey.text(); };
    const Matches byKey = withPrefix(book.peers, keyTextOf, query);
    if (byKey.size() > 1) {
        throw PeerStoreError::decode("selector '" + selector + "' is ambiguous on pubkey prefix");
    }
    return byKey.empty() ? std::nullopt : std::optional(*byKey.front());
}

void PeerStore::wipe() {
    if (!files_.exists(filePath_)) {
        return;
    }
    const platform::FileLock held = lock();
    try {
        files_.remove(filePath_);
        files_.flushDirectory(directoryPath_);
    } catch (const SystemError& error) {
        if (!isMissing(error)) {
            throw PeerStoreError::write(error.description());
        }
    }
}

} // namespace orlinth
