#include "OrlinthHost/Reach/ComputerCheck.h"

#include "OrlinthCore/Sending/FcmWake.h"
#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "base/Text.h"
#include "platform/Cancelled.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <exception>

namespace orlinth::host {
namespace {

/// How far apart the clocks may be before a token endpoint refuses the key for that: a few minutes (RFC 7523 §3).
constexpr Seconds maxClockError = 5min;

using Check = Finding::Check;
using Status = Finding::Status;
using platform::FirewallReport;
using platform::Ipv4Address;

AddressMemory memoryOf(const Home& home) {
    return {home.system.files, home.system.clock, home.system.log, home.dataDirectory()};
}

FcmWake makeWake(const Home& home) {
    return FcmWake({.files = home.system.files,
                    .clock = home.system.clock,
                    .https = home.system.https,
                    .queues = home.system.queues},
                   FcmWake::defaultServiceAccountURL(home.system.directories));
}

/// "at 14:05 today", "on 2026-03-09 at 17:05".
std::string whenInWords(EpochMilliseconds moment, EpochMilliseconds now) {
    constexpr std::size_t dateLength = 10;
    const std::string then = humanTime(moment);
    if (then.size() <= dateLength + 1) { // a time that no calendar has
        return "at some time";
    }
    const std::string date = then.substr(0, dateLength);
    const std::string time = then.substr(dateLength + 1);
    return date == humanTime(now).substr(0, dateLength) ? "at " + time + " today" : "on " + date + " at " + time;
}

Finding finding(Check check, Status status, std::string remark = {}) {
    Finding found;
    found.check = check;
    found.status = status;
    found.remark = std::move(remark);
    return found;
}

Finding finding(Check check, Status status, Cause cause, CauseDetails details) {
    Finding found = finding(check, status);
    found.cause = cause;
    found.details = std::move(details);
    return found;
}

/// Whether the answer of the push project is about the key: it is not if the project has too much to do, or if it was
/// somebody else who answered.
bool isAboutKey(int httpStatus) {
    constexpr int firstRefusal = 400;
    constexpr int timedOut = 408;
    constexpr int tooMany = 429;
    constexpr int firstFailure = 500;
    return httpStatus >= firstRefusal && httpStatus < firstFailure && httpStatus != timedOut && httpStatus != tooMany;
}

/// Why no phone can be woken.
struct KeyTrouble {
    // Mostly the cause says all. NOLINTNEXTLINE(google-explicit-constructor)
    KeyTrouble(Cause which, std::optional<Seconds> error = std::nullopt) : cause(which), clockError(error) {}
    Cause cause;
    std::optional<Seconds> clockError; ///< of Cause::clock
};

/// Has the push project take the key, and compares the clocks by the way. @throws as FcmWake::tryAccess()
Task<std::optional<KeyTrouble>> troubleWithAccess(FcmWake& wake) {
    std::exception_ptr refusal;
    try {
        co_await wake.tryAccess();
    } catch (const FcmWake::Error&) {
        refusal = std::current_exception();
    }
    const std::optional<Seconds> error = wake.clockError();
    if (error && (*error > maxClockError || *error < -maxClockError)) {
        co_return KeyTrouble(Cause::clock, error); // a key that is refused may be refused for that alone
    }
    if (refusal) {
        std::rethrow_exception(refusal);
    }
    co_return std::nullopt;
}

/// The key, by itself and as the push project has it. Nothing if it can be used.
Task<std::optional<KeyTrouble>> troubleWithKey(Home& home, bool asksProject) {
    try {
        FcmWake wake = makeWake(home);
        wake.tryKey();
        if (asksProject) {
            co_return co_await troubleWithAccess(wake);
        }
    } catch (const FcmWake::Error& error) {
        using Case = FcmWake::Error::Case;
        switch (error.which()) {
        case Case::oauthHTTP:
        case Case::fcmHTTP:
            co_return isAboutKey(error.status()) ? Cause::pushRefused : Cause::unknown;
        case Case::transport:
            co_return Cause::unknown;
        default:
            co_return Cause::pushKey;
        }
    } catch (const platform::HttpError&) {
        co_return Cause::unknown;
    }
    co_return std::nullopt;
}

} // namespace

std::string Arrival::inWords(EpochMilliseconds now) const {
    return forDisplay(phone) + " came in " + whenInWords(at, now);
}

std::optional<Arrival> lastArrival(const Home& home, const std::vector<PeerRecord>& phones) {
    std::optional<Arrival> last;
    for (const PeerRecord& phone : phones) {
        for (const KnownAddress& address : memoryOf(home).addressesOf(phone.peer_pubkey)) {
            if (address.came && (!last || *address.came > last->at)) {
                last = Arrival{.phone = phone.peer_hostname, .at = *address.came};
            }
        }
    }
    return last;
}

const OwnNetwork* homeNetworkOf(const Whereabouts& here) {
    const OwnNetwork* best = nullptr;
    const auto rank = [](const OwnNetwork& network) {
        return (network.kind == InterfaceKind::real ? 2 : 0) + (network.gateway ? 1 : 0);
    };
    for (const OwnNetwork& network : here.networks()) {
        const bool isOfOthers = network.kind != InterfaceKind::containerBridge;
        if (isOfOthers && (best == nullptr || rank(network) > rank(*best))) {
            best = &network;
        }
    }
    return best;
}

Finding checkNetwork(const Home& home, const Whereabouts& here) {
    const OwnNetwork* const network = homeNetworkOf(here);
    if (network == nullptr) {
        return finding(Check::computer, Status::problem, Cause::noNetwork, {});
    }
    const std::string address = platform::dottedDecimal(network->address);
    const std::optional<ToldAddress> told = memoryOf(home).told();
    const auto isOurs = [&told](const OwnNetwork& own) {
        return platform::dottedDecimal(own.address) == told->host.text();
    };
    Finding found = finding(Check::computer, Status::ok, address + " on " + forDisplay(network->interface));
    if (told && !told->host.isIpv6() && std::ranges::none_of(here.networks(), isOurs)) {
        found = finding(Check::computer, Status::problem, Cause::ownAddress,
                        {.address = told->host.text(), .addressNow = address});
        found.evidence["told_address"] = told->host.text();
    }
    found.evidence["address"] = address;
    found.evidence["interface"] = network->interface;
    return found;
}

bool isWayInQuestion(const Home& home, const Whereabouts& here, const std::vector<PeerRecord>& phones) {
    return std::ranges::any_of(phones, [&](const PeerRecord& phone) {
        const std::optional<platform::IpAddress> address = platform::parseIpAddress(phone.peer_ip);
        const auto* const ipv4 = address ? std::get_if<Ipv4Address>(&*address) : nullptr;
        const auto holds = [ipv4](const OwnNetwork& network) {
            return network.kind == InterfaceKind::real && network.contains(*ipv4);
        };
        if (ipv4 == nullptr || std::ranges::none_of(here.networks(), holds)) {
            return false;
        }
        try {
            const auto way = home.system.routes.to(*address);
            const auto* const route = std::get_if<platform::Route>(&way);
            return route != nullptr && !route->isThisComputer && here.kindOf(route->interface) != InterfaceKind::real;
        } catch (const platform::SystemError&) {
            return false; // not measured
        }
    });
}

Task<Finding> checkFirewall(Home& home, const OwnNetwork* network, std::uint16_t port, std::vector<PeerRecord> phones) {
    if (network == nullptr) {
        co_return finding(Check::firewall, Status::notMeasured, "there is no network");
    }
    const FirewallReport report = co_await home.system.firewall.incoming(network->interface, port, home.executor);
    const std::optional<EpochMilliseconds> started = home.system.machine.startedAt();
    const std::optional<Arrival> arrival = lastArrival(home, phones);
    const bool hasComeSince = arrival && started && arrival->at > *started;
    const CauseDetails details{.firewall = report.name,
                               .zone = report.zone,
                               .isDefaultZone = report.isDefaultZone,
                               .isUnread = report.isUnread,
                               .port = port};
    const std::string name =
        report.zone.empty() ? report.name : report.name + " (zone " + forDisplay(report.zone) + ")";
    Finding found;
    if (report.verdict == FirewallReport::Verdict::closed) {
        found = finding(Check::firewall, Status::problem, Cause::firewallIn, details);
    } else if (hasComeSince) {
        found = finding(Check::firewall, Status::ok, arrival->inWords(home.system.clock.epochMilliseconds()));
    } else if (report.verdict == FirewallReport::Verdict::unknown) {
        found = finding(Check::firewall, Status::warning, Cause::firewallMaybe, details);
    } else {
        found = finding(Check::firewall, Status::ok,
                        report.name.empty() ? "none found" : name + " lets phones in at port " + std::to_string(port));
    }
    found.evidence["firewall"] = report.name;
    found.evidence["zone"] = report.zone;
    found.evidence["port"] = port;
    if (arrival) {
        found.evidence["came_epoch_ms"] = toNumber(arrival->at);
    }
    co_return found;
}

bool hasPushKey(const Home& home) {
    return home.system.files.exists(FcmWake::defaultServiceAccountURL(home.system.directories));
}

Task<Finding> checkWaking(Home& home, std::vector<PeerRecord> phones, bool asksProject) {
    const auto hasToken = [](const PeerRecord& phone) { return !phone.peer_fcm_token.empty(); };
    Finding found = finding(Check::waking, Status::ok, "by push");
    const bool hasKey = hasPushKey(home);
    if (!hasKey) { // phones bring a token of their own accord: without a key nobody has set it up here
        found = finding(Check::waking, Status::notMeasured, "not set up");
    } else if (const std::optional<KeyTrouble> trouble = co_await troubleWithKey(home, asksProject)) {
        found = trouble->cause == Cause::unknown
                    ? finding(Check::waking, Status::notMeasured, "the push service does not answer")
                    : finding(Check::waking, Status::warning, trouble->cause,
                              {.phone = "A phone that sleeps", .clockError = trouble->clockError});
        found.isUnanswered = trouble->cause == Cause::unknown;
    } else if (home.system.machine.isClockSynchronised() == false) {
        found = finding(Check::waking, Status::warning, Cause::clock, {});
    } else {
        const auto without = std::ranges::find_if_not(phones, hasToken);
        if (without != phones.end()) {
            found = finding(Check::waking, Status::warning, Cause::pushNoToken, {.phone = without->peer_hostname});
        }
    }
    found.isAside = true;
    found.evidence["has_key_file"] = hasKey;
    found.evidence["phones_with_token"] = std::ranges::count_if(phones, hasToken);
    co_return found;
}

} // namespace orlinth::host
