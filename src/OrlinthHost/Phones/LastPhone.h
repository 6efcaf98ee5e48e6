#pragma once

#include "OrlinthHost/Home.h"

#include <cstddef>
#include <optional>

namespace orlinth::host {

/// The phone that this computer has sent something to last, whatever it was: the likeliest for the next.
///
/// A file beside the peer store, "last_phone.json", for the owner alone (0600): {"peer_pubkey": "…"}. A convenience:
/// what cannot be read counts as absent, and what cannot be written is logged. The key may be one that is not paired
/// any more.
///
/// Threading: any thread. Calls block on the disk.
class LastPhone {
public:
    static constexpr const char* fileName = "last_phone.json";
    static constexpr std::size_t maxFileBytes = 1024;

    /// `home` outlives this. Touches no file.
    explicit LastPhone(const Home& home) : home_(home) {}

    [[nodiscard]] std::optional<PeerKey> load() const noexcept;
    /// This phone has just taken something. Returns whether it is another one than before: then the share sheet's list
    /// is out of date (SharedPeers). Writes one small file, without a lock, so that nobody can hold it up.
    [[nodiscard]] bool remember(const PeerKey& phone) noexcept;

private:
    [[nodiscard]] platform::Path file() const;

    const Home& home_;
};

} // namespace orlinth::host
