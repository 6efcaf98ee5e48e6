#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Phones/Whereabouts.h"
#include "OrlinthHost/Reach/Finding.h"

#include <optional>
#include <vector>

/// What can be wrong with this computer itself. Nothing is changed, and no packet is sent.
namespace orlinth::host {

/// The port that phones connect to as long as nobody has chosen another one.
inline constexpr std::uint16_t usualPort = 28471;

/// The network that phones most likely are in: of a cable or of Wi-Fi, one with a router first; then that of a tunnel.
/// Null if there is none, apart from those of containers.
[[nodiscard]] const OwnNetwork* homeNetworkOf(const Whereabouts& here);

/// Whether this computer is in a network, and at the address that its phones know.
[[nodiscard]] Finding checkNetwork(const Home& home, const Whereabouts& here);

/// Whether the way to one of these phones leads into a tunnel or to containers, although its address is in a network of
/// a cable or of Wi-Fi here. Whether the phone is reached all the same, only an attempt tells.
[[nodiscard]] bool isWayInQuestion(const Home& home, const Whereabouts& here, const std::vector<PeerRecord>& phones);

/// Whether the firewall lets phones in at the port. That one of these phones has come in since this computer was
/// started lifts a doubt. `home` outlives the task. @throws platform::Cancelled
[[nodiscard]] Task<Finding> checkFirewall(Home& home, const OwnNetwork* network, std::uint16_t port,
                                          std::vector<PeerRecord> phones);

/// Whether phones can be woken by push: the key file, the tokens of these phones, this computer's clock. With
/// `asksProject` the push project is asked too, over the internet; no push is sent. `home` outlives the task.
/// @throws platform::Cancelled
[[nodiscard]] Task<Finding> checkWaking(Home& home, std::vector<PeerRecord> phones, bool asksProject);

/// Whether there is a key file, so that phones with a push token may be woken.
[[nodiscard]] bool hasPushKey(const Home& home);

} // namespace orlinth::host
