#include "OrlinthHost/Reach/PhoneCheck.h"

#include "OrlinthCore/SecureChannel/ResponderProof.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/MetPhones.h"
#include "OrlinthHost/Phones/Whereabouts.h"
#include "OrlinthHost/Reach/ComputerCheck.h"
#include "platform/Cancelled.h"
#include "platform/Deadline.h"
#include "platform/Event.h"
#include "platform/SystemError.h"

#include <asio/experimental/awaitable_operators.hpp>

#include <algorithm>
#include <cerrno>
#include <charconv>

namespace orlinth::host {
namespace {

using platform::IpAddress;
using platform::Ipv4Address;
using State = Evidence::Neighbour::State;
using Device = Evidence::Neighbour::Device;
using Way = Evidence::Route::Way;

/// How far apart the same confirmation may seem to be if its age is asked for twice: the system keeps it in ticks of
/// its clock (4 ms, or 10 at most), and rounds the age down to a hundredth of a second.
constexpr Seconds ageTolerance = 20ms;

Evidence::Route::Interface kindIn(const Whereabouts& here, const std::string& interface) {
    switch (here.kindOf(interface)) {
    case InterfaceKind::tunnel:
        return Evidence::Route::Interface::tunnel;
    case InterfaceKind::containerBridge:
        return Evidence::Route::Interface::containerBridge;
    case InterfaceKind::real:
        break;
    }
    return Evidence::Route::Interface::real;
}

State stateOf(platform::NeighbourState state) {
    switch (state) {
    case platform::NeighbourState::incomplete:
        return State::incomplete;
    case platform::NeighbourState::failed:
        return State::failed;
    default:
        return State::valid;
    }
}

/// "192.168.7.0/24"
std::string networkText(const OwnNetwork& network) {
    Ipv4Address first = network.address;
    constexpr int bitsOfAPart = 8;
    for (int i = 0; i < static_cast<int>(first.size()); ++i) {
        const int bits = std::clamp(network.prefixBits - i * bitsOfAPart, 0, bitsOfAPart);
        first.at(static_cast<std::size_t>(i)) &= static_cast<std::uint8_t>(0xFF << (bitsOfAPart - bits));
    }
    return platform::dottedDecimal(first) + "/" + std::to_string(network.prefixBits);
}

/// The network that the phone named when it was paired, if its address is in that.
std::string networkAtPairing(const PeerRecord& phone, const Ipv4Address& address) {
    const std::size_t slash = phone.peer_subnet.find('/');
    const auto base = platform::parseIpAddress(phone.peer_subnet.substr(0, slash));
    const auto* const ipv4 = base ? std::get_if<Ipv4Address>(&*base) : nullptr;
    if (ipv4 == nullptr || slash == std::string::npos) {
        return {};
    }
    constexpr int maxBits = 32;
    int bits = -1;
    const char* const end = phone.peer_subnet.data() + phone.peer_subnet.size();
    const auto [at, error] = std::from_chars(phone.peer_subnet.data() + slash + 1, end, bits);
    if (error != std::errc() || at != end || bits < 0 || bits > maxBits) {
        return {};
    }
    const OwnNetwork network{.interface = {}, .address = *ipv4, .prefixBits = bits};
    return network.contains(address) ? networkText(network) : std::string();
}

/// One look for one phone. Lives in the frame of checkPhone().
class Look {
public:
    Look(Home& home, PeerRecord phone, PhoneCheckTimes times)
        : home_(home),
          phone_(std::move(phone)),
          times_(times),
          here_(Whereabouts::look(home.system)),
          address_(platform::parseIpAddress(phone_.peer_ip)),
          host_(HostAddress::parse(phone_.peer_ip)),
          begin_(home.system.clock.now()),
          hasChanged_(home.executor) {}

    /// `onConnected` outlives the task.
    Task<> run(const std::function<void()>& onConnected) {
        lookAround();
        if (!evidence_.hasNetwork || (evidence_.route && evidence_.route->way == Way::none)) {
            co_return; // whatever was sent would not leave this computer
        }
        if (address_) {
            co_await connectToAddress();
        } else {
            co_await connectToName();
        }
        if (stream_) {
            if (onConnected) {
                onConnected();
            }
            co_await prove();
        }
        lookAgain();
    }

    /// In place of run(), of an attempt that somebody else has made.
    void judge(Evidence::Connect failure) {
        lookAround();
        evidence_.connect = failure;
        if (failure == Evidence::Connect::refused) { // whoever refuses is there, whatever is known of the way
            evidence_.hasNetwork = true;
            evidence_.route = std::nullopt;
        }
        if (mayBeAskedFurther() || isOnLink()) {
            lookAtNeighbour();
        }
    }

    [[nodiscard]] PhoneFindings findings() const {
        PhoneFindings findings{
            .cause = diagnose(evidence_), .details = {}, .evidence = evidence_, .duration = duration_};
        CauseDetails& details = findings.details;
        details.phone = phone_.peer_hostname;
        details.address = phone_.peer_ip;
        details.hasPushToken = !phone_.peer_fcm_token.empty();
        details.hasPushKey = hasPushKey(home_);
        details.interface = route_ ? route_->interface : "";
        details.seenBefore = seenBefore_;
        if (const Ipv4Address* const ipv4 = ipv4Address()) {
            const OwnNetwork* const real = realNetworkOf(*ipv4);
            details.phonesNetwork = real != nullptr ? networkText(*real) : networkAtPairing(phone_, *ipv4);
        }
        const std::vector<OwnNetwork>& own = here_.networks();
        const auto isHome = [](const OwnNetwork& network) {
            return network.kind == InterfaceKind::real && network.gateway.has_value();
        };
        const auto place = std::ranges::find_if(own, isHome);
        if (!own.empty()) {
            details.ownNetwork = networkText(place != own.end() ? *place : own.front());
        }
        return findings;
    }

private:
    [[nodiscard]] Seconds elapsed() const { return home_.system.clock.now() - begin_; }

    [[nodiscard]] const Ipv4Address* ipv4Address() const {
        return address_ ? std::get_if<Ipv4Address>(&*address_) : nullptr;
    }

    [[nodiscard]] const OwnNetwork* realNetworkOf(const Ipv4Address& address) const {
        const std::vector<OwnNetwork>& own = here_.networks();
        const auto place = std::ranges::find_if(own, [&address](const OwnNetwork& network) {
            return network.kind == InterfaceKind::real && network.contains(address);
        });
        return place != own.end() ? &*place : nullptr;
    }

    [[nodiscard]] bool isOnLink() const { return route_ && route_->isOnLink(); }
    /// The address is in a network of this computer, and what is sent there stays in it.
    [[nodiscard]] bool mayBeAskedFurther() const {
        return isOnLink() && evidence_.route && evidence_.route->interface != Evidence::Route::Interface::tunnel;
    }

    [[nodiscard]] bool hasNetwork() const {
        const Ipv4Address* const ipv4 = ipv4Address();
        if (!address_ || (route_ && (route_->isThisComputer || ipv4 == nullptr))) {
            return true; // a name, which may be anywhere, or an address that needs no network of IPv4
        }
        return std::ranges::any_of(here_.networks(), [ipv4](const OwnNetwork& network) {
            return network.kind != InterfaceKind::containerBridge || (ipv4 != nullptr && network.contains(*ipv4));
        });
    }

    /// What the system knows before anything is sent.
    void lookAround() {
        if (address_) {
            askForRoute();
            askWhenConfirmed();
        }
        evidence_.hasNetwork = hasNetwork();
        const OwnNetwork* const network = host_ ? here_.ownNetworkOf(*host_) : nullptr;
        if (network != nullptr) {
            evidence_.isGatewayHere = network->gatewayMac.has_value();
            evidence_.isWireless = network->isWireless;
        }
        learnFromMemory(network);
    }

    void askForRoute() {
        try {
            const std::variant<platform::Route, platform::NoRoute> way = home_.system.routes.to(*address_);
            evidence_.route = Evidence::Route();
            if (const auto* const route = std::get_if<platform::Route>(&way)) {
                route_ = *route;
                evidence_.route->way = route->gateway ? Way::gateway : Way::onLink;
                evidence_.route->interface = kindIn(here_, route->interface);
            } else {
                evidence_.route->way = Way::none;
            }
            const Ipv4Address* const ipv4 = ipv4Address();
            evidence_.route->isInRealNetwork = ipv4 != nullptr && realNetworkOf(*ipv4) != nullptr;
        } catch (const platform::SystemError&) {
            evidence_.route = std::nullopt; // not measured
        }
    }

    void askWhenConfirmed() {
        const std::optional<platform::Neighbour> entry = neighbour();
        if (entry && entry->confirmedAge) {
            confirmedBefore_ = home_.system.clock.now() - *entry->confirmedAge;
        }
    }

    void learnFromMemory(const OwnNetwork* network) {
        const std::vector<KnownAddress> known =
            AddressMemory(home_.system.files, home_.system.clock, home_.system.log, home_.dataDirectory())
                .addressesOf(phone_.peer_pubkey);
        for (const KnownAddress& address : known) {
            const bool isHere = network != nullptr && network->id && address.network == network->id;
            evidence_.wasPhoneEverMetHere = evidence_.wasPhoneEverMetHere || (isHere && address.reached);
            if (isHere && address.mac) {
                knownMacs_.push_back(*address.mac);
            }
        }
        gatewayMac_ = network != nullptr && network->gateway != address_ ? network->gatewayMac : std::nullopt;
    }

    Task<> connectToAddress() {
        if (mayBeAskedFurther()) {
            watchNeighbour();
        }
        const Seconds limit = mayBeAskedFurther() || !route_ ? times_.onLink : times_.elsewhere;
        OneShot<platform::ProbeResult> outcome;
        using namespace asio::experimental::awaitable_operators;
        Task<> connect = platform::settle(
            outcome,
            home_.system.probe.connect(*address_, static_cast<std::uint16_t>(phone_.peer_port), limit, home_.executor));
        Task<> decide = untilDecided();
        co_await (std::move(connect) || std::move(decide));
        watch_.reset();
        takeResult(outcome);
    }

    /// @throws platform::Cancelled
    void takeResult(OneShot<platform::ProbeResult>& outcome) {
        try {
            platform::ProbeResult result = outcome.take();
            if (auto* const stream = std::get_if<std::unique_ptr<platform::Stream>>(&result)) {
                stream_ = std::move(*stream);
                evidence_.connect = Evidence::Connect::connected;
            } else if (const auto* const failure = std::get_if<platform::ProbeFailure>(&result)) {
                takeFailure(*failure);
            } else {
                evidence_.connect = Evidence::Connect::timedOut;
            }
        } catch (const platform::SystemError&) {
            evidence_.connect = Evidence::Connect::failed; // this computer has no room for another connection
        } catch (const std::exception& error) {
            if (!isDecided_ || !platform::isCancellation(error)) {
                throw;
            }
            evidence_.connect = Evidence::Connect::timedOut; // or it would be, with more patience
        }
    }

    void takeFailure(const platform::ProbeFailure& failure) {
        evidence_.connect = Evidence::connectOf(failure.code.value());
        if (!failure.icmp) {
            return;
        }
        using Sender = Evidence::Icmp::Sender;
        Sender sender = Sender::router;
        if (failure.icmp->from == *address_) {
            sender = Sender::phone;
        } else if (route_ && route_->source == failure.icmp->from) {
            sender = Sender::ownAddress;
        }
        evidence_.icmp = Evidence::Icmp{.sender = sender, .type = failure.icmp->type, .code = failure.icmp->code};
    }

    /// From now on changes of the phone's entry are seen, if they can be.
    void watchNeighbour() {
        try {
            watch_ = home_.system.neighbours.watch(home_.executor,
                                                   [this](const platform::NeighbourEvent& event) { hear(event); });
        } catch (const platform::SystemError&) {
            watch_ = nullptr; // then the connection's own limit ends the look
        }
    }

    void hear(const platform::NeighbourEvent& event) {
        if (const auto* const changed = std::get_if<platform::NeighbourChanged>(&event)) {
            hear(changed->now);
        } else if (const auto* const anew = std::get_if<platform::NeighboursAnew>(&event)) {
            std::ranges::for_each(anew->now, [this](const platform::Neighbour& entry) { hear(entry); });
        }
    }
    void hear(const platform::Neighbour& entry) {
        if (isPhones(entry)) {
            isGone_ = entry.state == platform::NeighbourState::failed;
            hasChanged_.set();
        }
    }

    [[nodiscard]] bool isPhones(const platform::Neighbour& entry) const {
        return address_ && entry.address == *address_ && route_ && entry.interfaceIndex == route_->interfaceIndex;
    }

    [[nodiscard]] std::optional<platform::Neighbour> neighbour() const {
        try {
            for (const platform::Neighbour& entry : home_.system.neighbours.list()) {
                if (isPhones(entry)) {
                    return entry;
                }
            }
        } catch (const platform::SystemError&) {
            return std::nullopt; // not measured
        }
        return std::nullopt;
    }

    /// Whether the entry, which was asked for at this instant, has been confirmed since the look began. A confirmation
    /// that was known by then does not count again. What is so once remains so.
    [[nodiscard]] bool isConfirmedSince(const platform::Neighbour& entry, platform::Clock::Instant asked) {
        if (stateOf(entry.state) != State::valid || !entry.confirmedAge) {
            return wasConfirmedSince_;
        }
        const bool isOlder = *entry.confirmedAge >= elapsed() + ageTolerance;
        const bool isKnown = confirmedBefore_ && asked - *entry.confirmedAge <= *confirmedBefore_ + ageTolerance;
        wasConfirmedSince_ = wasConfirmedSince_ || (!isOlder && !isKnown);
        return wasConfirmedSince_;
    }

    /// Returns when it is certain that no connection will come, and never otherwise. Nothing escapes.
    Task<> untilDecided() {
        try {
            isDecided_ = co_await decide();
        } catch (const std::exception& error) {
            if (!platform::isCancellation(error)) {
                throw;
            }
        }
    }

    Task<bool> decide() {
        co_await whileNothingChanges(times_.further);
        const std::optional<platform::Neighbour> entry = neighbour();
        if (!isGone_ && mayBeAskedFurther() && entry && stateOf(entry->state) == State::valid) {
            evidence_.isDatagramForbidden = !home_.system.probe.maySendDatagram(*address_);
            if (evidence_.isDatagramForbidden) {
                co_return true;
            }
            co_await askOtherPort();
        }
        for (;;) {
            co_await whileNothingChanges(times_.silence);
            if (isGone_) {
                co_return true;
            }
            const platform::Clock::Instant asked = home_.system.clock.now();
            const std::optional<platform::Neighbour> now = neighbour();
            if (evidence_.isOtherPortRefused || (mayBeAskedFurther() && now && isConfirmedSince(*now, asked))) {
                co_return true; // it is there, and its port is silent
            }
            hasChanged_.reset();
            co_await hasChanged_.wait();
        }
    }

    /// Until so much time has passed since the beginning, or the phone is gone.
    Task<> whileNothingChanges(Seconds time) {
        while (!isGone_ && elapsed() < time) {
            hasChanged_.reset();
            static_cast<void>(co_await hasChanged_.wait(home_.system.clock, time - elapsed()));
        }
    }

    Task<> askOtherPort() {
        const Seconds limit = times_.silence - times_.further;
        try {
            platform::ProbeResult result =
                co_await home_.system.probe.connect(*address_, platform::discardPort, limit, home_.executor);
            const auto* const failure = std::get_if<platform::ProbeFailure>(&result);
            evidence_.isOtherPortRefused = failure != nullptr && failure->code.value() == ECONNREFUSED;
        } catch (const platform::SystemError&) {
            evidence_.isOtherPortRefused = false; // no room for another connection: not measured
        }
    }

    /// Only for records whose address is a name.
    Task<> connectToName() {
        OneShot<std::unique_ptr<platform::Stream>> outcome;
        co_await platform::settleFirst(
            outcome, home_.system.clock, times_.onLink,
            std::make_exception_ptr(platform::SystemError(std::make_error_code(std::errc::timed_out))),
            home_.system.network.connect(phone_.peer_ip, static_cast<std::uint16_t>(phone_.peer_port), home_.executor));
        try {
            stream_ = outcome.take();
            evidence_.connect = Evidence::Connect::connected;
        } catch (const platform::SystemError& error) {
            const bool isNumber =
                error.code().category() == std::generic_category() || error.code().category() == std::system_category();
            evidence_.connect = isNumber ? Evidence::connectOf(error.code().value()) : Evidence::Connect::failed;
        }
    }

    Task<> prove() {
        const Seconds limit = std::min(times_.proof, times_.whole - elapsed());
        if (limit <= 0s) {
            co_return; // this program was stopped for a while
        }
        try {
            const platform::PublicKey key =
                co_await proveResponder(std::move(stream_), home_.system.clock, limit, std::string(kOrlinthPrologue));
            evidence_.proof =
                key.peerKey() == phone_.peer_pubkey ? Evidence::Proof::phonesKey : Evidence::Proof::otherKey;
        } catch (const ResponderError& error) {
            if (error.which() != ResponderError::Case::silent) {
                evidence_.proof = Evidence::Proof::otherProtocol;
            } else if (limit >= times_.proof) {
                evidence_.proof = Evidence::Proof::silence;
            } // else it had too little time to tell
        }
    }

    /// What the system has learnt meanwhile.
    void lookAgain() {
        duration_ = elapsed();
        if (mayBeAskedFurther()) {
            lookAtNeighbour();
        }
        if (evidence_.proof == Evidence::Proof::phonesKey && host_ && isOnLink()) {
            const Meeting meeting = Whereabouts::look(home_.system).meetingAt(*host_);
            learnIfPaired(home_, phone_.peer_pubkey,
                          [&](AddressMemory& memory) { memory.reached(phone_.peer_pubkey, meeting); });
        }
    }

    void lookAtNeighbour() {
        const platform::Clock::Instant asked = home_.system.clock.now();
        const std::optional<platform::Neighbour> entry = neighbour();
        if (!entry) {
            return;
        }
        Evidence::Neighbour seen{.state = isGone_ ? State::failed : stateOf(entry->state)};
        seen.wasConfirmedSince = isConfirmedSince(*entry, asked);
        if (const std::optional<MacAddress> mac = usableMacOf(*entry)) {
            seen.device = deviceOf(*mac);
            seenBefore_ = entry->confirmedAge;
        }
        evidence_.neighbour = seen;
    }

    [[nodiscard]] Device deviceOf(const MacAddress& mac) const {
        if (std::ranges::find(knownMacs_, mac) != knownMacs_.end()) {
            return Device::phone;
        }
        if (gatewayMac_ == mac) {
            return Device::gateway;
        }
        return knownMacs_.empty() ? Device::unknown : Device::other;
    }

    Home& home_;
    const PeerRecord phone_;
    const PhoneCheckTimes times_;
    const Whereabouts here_;
    const std::optional<IpAddress> address_; ///< nothing if the record has a name
    const std::optional<HostAddress> host_;  ///< nothing also of this computer's own address
    const platform::Clock::Instant begin_;
    platform::Event hasChanged_;                              ///< the phone's entry of the neighbour table
    std::optional<platform::Clock::Instant> confirmedBefore_; ///< when that was so before anything was sent
    bool wasConfirmedSince_ = false;
    bool isGone_ = false; ///< it does not answer, as that says
    bool isDecided_ = false;
    std::optional<platform::Route> route_;
    std::vector<MacAddress> knownMacs_; ///< of the phone, in this network
    std::optional<MacAddress> gatewayMac_;
    std::unique_ptr<platform::NeighbourWatch> watch_;
    std::unique_ptr<platform::Stream> stream_;
    Evidence evidence_;
    std::optional<Seconds> seenBefore_;
    Seconds duration_{};
};

} // namespace

PhoneFindings explainFailure(Home& home, const PeerRecord& phone, Evidence::Connect failure) {
    Look look(home, phone, {});
    look.judge(failure);
    PhoneFindings findings = look.findings();
    findings.details.wasWokenInVain = true; // who connects to a phone also wakes it
    if (findings.cause == Cause::silent && !findings.details.seenBefore) {
        findings.cause = Cause::unknown; // nothing at all has been heard of it
    }
    return findings;
}

Task<PhoneFindings> checkPhone(Home& home, PeerRecord phone, PhoneCheckTimes times, std::function<void()> onConnected) {
    Look look(home, std::move(phone), times);
    co_await look.run(onConnected);
    co_return look.findings();
}

} // namespace orlinth::host
