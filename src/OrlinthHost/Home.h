#pragma once

#include "OrlinthCore/Peers/PeerRecord.h"
#include "OrlinthCore/SecureChannel/KeyVault.h"
#include "base/SharedText.h"
#include "platform/System.h"

namespace orlinth::host {

/// This computer, as whatever works unattended needs it: the system, the executor on which all of that runs, and the
/// user's files. Everything referred to outlives it, and it outlives whatever is given it.
struct Home {
    platform::System& system;
    /// One thread. "On the home's executor" is said of what is called there, and may only be called there.
    Executor executor;
    /// What peers() are copies of.
    PeerStore store = PeerStore::keepingBook(system.files, system.directories, system.clock);
    /// Selector of the phone that the person has chosen for whatever names none; "" if none was chosen.
    SharedText defaultPhone = {};
    /// What this computer calls itself when it is paired; "": its host name.
    SharedText computerName = {};
    /// Of this program; "" if that is nobody's business.
    std::string version = {};

    /// The folder of the core's files.
    [[nodiscard]] platform::Path dataDirectory() const {
        return system.directories.data / KeyVault::defaultDirectoryName;
    }
    /// It reads the file only when it may have changed.
    [[nodiscard]] PeerStore peers() const { return store; }
    /// This computer's key, made on first use. @throws KeyVault::Error
    [[nodiscard]] platform::PrivateKey staticKey() const {
        return KeyVault(system.files, system.directories).loadOrCreate();
    }
};

} // namespace orlinth::host
