#pragma once

#include "OrlinthBus/BusCall.h"
#include "OrlinthBus/BusPeers.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Service/ServiceApi.h"
#include "platform/TaskGroup.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace orlinth::bus {

/// The calls that are about a pairing. It belongs to the program that has begun it, which is known by the name that the
/// bus has given to its connection: nobody else gets the code, confirms or cancels, and when the connection ends, so
/// does the pairing.
///
/// The code is passed by a descriptor, so that it is in no message that somebody might log.
///
/// Threading: on the home's executor.
class PairingCalls {
public:
    /// `loop` outlives this. `onBegun` is called before the program is told where its pairing is.
    PairingCalls(host::Home& home, platform::BusLoop& loop, std::function<void()> onBegun);
    PairingCalls(const PairingCalls&) = delete;
    PairingCalls& operator=(const PairingCalls&) = delete;

    /// `api` outlives what runs between this and finish().
    void start(host::ServiceApi& api) noexcept { api_ = &api; }
    /// There is a connection, until detach().
    void attach() noexcept { owners_.attach(loop_); }
    /// Ends the pairing: nobody can be told of it any more.
    void detach() noexcept;
    /// The service ends.
    void stop();
    [[nodiscard]] Task<> finish();

    /// Whether the call is about a pairing; then it is taken, and answered.
    [[nodiscard]] bool take(BusCall& call);

private:
    void begin(BusCall call);
    [[nodiscard]] Task<> begin(std::shared_ptr<BusCall> call, host::PairingOptions options);
    void goOn(BusCall call);
    void sendCode(BusCall call);
    void letGo() noexcept;

    platform::BusLoop& loop_;
    const std::function<void()> onBegun_;
    host::ServiceApi* api_ = nullptr; ///< once it is started
    BusPeers owners_;                 ///< one, while there is a ticket, or will be
    std::string owner_;               ///< of the ticket
    std::optional<host::ServicePairing::Ticket> ticket_;
    platform::TaskGroup tasks_; ///< one that begins
};

} // namespace orlinth::bus
