#include "OrlinthHost/Phones/PeerSelection.h"

#include "OrlinthCore/Peers/PeerNames.h"
#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Phones/LastPhone.h"
#include "base/Text.h"

#include <algorithm>
#include <set>
#include <utility>

namespace orlinth::host {

namespace {

constexpr const char* howToRepair = "Pair the phone again, or record it anew with `orlinth peers add`.";

/// How much of a key a message shows at least, and of how many phones.
constexpr std::size_t shortestKeyPrefix = 8;
constexpr std::size_t mostPhonesNamed = 8;

constexpr std::size_t shortKeyCharacters = 12;

using Matches = std::vector<const PeerRecord*>;

/// The records that `matches` picks, of those with the same key only the first: they are one phone.
template <typename Predicate>
Matches differentPhones(const PeerBook& book, Predicate matches) {
    Matches found;
    std::set<PeerKey> keys;
    for (const PeerRecord& record : book.peers) {
        if (matches(record) && keys.insert(record.peer_pubkey).second) {
            found.push_back(&record);
        }
    }
    return found;
}

/// How many characters of these keys are a selector for one phone of the book.
std::size_t tellingCharacters(const PeerBook& book, const Matches& phones) {
    std::size_t count = shortestKeyPrefix;
    for (std::size_t i = 0; i < std::min(phones.size(), mostPhonesNamed); ++i) {
        const PeerRecord* const phone = phones[i];
        const auto isShared = [&] {
            const std::string prefix = lowerCased(firstCharacters(phone->peer_pubkey.text(), count));
            return std::ranges::any_of(book.peers, [&](const PeerRecord& other) {
                return other.peer_pubkey != phone->peer_pubkey &&
                       lowerCased(other.peer_pubkey.text()).starts_with(prefix);
            });
        };
        while (count < phone->peer_pubkey.text().size() && isShared()) {
            ++count;
        }
    }
    return count;
}

/// "Pixel AbCdEfGh, Pixel IjKlMnOp"; without the names where they are all the same.
std::string keysOf(const PeerBook& book, const Matches& phones, bool hasNames) {
    const std::size_t characters = tellingCharacters(book, phones);
    std::string text;
    for (std::size_t i = 0; i < std::min(phones.size(), mostPhonesNamed); ++i) {
        text += (i == 0 ? "" : ", ") + (hasNames ? forDisplay(phones[i]->peer_hostname) + " " : "") +
                firstCharacters(phones[i]->peer_pubkey.text(), characters);
    }
    return phones.size() > mostPhonesNamed ? text + " and " + std::to_string(phones.size() - mostPhonesNamed) + " more"
                                           : text;
}

/// A name goes before a key, and a phone chooses its name: it must not be one by which somebody means another phone's
/// key. @throws HostError
void refuseNameLikeKey(const PeerBook& book, const PeerRecord& record, const std::string& selector) {
    const std::string query = lowerCased(selector);
    if (query.size() < shortestKeyPrefix) {
        return; // no message shows so little of a key
    }
    const Matches byKey = differentPhones(
        book, [&query](const PeerRecord& other) { return lowerCased(other.peer_pubkey.text()).starts_with(query); });
    if (std::ranges::any_of(byKey, [&](const PeerRecord* other) { return other->peer_pubkey != record.peer_pubkey; })) {
        throw HostError("selector '" + selector +
                            "' is ambiguous: it begins the name of one phone and the key of another",
                        "Use the whole key, as `orlinth peers --json` shows it.");
    }
}

/// That of the settings; nothing if they have none. @throws HostError, PeerStoreError
std::optional<PeerRecord> chosenPeer(const Home& home) {
    const std::string selector = home.defaultPhone.get();
    if (selector.empty()) {
        return std::nullopt;
    }
    try {
        return resolvePeer(home, selector);
    } catch (const HostError& error) {
        throw HostError(error.description(),
                        "The settings have it as the default phone (`to` in [send]). " + error.hint());
    }
}

/// Where the settings have none.
std::optional<PeerRecord> usualPeer(const Home& home) {
    if (const std::optional<PeerKey> last = LastPhone(home).load()) {
        const PeerBook book = home.peers().loadBook();
        if (const PeerRecord* const record = book.find(*last)) {
            return *record;
        }
    }
    return home.peers().mostRecent();
}

} // namespace

CheckedPeer checkPeer(const PeerRecord& record, const platform::PublicKey& ownKey, PeerUse use) {
    const std::string whose = "the record of '" + forDisplay(record.peer_hostname) + "' ";
    const auto key = platform::PublicKey::fromBase64(record.peer_pubkey.text());
    if (!key) {
        throw HostError(whose + "has no usable key: peer_pubkey is not the Base64 of 32 bytes", howToRepair);
    }
    if (*key == ownKey) {
        throw HostError(whose + "has this computer's own key", howToRepair);
    }
    if (use == PeerUse::key) {
        return {record, *key};
    }
    if (trimmed(record.peer_ip).empty()) {
        throw HostError(whose + "has no address: peer_ip is empty", howToRepair);
    }
    if (record.peer_port < 1 || record.peer_port > 65535) {
        throw HostError(whose + "has port " + std::to_string(record.peer_port) + ", which is not from 1 to 65535",
                        howToRepair);
    }
    return {record, *key};
}

PeerRecord resolvePeer(const Home& home, const std::string& selector) {
    const std::string query = lowerCased(selector);
    const PeerBook book = home.peers().loadBook();
    if (const PeerRecord* const record = book.find(PeerKey(selector))) {
        return *record;
    }
    const Matches namesakes = differentPhones(
        book, [look = lookOf(selector)](const PeerRecord& record) { return lookOf(record.peer_hostname) == look; });
    if (namesakes.size() > 1) {
        throw HostError("selector '" + selector + "' is ambiguous: " + std::to_string(namesakes.size()) +
                            " paired phones have this name (keys: " + keysOf(book, namesakes, false) + ")",
                        "Use the beginning of the phone's key instead of its name.");
    }
    std::optional<PeerRecord> record;
    try {
        record = home.peers().resolve(selector);
    } catch (const PeerStoreError& error) {
        const Matches matching = differentPhones(book, [&query](const PeerRecord& candidate) {
            return lowerCased(candidate.peer_hostname).starts_with(query) ||
                   lowerCased(candidate.peer_pubkey.text()).starts_with(query);
        });
        if (error.which() != PeerStoreError::Case::decode || matching.size() < 2) {
            throw;
        }
        throw HostError(error.description(), "Use the whole name, or the beginning of the phone's key: " +
                                                 keysOf(book, matching, true) + ".");
    }
    if (!record) {
        throw HostError("no paired phone matches '" + selector + "'", "`orlinth peers` lists the paired phones.");
    }
    refuseNameLikeKey(book, *record, selector);
    return std::move(*record);
}

CheckedPeer selectPeer(const Home& home, const std::string& selector, const platform::PublicKey& ownKey, PeerUse use) {
    return checkPeer(resolvePeer(home, selector), ownKey, use);
}

std::optional<PeerRecord> defaultRecord(const Home& home) {
    if (home.peers().loadBook().peers.empty()) {
        return std::nullopt;
    }
    std::optional<PeerRecord> chosen = chosenPeer(home);
    return chosen ? chosen : usualPeer(home);
}

CheckedPeer defaultPeer(const Home& home, const platform::PublicKey& ownKey, PeerUse use) {
    const std::optional<PeerRecord> record = defaultRecord(home);
    if (!record) {
        throw HostError("no phone is paired yet", "`orlinth pair` pairs one.");
    }
    return checkPeer(*record, ownKey, use);
}

std::optional<PeerRecord> likelyPeer(const Home& home) {
    std::optional<PeerRecord> chosen;
    try {
        chosen = chosenPeer(home);
    } catch (const HostError&) {
        chosen.reset(); // the next command that needs it says so
    }
    return chosen ? chosen : usualPeer(home);
}

std::vector<CheckedPeer> selectPeers(const Home& home, const std::vector<std::string>& selectors,
                                     const platform::PublicKey& ownKey, PeerUse use) {
    if (selectors.empty()) {
        return {defaultPeer(home, ownKey, use)};
    }
    std::vector<CheckedPeer> chosen;
    for (const std::string& selector : selectors) {
        CheckedPeer peer = selectPeer(home, selector, ownKey, use);
        const auto isSame = [&peer](const CheckedPeer& other) { return other.key == peer.key; };
        if (std::none_of(chosen.begin(), chosen.end(), isSame)) {
            chosen.push_back(std::move(peer));
        }
    }
    return chosen;
}

std::string phoneForDisplay(const Home& home, const std::string& name, const PeerKey& peerKey) {
    std::string shown = forDisplay(name);
    try {
        if (isNameTaken(home.peers().loadBook(), peerKey, name)) {
            shown += " (key " + shortKey(peerKey) + ")";
        }
    } catch (const PeerStoreError&) {
        shown += " (key " + shortKey(peerKey) + ")"; // who it is cannot be told by the name alone
    }
    return shown;
}

std::string nameAndAddress(const PeerRecord& record) {
    return forDisplay(record.peer_hostname) + " (" + forDisplay(addressOf(record)) + ")";
}

std::string shortKey(const PeerKey& peerKey) {
    return forDisplay(firstCharacters(peerKey.text(), shortKeyCharacters));
}

Json publicFields(const PeerRecord& record) {
    Json fields = record.toJson();
    fields.erase("peer_fcm_token");
    fields["has_fcm_token"] = !record.peer_fcm_token.empty();
    return fields;
}

std::string addressOf(const PeerRecord& record) {
    const bool isIpv6 = record.peer_ip.find(':') != std::string::npos;
    return (isIpv6 ? "[" + record.peer_ip + "]" : record.peer_ip) + ":" + std::to_string(record.peer_port);
}

} // namespace orlinth::host
