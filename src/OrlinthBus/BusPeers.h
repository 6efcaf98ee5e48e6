#pragma once

#include "platform/linux/BusLoop.h"

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace orlinth::bus {

/// Programs on the bus, by their unique names, from when they are added until they leave the bus. A name that had left
/// before it was added goes in the same way.
///
/// Threading: on the executor of the connection.
class BusPeers {
public:
    /// Each of them is a rule that the bus keeps for us, so there is a limit.
    static constexpr std::size_t maxPeers = 64;

    /// `onGone` gets the name of one that has left. It may call add(), and throws nothing.
    explicit BusPeers(std::function<void(const std::string& name)> onGone) : onGone_(std::move(onGone)) {}
    ~BusPeers();
    BusPeers(const BusPeers&) = delete;
    BusPeers& operator=(const BusPeers&) = delete;

    /// Looks after names on this connection, until detach().
    void attach(platform::BusLoop& loop) noexcept { loop_ = &loop; }
    /// Before the connection is closed. Forgets everybody, and tells nobody.
    void detach() noexcept;

    /// Whether it is one of them now: not if there are too many, or the library refuses.
    bool add(const std::string& name);
    /// Looks after it no more. Not from within its onGone.
    void forget(const std::string& name) { peers_.erase(name); }
    [[nodiscard]] bool contains(const std::string& name) const { return peers_.contains(name); }
    [[nodiscard]] bool isEmpty() const noexcept { return peers_.empty(); }

private:
    struct Peer {
        BusPeers& owner;
        std::string name;
        platform::BusSlotRef rule;
        platform::BusSlotRef lookup;
    };

    static int onOwnerChanged(sd_bus_message* message, void* peer, sd_bus_error* error);
    static int onLookedUp(sd_bus_message* message, void* peer, sd_bus_error* error);
    void remove(const std::string& name);

    const std::function<void(const std::string& name)> onGone_;
    platform::BusLoop* loop_ = nullptr; ///< while attached
    std::map<std::string, std::unique_ptr<Peer>> peers_;
};

} // namespace orlinth::bus
