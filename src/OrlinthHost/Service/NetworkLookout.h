#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Phones/AddressBook.h"
#include "OrlinthHost/Phones/NetworkIdentity.h"
#include "platform/FileChangeCheck.h"
#include "platform/Neighbours.h"
#include "platform/NetworkNews.h"
#include "platform/SleepNews.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orlinth::host {

/// Says when this computer has come into another network, has left its own, or has woken up in whatever network there
/// is now, and when a paired phone has come into the one that it is in.
///
/// Systems tell of many changes that change nothing, as when an address is renewed. So this looks for itself, two
/// seconds after the first of several changes, and tells of a network only if an interface, an address or a router is
/// another one than when it looked before.
///
/// A phone is known by the hardware address that it had when it was met before. It is told of when its entry in the
/// table of neighbours becomes good, whenever it is confirmed, and when it is good no more. Nothing is sent for it.
///
/// Nothing here wakes the computer up without news of the system. A system that has none to tell is as if nothing ever
/// happened.
///
/// Threading: everything on the home's executor.
class NetworkLookout {
public:
    /// From the first of several changes to the look at what has changed.
    static constexpr Seconds settleTime = 2s;
    /// How often a new network is told of at most. What comes before is told of when the time is over.
    static constexpr Seconds interval = 60s;

    struct Callbacks {
        /// There is no network any more: no interface is up and running but those for this computer's own programs; or
        /// there is one again. As often as that changes.
        std::function<void(bool isConnected)> onConnected;
        /// The network is another one, or may be, since the computer has slept; or there is one again.
        std::function<void()> onNetwork;
        /// The phone has come into the network.
        std::function<void(const PeerKey& phone)> onPhone;
        /// The phone's hardware address has just answered: of those in the network, and behind onPhone.
        std::function<void(const PeerKey& phone)> onConfirmed;
        /// The phone does not answer any more, as far as the system says.
        std::function<void(const PeerKey& phone)> onPhoneGone;
    };

    /// `home` outlives this. Looks at nothing yet.
    NetworkLookout(Home& home, Callbacks callbacks);
    NetworkLookout(const NetworkLookout&) = delete;
    NetworkLookout& operator=(const NetworkLookout&) = delete;

    /// From now on. Once. Tells at once if there is no network.
    void start();
    /// Nothing is called any more.
    void stop() noexcept;

private:
    /// One network that this computer is in.
    struct Place {
        std::string interface;
        std::string address; ///< with the length of the prefix
        std::string gateway;
        std::optional<MacAddress> gatewayMac; ///< as far as it is known

        [[nodiscard]] bool isSameAs(const Place& other) const;
    };
    struct View {
        bool isConnected = true;
        std::vector<Place> places; ///< in order

        [[nodiscard]] bool isSameAs(const View& other) const;
    };
    using EntryId = std::pair<platform::IpAddress, std::uint32_t>;
    /// A neighbour that is there.
    struct Device {
        MacAddress mac;
        std::vector<PeerKey> phones; ///< which it is, as far as it was met
    };

    [[nodiscard]] View view() const;
    void onNews();
    void onWake();
    void lookIn(Seconds time);
    void look();
    void onNeighbours(const platform::NeighbourEvent& event);
    void see(const platform::Neighbour& entry, bool isNews);
    void tellOfTheGone(const std::vector<PeerKey>& phones);
    void lose(const EntryId& id);
    void takeTable(const std::vector<platform::Neighbour>& table, bool isNews);
    [[nodiscard]] std::vector<PeerKey> phonesWith(const MacAddress& mac);

    Home& home_;
    const Callbacks callbacks_;
    std::unique_ptr<platform::Timer> timer_;
    std::optional<platform::Clock::Instant> lookAt_;
    std::optional<platform::Clock::Instant> toldAt_; ///< of a new network
    View seen_;                                      ///< what was told
    bool isConnected_ = true;                        ///< as told
    std::map<EntryId, Device> good_;
    platform::FileChangeCheck addressesCheck_;
    std::map<MacAddress, std::vector<PeerKey>> phones_; ///< as the file said at the last look
    bool hasSlept_ = false;                             ///< since then
    std::unique_ptr<platform::NetworkWatch> network_;
    std::unique_ptr<platform::SleepWatch> sleep_;
    std::unique_ptr<platform::NeighbourWatch> neighbours_;
};

} // namespace orlinth::host
