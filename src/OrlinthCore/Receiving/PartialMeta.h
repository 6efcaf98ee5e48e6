#pragma once

#include "base/Json.h"
#include "base/StrongText.h"
#include "base/Time.h"
#include "platform/WholeFile.h"

#include <optional>

namespace orlinth {

/// What lies beside a partial download and says which transfer it belongs to. The JSON keys are the field names.
struct PartialMeta {
    TransferId transfer_id;                  ///< as the offer gave it; opaque
    std::int64_t advertised_size = 0;        ///< bytes; kept for people, takes no part in a decision
    EpochMilliseconds started_at_epoch_ms{}; ///< when the session began that wrote this
    PeerKey peer_pubkey{};                   ///< of whom the transfer is; "" where nobody has written that down

    /// Whether an attempt of this phone at this transfer may go on where the partial file ends. Which phone it was is
    /// not known of sidecars that older versions have written.
    [[nodiscard]] bool mayBeContinuedBy(const TransferId& transferId, const PeerKey& peerKey) const;
    [[nodiscard]] Json toJson() const;
    /// @throws JsonError
    [[nodiscard]] static PartialMeta fromJson(const Json& json);
    bool operator==(const PartialMeta&) const = default;
};

/// Finds, writes, reads and removes the sidecar of a partial file. Whatever has its name in the folder and is no
/// sidecar of ours, a link for one, is never followed, read or waited for.
struct PartialMetaIO {
    static constexpr const char* suffix = ".meta.json";
    /// Largest sidecar that is read, bytes. Ours have about 200.
    static constexpr std::int64_t maxBytes = 64 << 10;

    [[nodiscard]] static platform::FileName metaName(const platform::FileName& partial);
    /// Writes it whole; a link in its place is replaced itself. With Flush::later a power cut before flush() may leave
    /// it undecodable, or not at all.
    /// @throws platform::SystemError
    static void save(platform::Folder& folder, const PartialMeta& meta, const platform::FileName& partial,
                     platform::Flush flush = platform::Flush::now);
    /// Makes a sidecar that was saved survive a power cut, and the name of its partial file too.
    /// @throws platform::SystemError
    static void flush(platform::Folder& folder, const platform::FileName& partial);
    /// Nothing if it is missing, unreadable, no regular file (a link is none), somebody else's (Folder::isOwn()), too
    /// large or no sidecar.
    [[nodiscard]] static std::optional<PartialMeta> load(platform::Folder& folder, const platform::FileName& partial);
    /// Best effort.
    static void remove(platform::Folder& folder, const platform::FileName& partial);
};

} // namespace orlinth
