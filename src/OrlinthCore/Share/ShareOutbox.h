#pragma once

#include "base/Json.h"
#include "platform/Directories.h"
#include "platform/FileSystem.h"

#include <string>
#include <vector>

namespace orlinth {

/// The folder that the share sheet and the host have in common.
///
/// "peers.json" in it is the list of paired phones from which the sheet's picker is filled.
class ShareOutbox {
public:
    static constexpr const char* appGroupID = "group.com.tarvinex.orlinth";

    /// One phone as the picker shows it. The JSON keys are the field names.
    struct SharePeer {
        std::string hostname;
        std::string pubkey;   ///< Base64, as in the peer store; the picker's selection key
        std::string subtitle; ///< a second line, composed by the host

        [[nodiscard]] Json toJson() const;
        /// @throws JsonError
        [[nodiscard]] static SharePeer fromJson(const Json& json);
        bool operator==(const SharePeer&) const = default;
    };

    /// In the user's data directory. `files` outlives this.
    ShareOutbox(platform::FileSystem& files, const platform::UserDirectories& directories);

    [[nodiscard]] platform::Path outboxRoot() const { return container_ / "Outbox"; }
    [[nodiscard]] platform::Path peersFileURL() const { return container_ / "peers.json"; }

    /// Empty where there is no file, or one that does not decode, even in one entry only.
    [[nodiscard]] std::vector<SharePeer> readPeers() const;
    /// Replaces the file whole; makes the folder. A failure is ignored: the list is a convenience.
    void writePeers(const std::vector<SharePeer>& peers) const noexcept;

private:
    platform::FileSystem& files_;
    platform::Path container_;
};

} // namespace orlinth
