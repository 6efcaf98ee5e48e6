#pragma once

#include "OrlinthHost/Home.h"
#include "platform/FileChangeCheck.h"

#include <functional>
#include <memory>

namespace orlinth::host {

/// Says when the peer store has changed, whoever has changed it: at once where its folder can be watched, and at the
/// latest after a minute. It may also say so without a change.
///
/// Threading: everything on the home's executor.
class PeerStoreWatch {
public:
    static constexpr Seconds backstopInterval = 60s;

    /// `onChange` is called on the home's executor. `home` outlives this.
    PeerStoreWatch(Home& home, std::function<void()> onChange);
    PeerStoreWatch(const PeerStoreWatch&) = delete;
    PeerStoreWatch& operator=(const PeerStoreWatch&) = delete;

    /// Once; the data folder is there. Says once that there may be a change.
    void start();
    /// Nothing is called any more.
    void stop() noexcept;

private:
    void look();
    void lookAgainLater();
    [[nodiscard]] bool hasChanged();

    Home& home_;
    std::function<void()> onChange_;
    std::shared_ptr<PeerStoreWatch*> self_; ///< what is still posted when this has gone finds nothing here
    std::unique_ptr<platform::FolderWatch> watch_;
    std::unique_ptr<platform::Timer> backstop_;
    platform::FileChangeCheck check_;
};

} // namespace orlinth::host
