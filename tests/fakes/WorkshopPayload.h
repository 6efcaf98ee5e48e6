#pragma once

#include "OrlinthCore/Pairing/PairingPayload.h"

#include <string>
#include <utility>

namespace orlinth::fakes {

/// What the computer "workshop", which waits on port 7300, shows: with this key and this secret, both in Base64.
[[nodiscard]] inline PairingPayload workshopPayload(std::string publicKey, std::string secret) {
    PairingPayload payload;
    payload.peer_pubkey = std::move(publicKey);
    payload.peer_ip = "192.168.1.23";
    payload.peer_port = 7300;
    payload.peer_subnet = "192.168.1.0/24";
    payload.peer_hostname = "workshop";
    payload.peer_mac = "3c:22:fb:01:02:0a";
    payload.pairing_secret = std::move(secret);
    return payload;
}

} // namespace orlinth::fakes
