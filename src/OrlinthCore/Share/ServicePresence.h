#pragma once

#include "base/Bytes.h"
#include "base/StrongText.h"
#include "base/Time.h"
#include "platform/Clock.h"
#include "platform/Directories.h"
#include "platform/UnixSockets.h"

#include <optional>
#include <string_view>
#include <vector>

namespace orlinth {

/// What the running service knows of whether a paired phone is there.
struct SharePresence {
    enum class State { here, asleep, away, unknown };

    PeerKey pubkey;
    State state = State::unknown;
    bool canWake = false;                       ///< by a push
    std::optional<EpochMilliseconds> seen = {}; ///< when it last proved its key

    bool operator==(const SharePresence&) const = default;
};

/// How the share sheet asks the service, if one runs, on its control socket. The service's own words are those of the
/// host; this reads no more of them than it needs.
class ServicePresence {
public:
    /// The socket's name in the folder of the core's files.
    static constexpr const char* socketName = "service.sock";
    /// Bytes of the answer's line, without its end.
    static constexpr std::size_t maxLine = 4096;

    /// Where the service of this user listens.
    [[nodiscard]] static platform::Path socketOf(const platform::UserDirectories& directories);

    /// Of all phones, as the service knows them. Empty if no service runs, or if its answer does not come within
    /// `limit` or makes no sense: nobody depends on it. `sockets` and `clock` outlive the task.
    [[nodiscard]] static Task<std::vector<SharePresence>> ask(platform::UnixSockets& sockets, platform::Clock& clock,
                                                              platform::Path socket, Seconds limit);

    /// The answer. @throws JsonError if it is none, or in the first entry that makes no sense
    [[nodiscard]] static std::vector<SharePresence> decode(std::string_view line);
};

} // namespace orlinth
