#include "orlinth/Commands/PairingRecord.h"

#include "OrlinthHost/Phones/PairedPhones.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "base/Text.h"

namespace orlinth::cli {

namespace {

void tellLines(Host& host, const char* what, const PeerRecord& wanted, const PeerStore::Recorded& recorded) {
    const PeerRecord& phone = recorded.record;
    host.output.result(what + forDisplay(phone.peer_hostname) + " at " + forDisplay(host::addressOf(phone)));
    for (const PeerRecord& stale : recorded.replaced) {
        host.output.result("in place of the earlier identity of " + forDisplay(stale.peer_hostname) + ", key " +
                           host::shortKey(stale.peer_pubkey));
    }
    if (phone.peer_hostname != wanted.peer_hostname) {
        host.output.message("Another phone is called " + forDisplay(wanted.peer_hostname) + ". This one is called " +
                            forDisplay(phone.peer_hostname) + " here.");
    }
    for (const PeerRecord& namesake : recorded.namesakes) {
        host.output.message("If " + forDisplay(namesake.peer_hostname) + " at " +
                            forDisplay(host::addressOf(namesake)) +
                            " is the same phone, remove its earlier identity: `orlinth peers remove " +
                            host::shortKey(namesake.peer_pubkey) + "`");
    }
}

Json publicFieldsOf(const std::vector<PeerRecord>& records) {
    Json list = Json::array();
    for (const PeerRecord& one : records) {
        list.push_back(host::publicFields(one));
    }
    return list;
}

} // namespace

void requirePeerStore(const Host& host) {
    static_cast<void>(host.peers().loadBook());
}

void recordPaired(Host& host, PeerRecord phone, const std::optional<host::Meeting>& met) {
    phone.paired_at_epoch_ms = host.system.clock.epochMilliseconds();
    const PeerStore::Recorded recorded = host::PairedPhones(host).record(phone, met);
    host.output.event("paired", {{"peer", recorded.record.toJson()}, {"replaced", publicFieldsOf(recorded.replaced)}});
    tellLines(host, "paired with ", phone, recorded);
}

void recordByHand(Host& host, const PeerRecord& phone) {
    const PeerStore::Recorded recorded = host::PairedPhones(host).record(phone);
    host.output.event("added",
                      {{"peer", host::publicFields(recorded.record)}, {"replaced", publicFieldsOf(recorded.replaced)}});
    tellLines(host, "recorded ", phone, recorded);
}

} // namespace orlinth::cli
