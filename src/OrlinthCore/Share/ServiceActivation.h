#pragma once

#include "platform/Directories.h"
#include "platform/UnixSockets.h"
#include "platform/UserServices.h"

#include <string>

namespace orlinth {

/// Has this user's service run, for those who have something for it to do. For a service of the usual data folder: what
/// is started in the background knows of no other.
class ServiceActivation {
public:
    /// What the service is called where it can be started.
    [[nodiscard]] static platform::UserService service();

    /// Whether a service takes connections at `socket` (ServicePresence::socketOf()). It is told `version`, that of the
    /// program that asks, from which it sees whether it has been upgraded itself. `sockets` outlives the task.
    [[nodiscard]] static Task<bool> isRunning(platform::UnixSockets& sockets, platform::Path socket,
                                              std::string version);

    /// Starts the service, so that what waits in the outbox is sent. "" if it runs now; else what to tell the person:
    /// what is so, and what to do. Blocks as UserServices::start() does; any thread.
    [[nodiscard]] static std::string startForOutbox(platform::UserServices& services,
                                                    const platform::UserDirectories& directories);
};

} // namespace orlinth
