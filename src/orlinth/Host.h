#pragma once

#include "OrlinthCore/Peers/PeerRecord.h"
#include "OrlinthCore/SecureChannel/KeyVault.h"
#include "orlinth/Output.h"
#include "orlinth/TaskRunner.h"
#include "platform/System.h"

namespace orlinth::host {

/// What a command works with. Everything referred to outlives the command.
struct Host {
    platform::System& system;
    TaskRunner& tasks;
    Output& output;

    /// The folder of the core's files.
    [[nodiscard]] platform::Path dataDirectory() const {
        return system.directories.data / KeyVault::defaultDirectoryName;
    }
    [[nodiscard]] PeerStore peers() const { return {system.files, system.directories}; }
    /// This computer's key, made on first use. @throws KeyVault::Error
    [[nodiscard]] platform::PrivateKey staticKey() const {
        return KeyVault(system.files, system.directories).loadOrCreate();
    }
};

} // namespace orlinth::host
