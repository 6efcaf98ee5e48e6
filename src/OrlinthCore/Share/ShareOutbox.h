#pragma once

#include "base/Bytes.h"
#include "base/Json.h"
#include "base/StrongText.h"
#include "base/Time.h"
#include "platform/BusSignals.h"
#include "platform/Directories.h"
#include "platform/FileSystem.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orlinth {

/// The container that the share sheet and the host have in common: a folder of the user's application data.
///
///     group.com.tarvinex.orlinth/
///       peers.json                 the paired phones, from which the sheet's picker is filled; written by the host
///       Outbox/
///         8F2C…-…/                 one batch, named by its id: copies of the shared files
///           holiday.jpg
///           manifest.json          written last: a batch without it is not complete
///
/// The sheet writes batches, the host sends and removes them.
class ShareOutbox {
public:
    static constexpr const char* appGroupID = "group.com.tarvinex.orlinth";
    /// Says that there is a new batch, to a host that listens. It carries nothing.
    static constexpr const char* pendingNotification = "com.tarvinex.orlinth.share-pending";
    static constexpr const char* manifestName = "manifest.json";

    /// One phone as the picker shows it. The JSON keys are the field names.
    struct SharePeer {
        std::string hostname;
        PeerKey pubkey;       ///< as in the peer store; the picker's selection key
        std::string subtitle; ///< a second line, composed by the host

        [[nodiscard]] Json toJson() const;
        /// @throws JsonError
        [[nodiscard]] static SharePeer fromJson(const Json& json);
        bool operator==(const SharePeer&) const = default;
    };

    /// What a batch says of itself. The JSON keys are the field names.
    struct Manifest {
        std::string id; ///< upper-case UUID text; the name of the batch's folder
        EpochMilliseconds createdAtMs{};
        std::vector<std::string> files; ///< names in the batch's folder, in the order in which the copies finished
        /// Keys of the chosen phones. Nothing (and no such key in the JSON) when there was no choice, with one phone
        /// paired.
        std::optional<std::vector<PeerKey>> targetPubkeys = std::nullopt;

        [[nodiscard]] Json toJson() const;
        /// Of the form only: whoever uses the names looks at them first. @throws JsonError
        [[nodiscard]] static Manifest fromJson(const Json& json);
        bool operator==(const Manifest&) const = default;
    };

    /// In the user's data directory. Touches no file. `files` outlives this.
    ShareOutbox(platform::FileSystem& files, const platform::UserDirectories& directories);

    /// The folder of the batches, which may not be there yet. Nothing if there is no container and none can be made.
    [[nodiscard]] std::optional<platform::Path> outboxRoot() const;
    /// Nothing, likewise.
    [[nodiscard]] std::optional<platform::Path> peersFileURL() const;
    /// The container that both lie in.
    [[nodiscard]] const platform::Path& container() const noexcept { return container_; }
    /// Why there is no container and none can be made, in the system's words; nothing if there is one.
    [[nodiscard]] std::optional<std::string> containerProblem() const;

    /// The text of the file, and back. @throws JsonError from the first malformed entry on
    [[nodiscard]] static std::vector<SharePeer> decodePeers(ByteView text);
    [[nodiscard]] static std::string encodePeers(const std::vector<SharePeer>& peers);

    /// Empty where there is no file, or one that does not decode, even in one entry only.
    [[nodiscard]] std::vector<SharePeer> readPeers() const;
    /// Replaces the file whole; makes the folder. A failure is ignored: the list is a convenience.
    void writePeers(const std::vector<SharePeer>& peers) const noexcept;

    /// Rings for the host. Best effort: a host that does not hear it finds the batch by itself.
    static void postPending(platform::BusSignals& signals) noexcept { signals.post(pendingNotification); }

private:
    static constexpr const char* peersName = "peers.json";

    /// Makes the container if need be; returns whether it is there.
    [[nodiscard]] bool hasContainer() const;

    platform::FileSystem& files_;
    platform::Path container_;
};

} // namespace orlinth
