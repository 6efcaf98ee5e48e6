#include "OrlinthHost/Service/NetworkLookout.h"

#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/Whereabouts.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <tuple>

namespace orlinth::host {

namespace {

/// Whether some interface leads out of this computer. An address is not asked for: one of its own choice is enough for
/// a cable between two.
bool hasLink(const Home& home, const Whereabouts& here) {
    std::vector<platform::InterfaceAddress> entries;
    try {
        entries = home.system.interfaces.list();
    } catch (const platform::SystemError&) {
        return true; // nobody knows; whoever tries finds out
    }
    return std::ranges::any_of(entries, [&here](const platform::InterfaceAddress& entry) {
        return entry.isUp && entry.isRunning && !entry.isLoopback &&
               here.kindOf(entry.name) != InterfaceKind::containerBridge;
    });
}

} // namespace

bool NetworkLookout::Place::isSameAs(const Place& other) const {
    const bool isOtherRouter = gatewayMac && other.gatewayMac && *gatewayMac != *other.gatewayMac;
    return interface == other.interface && address == other.address && gateway == other.gateway && !isOtherRouter;
}

bool NetworkLookout::View::isSameAs(const View& other) const {
    return isConnected == other.isConnected &&
           std::ranges::equal(places, other.places,
                              [](const Place& one, const Place& another) { return one.isSameAs(another); });
}

NetworkLookout::NetworkLookout(Home& home, Callbacks callbacks)
    : home_(home), callbacks_(std::move(callbacks)), timer_(home.system.clock.makeTimer(home.executor)) {}

void NetworkLookout::start() {
    const auto log = [this](const platform::SystemError& error) {
        home_.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "serve",
                               "cannot watch the network: " + error.description());
    };
    try {
        network_ = home_.system.networkNews.watch(home_.executor, [this] { onNews(); });
    } catch (const platform::SystemError& error) {
        log(error);
    }
    try {
        neighbours_ = home_.system.neighbours.watch(
            home_.executor, [this](const platform::NeighbourEvent& event) { onNeighbours(event); });
        takeTable(home_.system.neighbours.list(), false);
    } catch (const platform::SystemError& error) {
        log(error);
    }
    sleep_ = home_.system.sleepNews.watch(home_.executor, [this] { onWake(); });
    seen_ = view();
    isConnected_ = seen_.isConnected;
    if (!isConnected_) {
        callbacks_.onConnected(false);
    }
}

void NetworkLookout::stop() noexcept {
    timer_->disarm();
    network_.reset();
    sleep_.reset();
    neighbours_.reset();
}

NetworkLookout::View NetworkLookout::view() const {
    const Whereabouts here = Whereabouts::look(home_.system);
    View view{.isConnected = hasLink(home_, here), .places = {}};
    for (const OwnNetwork& network : here.networks()) {
        if (network.kind != InterfaceKind::containerBridge) {
            view.places.push_back(
                {.interface = network.interface,
                 .address = platform::dottedDecimal(network.address) + "/" + std::to_string(network.prefixBits),
                 .gateway = network.gateway ? platform::textOf(*network.gateway) : "",
                 .gatewayMac = network.gatewayMac});
        }
    }
    std::ranges::sort(view.places, {}, [](const Place& place) { return std::tie(place.interface, place.address); });
    return view;
}

void NetworkLookout::onNews() {
    if (!lookAt_ || *lookAt_ - home_.system.clock.now() > settleTime) {
        lookIn(settleTime);
    }
}

/// A minute in which the computer slept is a long one.
void NetworkLookout::onWake() {
    hasSlept_ = true;
    toldAt_.reset();
    onNews();
}

void NetworkLookout::lookIn(Seconds time) {
    lookAt_ = home_.system.clock.now() + time;
    timer_->arm(time, [this] {
        lookAt_.reset();
        look();
    });
}

void NetworkLookout::look() {
    View now = view();
    if (std::exchange(isConnected_, now.isConnected) != now.isConnected) {
        callbacks_.onConnected(now.isConnected);
    }
    if (now.isSameAs(seen_) && !(hasSlept_ && now.isConnected)) {
        for (std::size_t i = 0; i < now.places.size(); ++i) { // a router that has been spoken to meanwhile
            std::optional<MacAddress>& known = seen_.places[i].gatewayMac;
            known = now.places[i].gatewayMac ? now.places[i].gatewayMac : known;
        }
        return;
    }
    if (!now.isConnected) {
        seen_ = std::move(now);
        return;
    }
    const platform::Clock::Instant instant = home_.system.clock.now();
    if (toldAt_ && instant - *toldAt_ < interval) {
        lookIn(interval - (instant - *toldAt_));
        return;
    }
    toldAt_ = instant;
    hasSlept_ = false;
    seen_ = std::move(now);
    callbacks_.onNetwork();
}

void NetworkLookout::onNeighbours(const platform::NeighbourEvent& event) {
    if (const auto* const changed = std::get_if<platform::NeighbourChanged>(&event)) {
        see(changed->now, true);
    } else if (const auto* const gone = std::get_if<platform::NeighbourGone>(&event)) {
        lose({gone->last.address, gone->last.interfaceIndex});
    } else {
        takeTable(std::get<platform::NeighboursAnew>(event).now, true);
    }
}

void NetworkLookout::see(const platform::Neighbour& entry, bool isNews) {
    const EntryId id(entry.address, entry.interfaceIndex);
    const std::optional<MacAddress> mac = usableMacOf(entry);
    if (!mac) {
        lose(id);
        return;
    }
    const std::vector<PeerKey> phones = phonesWith(*mac);
    const auto place = good_.find(id);
    // the same device as before has not come, though it may have become known only now that it is the phone
    const bool isOther = place == good_.end() || place->second.mac != *mac;
    const std::vector<PeerKey> before = place != good_.end() ? place->second.phones : std::vector<PeerKey>();
    good_.insert_or_assign(id, Device{.mac = *mac, .phones = phones});
    tellOfTheGone(before);
    for (const PeerKey& phone : phones) {
        const bool hasCome = isOther && std::ranges::find(before, phone) == before.end();
        if (hasCome && isNews) {
            callbacks_.onPhone(phone);
        }
        if (entry.state == platform::NeighbourState::reachable) {
            callbacks_.onConfirmed(phone);
        }
    }
}

void NetworkLookout::lose(const EntryId& id) {
    const auto place = good_.find(id);
    if (place != good_.end()) {
        const std::vector<PeerKey> phones = std::move(place->second.phones);
        good_.erase(place);
        tellOfTheGone(phones);
    }
}

/// Those that no entry is of any more: a phone has several, of IPv4 and of IPv6.
void NetworkLookout::tellOfTheGone(const std::vector<PeerKey>& phones) {
    for (const PeerKey& phone : phones) {
        const bool isThere = std::ranges::any_of(good_, [&phone](const auto& entry) {
            return std::ranges::find(entry.second.phones, phone) != entry.second.phones.end();
        });
        if (!isThere) {
            callbacks_.onPhoneGone(phone);
        }
    }
}

void NetworkLookout::takeTable(const std::vector<platform::Neighbour>& table, bool isNews) {
    std::map<EntryId, Device> before = good_;
    for (const platform::Neighbour& entry : table) {
        before.erase({entry.address, entry.interfaceIndex});
        see(entry, isNews);
    }
    for (const auto& [id, device] : before) { // those that are not there any more
        lose(id);
    }
}

/// Phones are met all the time, and by other processes too.
std::vector<PeerKey> NetworkLookout::phonesWith(const MacAddress& mac) {
    const AddressMemory memory(home_.system.files, home_.system.clock, home_.system.log, home_.dataDirectory());
    bool isOld = true;
    try {
        isOld = addressesCheck_.look(home_.system.files, home_.system.clock,
                                     home_.dataDirectory() / AddressMemory::fileName) !=
                platform::FileChangeCheck::Answer::same;
    } catch (const platform::SystemError&) {
        addressesCheck_.doubt(); // it may pass
    }
    if (isOld) {
        phones_ = memory.phonesByHardware();
    }
    const auto found = phones_.find(mac);
    return found != phones_.end() ? found->second : std::vector<PeerKey>();
}

} // namespace orlinth::host
