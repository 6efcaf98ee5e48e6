#include "OrlinthCore/Peers/PeerNames.h"

#include "base/Text.h"

#include <algorithm>
#include <set>

namespace orlinth {
namespace {

std::string numbered(const std::string& name, std::size_t number) {
    const std::string suffix = " (" + std::to_string(number) + ")";
    return firstCharactersWithin(trimmed(name), maxPeerNameBytes - suffix.size()) + suffix;
}

std::set<std::string> looksOfOthers(const PeerBook& book, const PeerKey& peerKey) {
    std::set<std::string> looks;
    for (const PeerRecord& record : book.peers) {
        if (record.peer_pubkey != peerKey) {
            looks.insert(lookOf(record.peer_hostname));
        }
    }
    return looks;
}

} // namespace

bool isUsableName(const std::string& name) {
    return name.size() <= maxPeerNameBytes && !trimmed(name).empty() && !hasControlCharacter(name);
}

bool isNameTaken(const PeerBook& book, const PeerKey& peerKey, const std::string& name) {
    return looksOfOthers(book, peerKey).contains(lookOf(name));
}

std::string freeName(const PeerBook& book, const PeerKey& peerKey, const std::string& name) {
    const std::set<std::string> taken = looksOfOthers(book, peerKey);
    if (!taken.contains(lookOf(name))) {
        return name;
    }
    std::size_t number = 2;
    std::string candidate = numbered(name, number);
    while (taken.contains(lookOf(candidate))) { // at most once for each record
        candidate = numbered(name, ++number);
    }
    return candidate;
}

bool isFormOfName(const std::string& recorded, const std::string& name) {
    if (recorded == name) {
        return true;
    }
    const std::size_t open = recorded.rfind(" (");
    if (open == std::string::npos || !recorded.ends_with(')')) {
        return false;
    }
    const std::string number = recorded.substr(open + 2, recorded.size() - open - 3);
    constexpr std::size_t mostDigits = 9;
    const bool isNumber = !number.empty() && number.size() <= mostDigits && number.front() != '0' &&
                          std::ranges::all_of(number, [](char c) { return c >= '0' && c <= '9'; });
    return isNumber && std::stoul(number) > 1 && recorded == numbered(name, std::stoul(number));
}

} // namespace orlinth
