#pragma once

#include "orlinth/Host.h"

#include <string>
#include <vector>

namespace orlinth::host {

/// A record that was checked, with its key decoded.
struct CheckedPeer {
    PeerRecord record;
    platform::PublicKey key;
};

/// The record that a selector means, checked. @throws HostError if there is none or it cannot be used; PeerStoreError
[[nodiscard]] CheckedPeer selectPeer(const Host& host, const std::string& selector, const platform::PublicKey& ownKey);

/// The most recently paired phone, checked. @throws HostError, PeerStoreError
[[nodiscard]] CheckedPeer mostRecentPeer(const Host& host, const platform::PublicKey& ownKey);

/// The records that the selectors mean, each once, in their order; without a selector the most recently paired phone.
/// @throws HostError, PeerStoreError
[[nodiscard]] std::vector<CheckedPeer> selectPeers(const Host& host, const std::vector<std::string>& selectors,
                                                   const platform::PublicKey& ownKey);

/// The record with its key, if that is 32 bytes of Base64 and not our own, and the port is 1 to 65535.
/// @throws HostError that says what is wrong
[[nodiscard]] CheckedPeer checkPeer(const PeerRecord& record, const platform::PublicKey& ownKey);

/// What standard output may show of a record: nine of its ten keys, and "has_fcm_token" in place of the push token,
/// which is a secret.
[[nodiscard]] Json publicFields(const PeerRecord& record);

/// "192.168.1.7:40112", "[fe80::1]:40112".
[[nodiscard]] std::string addressOf(const PeerRecord& record);

} // namespace orlinth::host
