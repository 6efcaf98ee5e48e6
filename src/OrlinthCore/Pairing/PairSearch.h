#pragma once

#include "OrlinthCore/Pairing/PairingPayload.h"
#include "base/CaseError.h"
#include "platform/Clock.h"
#include "platform/ServiceDiscovery.h"

#include <optional>
#include <string>
#include <string_view>

namespace orlinth {

class PairSearchError : public CaseError<PairSearchError> {
public:
    enum class Case { unavailable, notFound, ambiguous };

    /// The DNS-SD service cannot be asked.
    [[nodiscard]] static PairSearchError unavailable(const std::string& text);
    [[nodiscard]] static PairSearchError notFound();
    /// Several computers match: four digits no longer tell which one is meant.
    [[nodiscard]] static PairSearchError ambiguous();

private:
    PairSearchError(Case which, const std::string& prefix, const std::string& detail = {})
        : CaseError(which, prefix, detail) {}
};

/// What a service in pair mode says of itself, if it is one that announces this pair code: its "c" is the hash of the
/// code and its own "pk", its "v" is "1". The other values are not looked into.
[[nodiscard]] std::optional<PairingPayload> payloadOfService(const platform::ServiceRecord& service,
                                                             std::string_view code);

/// Looks on the network for the one computer that is in pair mode with this code, again and again for `timeout`.
/// Each look lasts a few seconds, so that a second computer with the same code is seen too.
/// `services` and `clock` outlive the task. @throws PairSearchError; Cancelled
[[nodiscard]] Task<PairingPayload> findPairingComputer(platform::ServiceDiscovery& services, platform::Clock& clock,
                                                       std::string code, Seconds timeout);

} // namespace orlinth
