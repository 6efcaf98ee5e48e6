#include "orlinth/PeerSelection.h"

#include <algorithm>
#include <utility>

namespace orlinth::host {

namespace {

constexpr const char* howToRepair = "Pair the phone again, or record it anew with `orlinth peers add`.";

} // namespace

CheckedPeer checkPeer(const PeerRecord& record, const platform::PublicKey& ownKey) {
    const std::string whose = "the record of '" + record.peer_hostname + "' ";
    const auto key = platform::PublicKey::fromBase64(record.peer_pubkey);
    if (!key) {
        throw HostError(whose + "has no usable key: peer_pubkey is not the Base64 of 32 bytes", howToRepair);
    }
    if (*key == ownKey) {
        throw HostError(whose + "has this computer's own key", howToRepair);
    }
    if (record.peer_port < 1 || record.peer_port > 65535) {
        throw HostError(whose + "has port " + std::to_string(record.peer_port) + ", which is not from 1 to 65535",
                        howToRepair);
    }
    return {record, *key};
}

CheckedPeer selectPeer(const Host& host, const std::string& selector, const platform::PublicKey& ownKey) {
    const auto record = host.peers().resolve(selector);
    if (!record) {
        throw HostError("no paired phone matches '" + selector + "'", "`orlinth peers` lists the paired phones.");
    }
    return checkPeer(*record, ownKey);
}

CheckedPeer mostRecentPeer(const Host& host, const platform::PublicKey& ownKey) {
    const auto record = host.peers().mostRecent();
    if (!record) {
        throw HostError("no phone is paired yet", "`orlinth pair` pairs one.");
    }
    return checkPeer(*record, ownKey);
}

std::vector<CheckedPeer> selectPeers(const Host& host, const std::vector<std::string>& selectors,
                                     const platform::PublicKey& ownKey) {
    if (selectors.empty()) {
        return {mostRecentPeer(host, ownKey)};
    }
    std::vector<CheckedPeer> chosen;
    for (const std::string& selector : selectors) {
        CheckedPeer peer = selectPeer(host, selector, ownKey);
        const auto isSame = [&peer](const CheckedPeer& other) { return other.key == peer.key; };
        if (std::none_of(chosen.begin(), chosen.end(), isSame)) {
            chosen.push_back(std::move(peer));
        }
    }
    return chosen;
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
