#include "OrlinthHost/Outbox/OutboxState.h"

#include "OrlinthHost/Outbox/OutboxBatches.h"
#include "base/Hex.h"
#include "base/Json.h"
#include "base/Text.h"
#include "platform/Crypto.h"
#include "platform/WholeFile.h"

#include <algorithm>
#include <utility>

namespace orlinth::host {

namespace {

constexpr std::size_t shortKeyCharacters = 12;
constexpr std::uint32_t ownerOnly = 0600;
constexpr std::uint32_t ownerOnlyFolder = 0700;

Json toJson(const OutboxState::Phone& phone) {
    Json json{
        {"pubkey", phone.peerKey.text()}, {"hostname", phone.hostname}, {"done", phone.done}, {"failed", phone.failed}};
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

OutboxState::Phone phoneFrom(const Json& json) {
    OutboxState::Phone phone{.peerKey = PeerKey(requireString(json, "pubkey")),
                             .hostname = requireString(json, "hostname"),
                             .done = {},
                             .failed = textsIn(json, "failed"),
                             .waiting = optionalString(json, "waiting").value_or("")};
    for (std::string& name : requireStrings(json, "done")) {
        phone.done.insert(std::move(name));
    }
    return phone;
}

void applyChange(const Json& change, std::vector<OutboxState::Phone>& phones) {
    const PeerKey peerKey(requireString(change, "pubkey"));
    const std::string file = requireString(change, "file");
    const auto phone = std::find_if(phones.begin(), phones.end(),
                                    [&peerKey](const OutboxState::Phone& one) { return one.peerKey == peerKey; });
    if (phone == phones.end()) {
        throw JsonError("a change for a phone that the batch is not for");
    }
    if (const std::optional<std::string> reason = optionalString(change, "failed")) {
        phone->failed[file] = *reason;
    } else if (change.contains("done")) {
        phone->setDone(file);
    } else {
        throw JsonError("expected \"done\" or \"failed\"");
    }
}

/// Without their ends. What is behind the last end was not written to its own.
std::vector<ByteView> linesOf(ByteView content) {
    std::vector<ByteView> lines;
    for (;;) {
        const auto end = std::find(content.begin(), content.end(), std::byte{'\n'});
        if (end == content.end()) {
            return lines;
        }
        const auto length = static_cast<std::size_t>(end - content.begin());
        lines.push_back(content.first(length));
        content = content.subspan(length + 1);
    }
}

/// Of a file that is done or failed.
Json changeOf(const OutboxState::Phone& phone, const std::string& file) {
    Json json{{"pubkey", phone.peerKey.text()}, {"file", file}};
    if (const auto failure = phone.failed.find(file); failure != phone.failed.end()) {
        json["failed"] = failure->second;
    } else {
        json["done"] = true;
    }
    return json;
}

/// The phone that was the one when there was nothing to choose; null if none is paired.
const PeerRecord* phoneWithoutChoice(const PeerBook& book, EpochMilliseconds createdAt,
                                     const std::function<bool()>& wasOneRemoved) {
    const PeerRecord* best = nullptr;
    for (const PeerRecord& record : book.peers) {
        const bool isEarlier = record.paired_at_epoch_ms <= createdAt;
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

OutboxState::Phone freshPhone(const PeerKey& peerKey, const PeerRecord* record) {
    return {.peerKey = peerKey,
            .hostname = record != nullptr ? record->peer_hostname : "",
            .done = {},
            .failed = {},
            .waiting = {}};
}

void OutboxState::Phone::setDone(const std::string& file) {
    done.insert(file);
    waiting.clear();
}

bool OutboxState::Phone::isOpen(const std::string& file) const {
    return !done.contains(file) && !failed.contains(file);
}

bool OutboxState::Phone::hasFailures() const {
    return std::ranges::any_of(failed, [](const auto& entry) { return entry.second != cancelled; });
}

void OutboxState::Phone::cancelFailures() {
    for (auto& [file, reason] : failed) {
        reason = cancelled;
    }
}

std::string OutboxState::Phone::displayName() const {
    return hostname.empty() ? "the phone with the key " + firstCharacters(peerKey.text(), shortKeyCharacters)
                            : hostname;
}

std::optional<OutboxState> OutboxState::load(platform::FileSystem& files, const platform::Path& folder) {
    try {
        OutboxState state(files, folder);
        state.phones = decode(platform::readWholeFile(files, folder / fileName));
        return state;
    } catch (const Error&) {
        return std::nullopt; // the files are sent again: better twice than not at all
    }
}

std::vector<OutboxState::Phone> OutboxState::decode(ByteView content) {
    const std::vector<ByteView> lines = linesOf(content);
    if (lines.empty()) {
        throw JsonError("expected a line");
    }
    std::vector<Phone> phones;
    const Json whole = parseJson(lines.front());
    for (const Json& phone : requireArray(whole, "phones")) {
        phones.push_back(phoneFrom(phone));
    }
    if (phones.empty()) {
        throw JsonError("expected a phone");
    }
    try {
        std::for_each(lines.begin() + 1, lines.end(),
                      [&phones](ByteView line) { applyChange(parseJson(line), phones); });
    } catch (const JsonError&) {
        // A power cut has stopped whoever wrote this line. What it tells, and what comes behind it, is sent again.
    }
    return phones;
}

std::string OutboxState::encode(const std::vector<Phone>& phones) {
    Json list = Json::array();
    for (const Phone& phone : phones) {
        list.push_back(toJson(phone));
    }
    return compactJson({{"phones", std::move(list)}}) + "\n";
}

void OutboxState::save() {
    hasSaved_ = true;
    isWhole_ = false;
    files_->createDirectories(folder_, ownerOnlyFolder);
    platform::writeWholeFile(*files_, folder_ / fileName, asBytes(encode(phones)), ownerOnly, platform::Flush::now,
                             platform::Links::follow);
    isWhole_ = true;
    hasUnflushed_ = false;
}

void OutboxState::saveFile(const Phone& phone, const std::string& file) {
    if (!isWhole_) {
        save();
        return;
    }
    isWhole_ = false;
    const std::unique_ptr<platform::File> log = files_->open(folder_ / fileName, platform::OpenMode::write);
    log->seek(ByteOffset(log->status().size));
    log->write(asBytes(compactJson(changeOf(phone, file)) + "\n"));
    isWhole_ = true;
    hasUnflushed_ = true;
}

void OutboxState::flush() {
    if (hasUnflushed_) {
        files_->open(folder_ / fileName, platform::OpenMode::write)->flush();
        hasUnflushed_ = false;
    }
}

platform::Path OutboxState::journalFile(const PeerKey& peerKey) const {
    constexpr std::size_t digestBytesShown = 8;
    const platform::Sha256Digest digest = platform::sha256({asBytes(peerKey.text())});
    return folder_ / ("inflight-" + hexEncode(ByteView(digest).first(digestBytesShown)) + ".json");
}

OutboxState::Phone* OutboxState::find(const PeerKey& peerKey) {
    const auto at =
        std::find_if(phones.begin(), phones.end(), [&peerKey](const Phone& phone) { return phone.peerKey == peerKey; });
    return at == phones.end() ? nullptr : &*at;
}

void OutboxState::Phone::forgetFailures() {
    std::erase_if(failed, [](const auto& entry) { return entry.second != cancelled; });
    waiting.clear();
}

void OutboxState::forgetFailures() {
    for (Phone& phone : phones) {
        phone.forgetFailures();
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
    std::set<PeerKey> seen;
    for (const PeerKey& peerKey : *manifest.targetPubkeys) {
        if (seen.insert(peerKey).second) {
            phones.push_back(freshPhone(peerKey, book.find(peerKey)));
        }
    }
    return phones;
}

} // namespace orlinth::host
