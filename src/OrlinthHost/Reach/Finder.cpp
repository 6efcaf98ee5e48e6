#include "OrlinthHost/Reach/Finder.h"

#include "OrlinthCore/SecureChannel/ResponderProof.h"
#include "OrlinthHost/Phones/MetPhones.h"
#include "OrlinthHost/Phones/SharedPeers.h"
#include "base/Counted.h"
#include "base/Precondition.h"
#include "platform/Cancelled.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <array>
#include <functional>
#include <utility>

namespace orlinth::host {
namespace {

/// Where the sweep is tried out before: a VPN may have taken a part of the network.
constexpr std::size_t samples = 8;

std::uint16_t portOf(const PeerRecord& phone) {
    return std::in_range<std::uint16_t>(phone.peer_port) ? static_cast<std::uint16_t>(phone.peer_port) : 0;
}

std::optional<HostAddress> hostAt(const platform::IpAddress& address) {
    return HostAddress::parse(platform::textOf(address));
}

/// Whether packets to these addresses go out by the interface itself, as far as a few of them show.
bool areOnLink(const Whereabouts& here, const FinderPlan::Sweep& sweep) {
    const std::size_t step = std::max<std::size_t>(sweep.addresses.size() / samples, 1);
    for (std::size_t i = 0; i < sweep.addresses.size(); i += step) {
        const std::optional<HostAddress> host = hostAt(sweep.addresses.at(i));
        const OwnNetwork* const network = host ? here.ownNetworkOf(*host) : nullptr;
        if (network == nullptr || network->interface != sweep.interface) {
            return false;
        }
    }
    return !sweep.addresses.empty();
}

/// A VPN may have taken the way to an address that was on the link, or behind a router of ours, when the phone was
/// there.
bool leavesByTunnel(const platform::Routes& routes, const Whereabouts& here, const platform::IpAddress& address) {
    try {
        const auto way = routes.to(address);
        const auto* const route = std::get_if<platform::Route>(&way);
        return route != nullptr && here.kindOf(route->interface) == InterfaceKind::tunnel;
    } catch (const platform::SystemError&) {
        return false; // the connection will fail of the same
    }
}

Task<> atTheNextTurn(std::function<void()> what) {
    what();
    co_return;
}

} // namespace

struct Finder::State {
    PeerRecord phone;
    bool maySweep = true;
    platform::Clock::Instant begun{};
    bool isUrgent = false;
    bool isAsleep = false; ///< there is nothing to look for until it is woken
    bool isWoken = false;
    bool isIdle = false; ///< everything was tried
    bool isOver = false; ///< nobody wants to know any more
    /// The network that may be swept for this phone, for whichever of the phones somebody sweeps it.
    std::optional<NetworkId> sweepable;
    std::optional<HostAddress> found;

    [[nodiscard]] bool isWanted() const noexcept { return !isOver && !found; }
};

Finder::Finder(Home& home, FindSetting find, SweepRate rate)
    : home_(home),
      find_(find),
      rate_(rate),
      memory_(home.system.files, home.system.clock, home.system.log, home.dataDirectory()),
      news_(home.executor),
      looks_(home.executor),
      probes_(home.executor) {}

Finder::~Finder() = default;

std::unique_ptr<Finder::Search> Finder::begin(PeerRecord phone, MaySweep maySweep) {
    const auto state = std::make_shared<State>();
    state->phone = std::move(phone);
    state->maySweep = maySweep == MaySweep::yes;
    state->begun = home_.system.clock.now();
    state->isIdle = find_ == FindSetting::never;
    if (!state->isIdle) {
        wanted_.push_back(state);
        looks_.add(look(state), [this, state](const std::exception_ptr& error) {
            report(error);
            state->isIdle = true; // nobody waits for what has failed
            news_.changed();
        });
    }
    return std::make_unique<Search>(*this, state);
}

Task<> Finder::finish() {
    probes_.cancelAll();
    co_await probes_.join();
    co_await looks_.join();
}

/// Nobody wants to know any more.
void Finder::leave(const std::shared_ptr<State>& state) {
    state->isOver = true;
    wanted_.remove(state);
    if (wanted_.empty()) {
        probes_.cancelAll();
    }
    news_.changed();
}

bool Finder::isAnyWanted(std::optional<std::uint16_t> port) const {
    return std::ranges::any_of(
        wanted_, [port](const auto& state) { return state->isWanted() && (!port || *port == portOf(state->phone)); });
}

/// The search goes on without what has failed.
void Finder::report(const std::exception_ptr& error) const {
    try {
        if (error) {
            std::rethrow_exception(error);
        }
    } catch (const std::exception& failure) {
        if (!platform::isCancellation(failure)) {
            home_.system.log.write(platform::LogLevel::warning, "com.tarvinex.orlinth", "phones",
                                   "cannot look for a phone: " + describe(failure));
        }
    }
}

// --- looking ---

Task<> Finder::look(std::shared_ptr<State> state) {
    platform::Clock& clock = home_.system.clock;
    const auto mayBegin = [state] { return state->isUrgent || state->isAsleep || !state->isWanted(); };
    static_cast<void>(co_await news_.until(mayBegin, clock, patience));
    if (!state->isAsleep && state->isWanted()) {
        co_await lookOnce(state);
    }
    state->isIdle = true;
    news_.changed();
    co_await news_.until([state] { return state->isWoken || !state->isWanted(); });
    const auto isUnwanted = [state] { return !state->isWanted(); };
    for (Seconds pause = pauseAfterPush;; pause = pauseBetweenLooks) {
        const bool isOver = co_await news_.until(isUnwanted, clock, pause);
        if (isOver) {
            co_return;
        }
        state->isIdle = false;
        state->begun = clock.now() - sweepDelay;
        co_await lookOnce(state);
        state->isIdle = true;
        news_.changed();
        state->maySweep = false; // once is enough
    }
}

Task<> Finder::lookOnce(std::shared_ptr<State> state) {
    platform::Clock& clock = home_.system.clock;
    const platform::Clock::Instant end = clock.now() + limit;
    bool mayComeToSweep = false;
    state->sweepable.reset(); // was true of the network as it was at the look before
    std::vector<Meeting> tried;
    {
        const Whereabouts here = Whereabouts::look(home_.system);
        const SoughtPhone phone = soughtFor(state->phone, here.surroundings());
        const FinderPlan plan(find_, here.networks(), here.neighbours());
        for (const FinderTarget& target : plan.nearby(phone)) {
            if (!leavesByTunnel(home_.system.routes, here, target.address)) {
                ask(target);
            }
        }
        for (const KnownAddress& candidate : phone.candidates) {
            const bool isAsked = !phone.recorded || !candidate.host.isSameAs(*phone.recorded);
            if (isAsked) {
                tried.push_back({.host = candidate.host, .network = here.networkOf(candidate.host)});
            }
        }
        const bool isSweepable = state->maySweep && networkToSweep(*state, here, plan, phone);
        mayComeToSweep = isSweepable || (state->maySweep && plan.waitsForRouter());
    }
    const auto isOver = [this, state] { return !state->isWanted() || probes_.isEmpty(); };
    if (mayComeToSweep) {
        const auto isUnwanted = [state] { return !state->isWanted(); };
        const Seconds left = state->begun + sweepDelay - clock.now();
        const bool isEarly = co_await news_.until(isUnwanted, clock, left);
        if (!isEarly) {
            beginSweep(*state);
        }
    }
    const bool isThrough = co_await news_.until(isOver, clock, end - clock.now());
    if (isThrough && state->isWanted() && !state->isWoken) { // while it wakes up that says nothing
        for (const Meeting& meeting : tried) {
            memory_.failed(state->phone.peer_pubkey, meeting.host, meeting.network);
        }
    }
}

/// Nothing if there is none. Keeps which it is, for the sweeps that others make.
std::optional<FinderPlan::Sweep> Finder::networkToSweep(State& state, const Whereabouts& here, const FinderPlan& plan,
                                                        const SoughtPhone& phone) {
    std::optional<FinderPlan::Sweep> network = plan.sweep(phone);
    if (network && !areOnLink(here, *network)) {
        network.reset();
    }
    state.sweepable = network ? std::optional(network->claim) : std::nullopt;
    return network;
}

/// In the network as it is now: a router that has answered in the meantime says which network that is.
void Finder::beginSweep(State& state) {
    const Whereabouts here = Whereabouts::look(home_.system);
    const SoughtPhone phone = soughtFor(state.phone, here.surroundings());
    const FinderPlan plan(find_, here.networks(), here.neighbours());
    std::optional<FinderPlan::Sweep> network = networkToSweep(state, here, plan, phone);
    if (network && claimSweep(network->claim)) {
        probes_.add(sweep(*std::move(network)), [this](const std::exception_ptr& error) {
            report(error);
            news_.changed();
        });
    }
}

SoughtPhone Finder::soughtFor(const PeerRecord& phone, const Surroundings& here) const {
    return {.port = portOf(phone),
            .recorded = HostAddress::parse(phone.peer_ip),
            .recordedMac = MacAddress::parse(phone.peer_mac),
            .candidates = memory_.candidates(phone.peer_pubkey, here),
            .met = memory_.addressesOf(phone.peer_pubkey)};
}

bool Finder::claimSweep(const NetworkId& network) {
    if (rate_ == SweepRate::shared) {
        return memory_.claimSweep(network);
    }
    const bool isFirst = swept_.insert(network).second;
    if (isFirst) {
        memory_.noteSweep(network);
    }
    return isFirst;
}

Task<> Finder::sweep(FinderPlan::Sweep sweep) {
    platform::Clock& clock = home_.system.clock;
    const platform::Clock::Instant begin = clock.now();
    for (std::size_t i = 0; i < sweep.addresses.size(); ++i) {
        const std::size_t paced = i - std::min(i, sweptAtOnce);
        const platform::Clock::Instant due = begin + Seconds(static_cast<double>(paced) / sweptPerSecond);
        if (due > clock.now()) {
            co_await clock.sleep(due - clock.now());
        }
        co_await probes_.untilFewerThan(maxConnections);
        std::set<std::uint16_t> ports;
        for (const auto& state : wanted_) {
            if (state->isWanted() && !state->isAsleep && state->sweepable == sweep.claim) {
                ports.insert(portOf(state->phone));
            }
        }
        if (ports.empty()) {
            co_return;
        }
        for (const std::uint16_t port : ports) {
            ask({.address = sweep.addresses.at(i), .port = port});
        }
    }
}

void Finder::ask(const FinderTarget& target) {
    if (target.port == 0 || !asked_.insert(target).second) {
        return;
    }
    probes_.add(probe(target), [this, target](const std::exception_ptr&) {
        asked_.erase(target);
        news_.changed();
    });
}

/// A failure of whatever kind means that the phone was not found there.
Task<> Finder::probe(FinderTarget target) {
    platform::ProbeResult result =
        co_await home_.system.probe.connect(target.address, target.port, connectLimit, home_.executor);
    auto* const stream = std::get_if<std::unique_ptr<platform::Stream>>(&result);
    if (stream == nullptr) {
        co_return;
    }
    co_await news_.until([this] { return provers_ < maxProofs; });
    if (!isAnyWanted(target.port)) {
        co_return;
    }
    const Counted counted(provers_);
    const std::optional<platform::PublicKey> key = co_await provedKeyOf(std::move(*stream));
    if (key) {
        heard(target, key->peerKey());
    }
}

Task<std::optional<platform::PublicKey>> Finder::provedKeyOf(std::unique_ptr<platform::Stream> stream) {
    try {
        co_return co_await proveResponder(std::move(stream), home_.system.clock, proofLimit,
                                          std::string(kOrlinthPrologue));
    } catch (const ResponderError&) {
        co_return std::nullopt; // nobody that we look for
    }
}

void Finder::heard(const FinderTarget& target, const PeerKey& key) {
    const std::optional<HostAddress> host = hostAt(target.address);
    for (const std::shared_ptr<State>& state : wanted_) {
        const bool isIt = state->phone.peer_pubkey == key && portOf(state->phone) == target.port;
        if (host && isIt && state->isWanted()) {
            found(*state, *host);
        }
    }
}

void Finder::found(State& state, const HostAddress& host) {
    state.found = host;
    news_.changed();
    later([this, phone = state.phone.peer_pubkey, host] {
        const Meeting meeting = Whereabouts::look(home_.system).meetingAt(host);
        learnIfPaired(home_, phone, [&](AddressMemory& memory) { memory.reached(phone, meeting); });
    });
}

// --- learning ---

/// After those who wait have gone on: the disk does not hold up the phone.
void Finder::later(std::function<void()> learn) {
    looks_.add(atTheNextTurn(std::move(learn)), [this](const std::exception_ptr& error) { report(error); });
}

void Finder::learnReached(const PeerRecord& phone) {
    const std::optional<HostAddress> host = HostAddress::parse(phone.peer_ip);
    const platform::Clock::Instant now = home_.system.clock.now();
    const auto before = reached_.find(phone.peer_pubkey);
    const bool isKnown = before != reached_.end() && before->second.address == phone.peer_ip &&
                         now - before->second.at < AddressBook::resolution;
    if (!host || isKnown) {
        return;
    }
    reached_.insert_or_assign(phone.peer_pubkey, Reached{.address = phone.peer_ip, .at = now});
    const Meeting meeting = Whereabouts::look(home_.system).meetingAt(*host);
    learnIfPaired(home_, phone.peer_pubkey, [&](AddressMemory& memory) { memory.reached(phone.peer_pubkey, meeting); });
}

void Finder::learnFailed(const PeerRecord& phone) {
    const std::optional<HostAddress> host = HostAddress::parse(phone.peer_ip);
    reached_.erase(phone.peer_pubkey);
    if (host && !memory_.addressesOf(phone.peer_pubkey).empty()) {
        memory_.failed(phone.peer_pubkey, *host, Whereabouts::look(home_.system).networkOf(*host));
    }
}

void Finder::learnMoved(const PeerRecord& tried, const HostAddress& found) {
    later([this, tried, found] {
        learnFailed(tried);
        static_cast<void>(recordMove(home_, memory_, tried, found));
    });
}

bool recordMove(const Home& home, AddressMemory& memory, const PeerRecord& tried, const HostAddress& found) {
    const bool isAddress = platform::parseIpAddress(tried.peer_ip).has_value();
    if (found.isIpv6() || !isAddress || found.text() == tried.peer_ip) {
        return false;
    }
    bool isWritten = false;
    try {
        PeerStore peers = home.peers();
        peers.update([&](PeerBook& book) {
            const auto record = std::ranges::find(book.peers, tried.peer_pubkey, &PeerRecord::peer_pubkey);
            const bool isSame =
                record != book.peers.end() && record->peer_ip == tried.peer_ip && record->peer_port == tried.peer_port;
            if (!isSame || !memory.mayMove(tried.peer_pubkey)) {
                return false;
            }
            record->peer_ip = found.text();
            isWritten = true;
            return true;
        });
    } catch (const PeerStoreError& error) {
        home.system.log.write(platform::LogLevel::warning, "com.tarvinex.orlinth", "phones",
                              "cannot save the new address of a phone: " + error.description());
        return false;
    }
    if (isWritten) {
        // Only now: had this program ended before, the turn to replace the address would be used up for nothing.
        learnIfPaired(home, tried.peer_pubkey, [&](AddressMemory& book) { book.moved(tried.peer_pubkey); });
        updateSharedPeers(home);
    }
    return isWritten;
}

// --- Search ---

Finder::Search::~Search() {
    finder_.leave(state_);
}

void Finder::Search::hurry() {
    state_->isUrgent = true;
    finder_.news_.changed();
}

void Finder::Search::giveUp() {
    state_->isAsleep = true;
    finder_.news_.changed();
}

void Finder::Search::wokenUp() {
    state_->isWoken = true;
    finder_.news_.changed();
}

std::optional<HostAddress> Finder::Search::found() const {
    return state_->found;
}

Task<> Finder::Search::untilFound(std::function<bool()> isSo) {
    co_await finder_.news_.until([state = state_, isSo = std::move(isSo)] { return state->found && isSo(); });
}

Task<> Finder::Search::untilOver() {
    co_await finder_.news_.until([state = state_] { return state->found || state->isIdle; });
}

void Finder::Search::changed() noexcept {
    finder_.news_.changed();
}

} // namespace orlinth::host
