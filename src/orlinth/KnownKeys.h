#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "orlinth/FileChangeCheck.h"
#include "orlinth/Host.h"

#include <functional>
#include <mutex>
#include <string>

namespace orlinth::host {

/// Whom the receive service serves: the phones of the peer store, and those that were removed, as the two files say
/// now. A file is read again when it has changed since it was read.
///
/// A file that cannot be read leaves what was known before, and is told of once for each change.
class KnownKeys {
public:
    /// `receiver` is told the keys. `ownKey` is nobody's, whatever a record says. What is referred to outlives this.
    KnownKeys(Host& host, Receiver& receiver, platform::PublicKey ownKey);
    KnownKeys(const KnownKeys&) = delete;
    KnownKeys& operator=(const KnownKeys&) = delete;

    /// Brings the receiver in step with the files. Any thread; blocks on the disk.
    void refresh() noexcept;

    /// How many phones the peer store had at the last look.
    [[nodiscard]] std::size_t pairedCount() const;

private:
    struct Source {
        platform::Path file;
        FileChangeCheck check;
        std::string trouble; ///< the last one that was told of; "" if there was none since the last change
    };

    void refresh(Source& source, const std::function<void()>& read);
    void readPeers();
    void readRemoved();
    void tell(const std::string& text, const std::string& hint);

    Host& host_;
    Receiver& receiver_;
    const platform::PublicKey ownKey_;
    mutable std::mutex lock_; ///< guards what follows
    Source peers_;
    Source removed_;
    std::size_t pairedCount_ = 0;
};

} // namespace orlinth::host
