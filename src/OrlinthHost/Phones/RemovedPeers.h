#pragma once

#include "OrlinthCore/Peers/PeerRecord.h"
#include "platform/Crypto.h"

#include <functional>
#include <vector>

namespace orlinth::host {

/// The keys of phones that were removed here and are still to be told so when they connect, even months later.
///
/// A file beside the peer store, "removed.json": `{"removed": ["…44 characters…", …]}`, the oldest first. Read afresh
/// by every call, replaced whole under a lock by every change.
class RemovedPeers {
public:
    static constexpr const char* fileName = "removed.json";
    /// Beyond that the oldest are forgotten.
    static constexpr std::size_t maxKeys = 1000;

    /// `directory` is the core's data folder. `files` outlives this.
    RemovedPeers(platform::FileSystem& files, platform::Path directory);

    /// Empty if there is no file. @throws HostError where it cannot be read or does not decode; it is never overwritten
    [[nodiscard]] std::vector<platform::PublicKey> load() const;
    /// @throws HostError
    void add(const platform::PublicKey& key);
    /// A phone that is paired again is not removed any more. No file is made for it. @throws HostError
    void forget(const platform::PublicKey& key);

private:
    /// Under the lock; written if `change` returns true.
    void change(const std::function<bool(std::vector<platform::PublicKey>&)>& change);

    platform::FileSystem& files_;
    platform::Path file_;
};

} // namespace orlinth::host
