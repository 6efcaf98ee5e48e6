#pragma once

#include "OrlinthHost/Home.h"

#include <optional>
#include <string>
#include <vector>

namespace orlinth::host {

/// A record that was checked, with its key decoded.
struct CheckedPeer {
    PeerRecord record;
    platform::PublicKey key;
};

/// What of a record a command uses. Only that is checked: a phone whose port is unknown can still send to us.
enum class PeerUse {
    key,        ///< to recognise the phone
    connection, ///< key, address and port, to connect to it
};

/// The record that a selector means, unchecked: a whole key, a name in any letter case, or the beginning of one phone's
/// name or key. Of two phones whose names look like that none is meant; the error shows how their keys begin. Neither
/// is a phone whose name begins like another one's key.
/// @throws HostError if there is none, or several; PeerStoreError
[[nodiscard]] PeerRecord resolvePeer(const Home& home, const std::string& selector);

/// The same, checked. @throws HostError also if the record cannot be used; PeerStoreError
[[nodiscard]] CheckedPeer selectPeer(const Home& home, const std::string& selector, const platform::PublicKey& ownKey,
                                     PeerUse use);

/// The phone that is meant where nobody says which, checked: that of the settings (Home::defaultPhone), else the one
/// last sent to, else the one paired last. @throws HostError, also if the settings mean none or several;
///         PeerStoreError
[[nodiscard]] CheckedPeer defaultPeer(const Home& home, const platform::PublicKey& ownKey, PeerUse use);

/// The same unchecked; nothing if no phone is paired. @throws HostError if the settings mean none or several;
///         PeerStoreError
[[nodiscard]] std::optional<PeerRecord> defaultRecord(const Home& home);

/// The same for the order of a list, which is nobody's to be told: settings that mean none or several do not count.
/// Nothing is sent because of it. @throws PeerStoreError
[[nodiscard]] std::optional<PeerRecord> likelyPeer(const Home& home);

/// The records that the selectors mean, each once, in their order; without a selector the default phone.
/// @throws HostError, PeerStoreError
[[nodiscard]] std::vector<CheckedPeer> selectPeers(const Home& home, const std::vector<std::string>& selectors,
                                                   const platform::PublicKey& ownKey, PeerUse use);

/// The record with its key, if that is 32 bytes of Base64 and not our own, and, to connect, if there is an address and
/// the port is 1 to 65535. @throws HostError that says what is wrong
[[nodiscard]] CheckedPeer checkPeer(const PeerRecord& record, const platform::PublicKey& ownKey, PeerUse use);

/// What standard output may show of a record: nine of its ten keys, and "has_fcm_token" in place of the push token,
/// which is a secret.
[[nodiscard]] Json publicFields(const PeerRecord& record);

/// The phone's name for somebody who is told or asked something, as forDisplay(): if another record's name looks the
/// same, with the first characters of the key behind it, "Pixel 8 (key AbCdEfGhIjKl)".
[[nodiscard]] std::string phoneForDisplay(const Home& home, const std::string& name, const PeerKey& peerKey);

/// "Pixel 8 (192.168.1.7:40112)", both as forDisplay().
[[nodiscard]] std::string nameAndAddress(const PeerRecord& record);

/// What people recognise a key by: its first characters.
[[nodiscard]] std::string shortKey(const PeerKey& peerKey);

/// "192.168.1.7:40112", "[fe80::1]:40112".
[[nodiscard]] std::string addressOf(const PeerRecord& record);

} // namespace orlinth::host
