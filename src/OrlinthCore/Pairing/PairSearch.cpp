#include "OrlinthCore/Pairing/PairSearch.h"

#include "OrlinthCore/Pairing/PairCode.h"
#include "platform/Cancelled.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <vector>

namespace orlinth {
namespace {

/// Long enough for every computer of the network to have answered.
constexpr Seconds oneLook = 3s;

/// The value of a key; empty if the service does not have it.
std::string valueOf(const platform::ServiceRecord& service, std::string_view key) {
    const auto at =
        std::find_if(service.txt.begin(), service.txt.end(), [key](const auto& entry) { return entry.first == key; });
    return at == service.txt.end() ? std::string() : at->second;
}

Task<std::vector<platform::ServiceRecord>> look(platform::ServiceDiscovery& services) {
    try {
        co_return co_await services.find(PairCode::serviceType, oneLook);
    } catch (const platform::SystemError& error) {
        throw PairSearchError::unavailable(platform::textOfFailure(error));
    }
}

/// Those that match, each once: one computer may be seen in several ways.
std::vector<PairingPayload> matches(const std::vector<platform::ServiceRecord>& services, std::string_view code) {
    std::vector<PairingPayload> found;
    for (const platform::ServiceRecord& service : services) {
        std::optional<PairingPayload> payload = payloadOfService(service, code);
        if (payload && std::find(found.begin(), found.end(), *payload) == found.end()) {
            found.push_back(std::move(*payload));
        }
    }
    return found;
}

} // namespace

std::optional<PairingPayload> payloadOfService(const platform::ServiceRecord& service, std::string_view code) {
    PairingPayload payload;
    payload.peer_pubkey = valueOf(service, "pk");
    if (valueOf(service, "v") != "1" || valueOf(service, "c") != PairCode::hash(code, payload.peer_pubkey)) {
        return std::nullopt;
    }
    payload.peer_ip = valueOf(service, "ip");
    payload.peer_port = service.port;
    payload.peer_subnet = valueOf(service, "sn");
    payload.peer_hostname = valueOf(service, "hn");
    payload.peer_mac = valueOf(service, "mac");
    payload.pairing_secret = valueOf(service, "sec");
    return payload;
}

Task<PairingPayload> findPairingComputer(platform::ServiceDiscovery& services, platform::Clock& clock, std::string code,
                                         Seconds timeout) {
    const platform::Clock::Instant deadline = clock.now() + timeout;
    for (;;) {
        std::vector<platform::ServiceRecord> seen = co_await look(services);
        std::vector<PairingPayload> found = matches(seen, code);
        for (platform::ServiceRecord& service : seen) {
            service.wipeTxt();
        }
        if (found.size() > 1) {
            throw PairSearchError::ambiguous();
        }
        if (found.size() == 1) {
            co_return std::move(found.front());
        }
        if (clock.now() >= deadline) {
            throw PairSearchError::notFound();
        }
    }
}

PairSearchError PairSearchError::unavailable(const std::string& text) {
    return {Case::unavailable, "cannot look for computers on the network: ", text};
}
PairSearchError PairSearchError::notFound() {
    return {Case::notFound, "no computer with this code is in pair mode on this network"};
}
PairSearchError PairSearchError::ambiguous() {
    return {Case::ambiguous, "several computers on this network answer to this code"};
}

} // namespace orlinth
