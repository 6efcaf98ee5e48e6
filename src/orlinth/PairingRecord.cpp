#include "orlinth/PairingRecord.h"

#include "base/Text.h"
#include "orlinth/PeerSelection.h"
#include "orlinth/RemovedPeers.h"
#include "orlinth/SharedPeers.h"

namespace orlinth::host {

namespace {

/// The phone that was removed here once, and is recorded again, is not to be told any more that it was removed.
/// @throws HostError, and then nothing may be recorded: the service would turn it away
void forgetRemoval(Host& host, const PeerRecord& record) {
    if (const auto key = platform::PublicKey::fromBase64(record.peer_pubkey)) {
        RemovedPeers(host.system.files, host.dataDirectory()).forget(*key);
    }
}

PeerStore::Recorded record(Host& host, const PeerRecord& wanted) {
    forgetRemoval(host, wanted);
    PeerStore::Recorded recorded = host.peers().upsertUnderFreeName(wanted);
    updateSharedPeers(host);
    return recorded;
}

void tellLines(Host& host, const char* what, const PeerRecord& wanted, const PeerStore::Recorded& recorded) {
    const PeerRecord& phone = recorded.record;
    host.output.result(what + forDisplay(phone.peer_hostname) + " at " + forDisplay(addressOf(phone)));
    for (const PeerRecord& stale : recorded.replaced) {
        host.output.result("in place of the earlier identity of " + forDisplay(stale.peer_hostname) + ", key " +
                           shortKey(stale.peer_pubkey));
    }
    if (phone.peer_hostname != wanted.peer_hostname) {
        host.output.message("Another phone is called " + forDisplay(wanted.peer_hostname) + ". This one is called " +
                            forDisplay(phone.peer_hostname) + " here.");
    }
}

Json publicFieldsOf(const std::vector<PeerRecord>& records) {
    Json list = Json::array();
    for (const PeerRecord& one : records) {
        list.push_back(publicFields(one));
    }
    return list;
}

} // namespace

void requirePeerStore(const Host& host) {
    static_cast<void>(host.peers().loadBook());
}

void recordPaired(Host& host, PeerRecord phone) {
    phone.paired_at_epoch_ms = host.system.clock.epochMilliseconds();
    const PeerStore::Recorded recorded = record(host, phone);
    host.output.event("paired", {{"peer", recorded.record.toJson()}, {"replaced", publicFieldsOf(recorded.replaced)}});
    tellLines(host, "paired with ", phone, recorded);
}

void recordByHand(Host& host, const PeerRecord& phone) {
    const PeerStore::Recorded recorded = record(host, phone);
    host.output.event("added",
                      {{"peer", publicFields(recorded.record)}, {"replaced", publicFieldsOf(recorded.replaced)}});
    tellLines(host, "recorded ", phone, recorded);
}

} // namespace orlinth::host
