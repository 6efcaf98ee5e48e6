#pragma once

#include "base/Json.h"
#include "platform/WholeFile.h"

#include <optional>
#include <string>

namespace orlinth {

/// What lies beside a partial download and says which transfer it belongs to. The JSON keys are the field names.
struct PartialMeta {
    std::string transfer_id;              ///< as the offer gave it; opaque
    std::int64_t advertised_size = 0;     ///< bytes; kept for people, takes no part in a decision
    std::int64_t started_at_epoch_ms = 0; ///< when the session began that wrote this

    [[nodiscard]] Json toJson() const;
    /// @throws JsonError
    [[nodiscard]] static PartialMeta fromJson(const Json& json);
    bool operator==(const PartialMeta&) const = default;
};

/// Finds, writes, reads and removes the sidecar of a partial file.
struct PartialMetaIO {
    static constexpr const char* suffix = ".meta.json";
    /// Largest sidecar that is read, bytes. Ours have about 130.
    static constexpr std::int64_t maxBytes = 64 << 10;

    [[nodiscard]] static platform::Path metaURL(const platform::Path& partial);
    /// Writes it whole. With Flush::later a power cut before flush() may leave it undecodable, or not at all.
    /// @throws platform::SystemError
    static void save(platform::FileSystem& files, const PartialMeta& meta, const platform::Path& partial,
                     platform::Flush flush = platform::Flush::now);
    /// Makes a sidecar that was saved survive a power cut, and the name of its partial file too.
    /// @throws platform::SystemError
    static void flush(platform::FileSystem& files, const platform::Path& partial);
    /// Nothing if it is missing, unreadable, no regular file (a link is none), too large or no sidecar.
    [[nodiscard]] static std::optional<PartialMeta> load(platform::FileSystem& files, const platform::Path& partial);
    /// Best effort.
    static void remove(platform::FileSystem& files, const platform::Path& partial);
};

} // namespace orlinth
