#include "OrlinthCore/Pairing/PairAdvertiser.h"

#include "OrlinthCore/Pairing/PairCode.h"
#include "base/Precondition.h"
#include "base/Text.h"

#include <limits>

namespace orlinth {
namespace {

constexpr std::size_t hashCharactersInName = 6;

/// As many of the first characters as are announced; cut between two characters, even if one alone is too long.
std::string announcedHostname(const std::string& hostname) {
    const std::size_t most = platform::ServiceRecord::maxTxtStringBytes - std::string_view("hn=").size();
    const std::string repaired = toUtf8(hostname);
    std::size_t characters = PairAdvertiser::maxHostnameCharacters;
    std::string cut = firstCharacters(repaired, characters);
    while (cut.size() > most) {
        cut = firstCharacters(cut, --characters);
    }
    return cut;
}

std::uint16_t portOf(const PairingPayload& payload) {
    if (payload.peer_port < 0 || payload.peer_port > std::numeric_limits<std::uint16_t>::max()) {
        preconditionFailed("the port of a pairing payload that is announced is not one of TCP");
    }
    return static_cast<std::uint16_t>(payload.peer_port);
}

} // namespace

PairAdvertiser::PairAdvertiser(platform::ServiceDiscovery& services, platform::Log& log, const PairingPayload& payload,
                               std::string_view code, Executor executor)
    : services_(services), log_(log), executor_(std::move(executor)) {
    const std::string hash = PairCode::hash(code, payload.peer_pubkey);
    service_.name = "Orlinth-pair-" + hash.substr(0, hashCharactersInName);
    service_.type = PairCode::serviceType;
    service_.domain = "local.";
    service_.port = portOf(payload);
    service_.txt = {{"v", "1"},
                    {"c", hash},
                    {"pk", payload.peer_pubkey},
                    {"ip", payload.peer_ip},
                    {"sn", payload.peer_subnet},
                    {"hn", announcedHostname(payload.peer_hostname)},
                    {"mac", payload.peer_mac},
                    {"sec", payload.pairing_secret},
                    {"t", "mac"}};
}

PairAdvertiser::~PairAdvertiser() {
    service_.wipeTxt();
}

void PairAdvertiser::start(platform::ServiceDiscovery::PublicationEvents events) {
    stop(); // an announcement of the same name would be in the new one's way
    events.onFailure = [&log = log_, next = std::move(events.onFailure)](const std::string& reason) {
        log.write(platform::LogLevel::error, "com.tarvinex.orlinth", "pair", "Orlinth pair advert failed: " + reason);
        if (next) {
            next(reason);
        }
    };
    publication_ = services_.publish(service_, executor_, std::move(events));
}

void PairAdvertiser::stop() noexcept {
    publication_.reset();
}

} // namespace orlinth
