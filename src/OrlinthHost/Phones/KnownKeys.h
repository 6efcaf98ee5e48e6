#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/Home.h"
#include "base/Mutex.h"
#include "platform/FileChangeCheck.h"

#include <exception>
#include <functional>
#include <string>

namespace orlinth::host {

/// Whom the receive service serves: the phones of the peer store, and those that were removed, as the two files say
/// now. A file is read again when it has changed since it was read.
///
/// A file that cannot be read leaves what was known before, and is reported once for each change.
class KnownKeys {
public:
    /// What is wrong with a file: PeerStoreError, HostError or platform::SystemError. Called on the home's executor,
    /// also when this has gone.
    using OnTrouble = std::function<void(const std::exception_ptr& error)>;

    /// `receiver` is given the keys. `ownKey` is nobody's, whatever a record says. What is referred to outlives this.
    KnownKeys(Home& home, Receiver& receiver, platform::PublicKey ownKey, OnTrouble onTrouble);
    KnownKeys(const KnownKeys&) = delete;
    KnownKeys& operator=(const KnownKeys&) = delete;

    /// Brings the receiver in step with the files. Any thread; blocks on the disk.
    void refresh() noexcept;

    /// How many phones the peer store had at the last look.
    [[nodiscard]] std::size_t pairedCount() const;

private:
    struct Source {
        platform::Path file;
        platform::FileChangeCheck check;
        std::string trouble; ///< the last one that was reported; "" if there was none since the last change
    };

    void refresh(Source& source, const std::function<void()>& read) ORLINTH_REQUIRES(lock_);
    void readPeers() ORLINTH_REQUIRES(lock_);
    void readRemoved();
    void report(const std::exception_ptr& error) const;

    Home& home_;
    Receiver& receiver_;
    const platform::PublicKey ownKey_;
    const OnTrouble onTrouble_;
    mutable Mutex lock_;
    Source peers_ ORLINTH_GUARDED_BY(lock_);
    Source removed_ ORLINTH_GUARDED_BY(lock_);
    std::size_t pairedCount_ ORLINTH_GUARDED_BY(lock_) = 0;
};

} // namespace orlinth::host
