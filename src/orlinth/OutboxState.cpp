#include "orlinth/OutboxState.h"

#include "OrlinthCore/Sending/InFlightJournal.h"
#include "base/Hex.h"
#include "base/Text.h"
#include "orlinth/OutboxBatches.h"
#include "platform/Crypto.h"
#include "platform/WholeFile.h"

#include <algorithm>

namespace orlinth::host {

namespace {

constexpr std::size_t shortKeyCharacters = 12;
constexpr std::uint32_t ownerOnly = 0600;
constexpr std::uint32_t ownerOnlyFolder = 0700;

Json toJson(const OutboxState::Phone& phone) {
    Json json{{"pubkey", phone.pubkey},
              {"hostname", phone.hostname},
              {"done", phone.done},
              {"begun", phone.begun},
              {"failed", phone.failed}};
    if (!phone.waiting.empty()) {
        json["waiting"] = phone.waiting;
    }
    return json;
}

std::string textOf(const Json& value) {
    if (!value.is_string()) {
        throw JsonError("expected a string");
    }
    return value.get<std::string>();
}

std::map<std::string, std::string> textsIn(const Json& object, const char* key) {
    std::map<std::string, std::string> texts;
    const auto member = object.find(key);
    if (member == object.end() || !member->is_object()) {
        throw JsonError(std::string("expected an object \"") + key + "\"");
    }
    for (const auto& [name, value] : member->items()) {
        texts[name] = textOf(value);
    }
    return texts;
}

const Json& arrayIn(const Json& object, const char* key) {
    const auto member = object.is_object() ? object.find(key) : object.end();
    if (member == object.end() || !member->is_array()) {
        throw JsonError(std::string("expected an array \"") + key + "\"");
    }
    return *member;
}

OutboxState::Phone phoneFrom(const Json& json) {
    OutboxState::Phone phone{.pubkey = requireString(json, "pubkey"),
                             .hostname = requireString(json, "hostname"),
                             .done = {},
                             .begun = textsIn(json, "begun"),
                             .failed = textsIn(json, "failed"),
                             .waiting = optionalString(json, "waiting").value_or("")};
    for (const Json& name : arrayIn(json, "done")) {
        phone.done.insert(textOf(name));
    }
    return phone;
}

const PeerRecord* findRecord(const PeerBook& book, const std::string& pubkey) {
    const auto at = std::find_if(book.peers.begin(), book.peers.end(),
                                 [&pubkey](const PeerRecord& record) { return record.peer_pubkey == pubkey; });
    return at == book.peers.end() ? nullptr : &*at;
}

/// The phone that was the one when there was nothing to choose; null if none is paired.
const PeerRecord* phoneWithoutChoice(const PeerBook& book, std::int64_t createdAtMs,
                                     const std::function<bool()>& wasOneRemoved) {
    const PeerRecord* best = nullptr;
    for (const PeerRecord& record : book.peers) {
        const bool isEarlier = record.paired_at_epoch_ms <= createdAtMs;
        if (isEarlier && (best == nullptr || record.paired_at_epoch_ms > best->paired_at_epoch_ms)) {
            best = &record;
        }
    }
    if (best != nullptr || book.peers.empty()) {
        return best;
    }
    if (book.peers.size() > 1 || wasOneRemoved()) {
        throw OutboxError("the only phone that was paired when it was shared is not paired any more");
    }
    return &book.peers.front();
}

} // namespace

OutboxState::Phone freshPhone(const std::string& pubkey, const PeerRecord* record) {
    return {.pubkey = pubkey,
            .hostname = record != nullptr ? record->peer_hostname : "",
            .done = {},
            .begun = {},
            .failed = {},
            .waiting = {}};
}

void OutboxState::Phone::setFailed(const std::string& file, const std::string& reason) {
    failed[file] = reason;
    begun.erase(file);
}

bool OutboxState::Phone::isOpen(const std::string& file) const {
    return !done.contains(file) && !failed.contains(file);
}

std::string OutboxState::Phone::displayName() const {
    return hostname.empty() ? "the phone with the key " + firstCharacters(pubkey, shortKeyCharacters) : hostname;
}

std::optional<OutboxState> OutboxState::load(platform::FileSystem& files, const platform::Path& folder) {
    try {
        const Json json = parseJson(platform::readWholeFile(files, folder / fileName));
        OutboxState state(files, folder);
        for (const Json& phone : arrayIn(json, "phones")) {
            state.phones.push_back(phoneFrom(phone));
        }
        if (state.phones.empty()) {
            return std::nullopt;
        }
        return state;
    } catch (const Error&) {
        return std::nullopt; // the files are sent again: better twice than not at all
    }
}

Json OutboxState::toJson() const {
    Json list = Json::array();
    for (const Phone& phone : phones) {
        list.push_back(host::toJson(phone));
    }
    return {{"phones", std::move(list)}};
}

void OutboxState::save() {
    files_->createDirectories(folder_, ownerOnlyFolder);
    platform::writeWholeFile(*files_, folder_ / fileName, asBytes(prettyJson(toJson())), ownerOnly);
}

void OutboxState::learnFromJournals() {
    for (Phone& phone : phones) {
        if (phone.begun.empty()) {
            continue;
        }
        try {
            const auto entries =
                InFlightJournal::decodeEntries(parseJson(platform::readWholeFile(*files_, journalFile(phone.pubkey))));
            for (const auto& [name, entry] : phone.begun) {
                if (!entries.contains(entry)) {
                    phone.done.insert(name);
                }
            }
            std::erase_if(phone.begun, [&phone](const auto& file) { return phone.done.contains(file.first); });
        } catch (const Error&) {
            continue;
        }
    }
}

void OutboxState::restoreEntry(const std::string& pubkey, const std::string& entry, const std::string& transferId) {
    const platform::Path file = journalFile(pubkey);
    std::map<std::string, std::string> entries = InFlightJournal(*files_, file).snapshotEntries();
    entries[entry] = transferId;
    platform::writeWholeFile(*files_, file, asBytes(prettyJson({{"entries", entries}})), ownerOnly);
}

platform::Path OutboxState::journalFile(const std::string& pubkey) const {
    constexpr std::size_t digestBytesShown = 8;
    const platform::Sha256Digest digest = platform::sha256({asBytes(pubkey)});
    return folder_ / ("inflight-" + hexEncode(ByteView(digest).first(digestBytesShown)) + ".json");
}

OutboxState::Phone* OutboxState::find(const std::string& pubkey) {
    const auto at =
        std::find_if(phones.begin(), phones.end(), [&pubkey](const Phone& phone) { return phone.pubkey == pubkey; });
    return at == phones.end() ? nullptr : &*at;
}

void OutboxState::forgetFailures() {
    for (Phone& phone : phones) {
        phone.failed.clear();
        phone.waiting.clear();
    }
}

void OutboxState::remove() {
    if (!files_->exists(folder_)) {
        return;
    }
    for (const std::string& name : files_->list(folder_)) {
        files_->remove(folder_ / name);
    }
    files_->removeDirectory(folder_);
}

std::vector<OutboxState::Phone> phonesFor(const ShareOutbox::Manifest& manifest, const PeerBook& book,
                                          const std::function<bool()>& wasOneRemoved) {
    std::vector<OutboxState::Phone> phones;
    if (!manifest.targetPubkeys) {
        if (const PeerRecord* record = phoneWithoutChoice(book, manifest.createdAtMs, wasOneRemoved)) {
            phones.push_back(freshPhone(record->peer_pubkey, record));
        }
        return phones;
    }
    std::set<std::string> seen;
    for (const std::string& pubkey : *manifest.targetPubkeys) {
        if (seen.insert(pubkey).second) {
            phones.push_back(freshPhone(pubkey, findRecord(book, pubkey)));
        }
    }
    return phones;
}

} // namespace orlinth::host
