#include "orlinth/PairingRecord.h"

#include "base/Text.h"
#include "orlinth/PeerSelection.h"
#include "orlinth/RemovedPeers.h"
#include "orlinth/SharedPeers.h"

namespace orlinth::host {

namespace {

constexpr std::size_t shortKeyCharacters = 12;

} // namespace

void requirePeerStore(const Host& host) {
    static_cast<void>(host.peers().loadBook());
}

void forgetRemoval(Host& host, const PeerRecord& record) {
    if (const auto key = platform::PublicKey::fromBase64(record.peer_pubkey)) {
        RemovedPeers(host.system.files, host.dataDirectory()).forget(*key);
    }
}

void recordPaired(Host& host, PeerRecord record) {
    record.paired_at_epoch_ms = host.system.clock.epochMilliseconds();
    forgetRemoval(host, record);
    const std::vector<PeerRecord> replaced = host.peers().upsertReplacingStale(record);
    updateSharedPeers(host);
    Json fields;
    fields["peer"] = record.toJson();
    fields["replaced"] = Json::array();
    for (const PeerRecord& stale : replaced) {
        fields["replaced"].push_back(publicFields(stale));
    }
    host.output.event("paired", std::move(fields));
    host.output.result("paired with " + madeVisible(record.peer_hostname) + " at " + madeVisible(addressOf(record)));
    for (const PeerRecord& stale : replaced) {
        host.output.result("in place of the earlier identity of " + madeVisible(stale.peer_hostname) + ", key " +
                           madeVisible(firstCharacters(stale.peer_pubkey, shortKeyCharacters)));
    }
}

} // namespace orlinth::host
