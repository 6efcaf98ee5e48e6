#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Service/PairingAttempt.h"
#include "OrlinthHost/Service/PairingView.h"
#include "OrlinthHost/Service/PortLoan.h"
#include "platform/Condition.h"
#include "platform/TaskGroup.h"

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace orlinth::host {

/// Another pairing is under way, or the service is ending.
class PairingBusyError : public HostError {
public:
    using HostError::HostError;
};

/// The pairing that runs in the service itself, at its port; one at a time, `orlinth pair` included.
///
///     begin() ──▶ waiting ──a phone has come──▶ confirming ──confirm(true)──▶ done
///                    │                              │
///                    └── time, error, cancel() ─────┴── confirm(false), time, cancel() ──▶ failed
///
/// waiting: the service has lent itself its port, and the code can be had. confirming: the port is back with the
/// receiver, and the secret is wiped. done, failed: shown for a minute, or until the next one begins.
///
/// Whoever has begun it holds the ticket, which alone can get the code, confirm and cancel. A pairing whose ticket goes
/// is cancelled and shown no more.
///
/// Threading: everything on the home's executor.
class ServicePairing {
public:
    /// For somebody to compare the screens.
    static constexpr Seconds confirmationLimit = 5min;
    /// How long the end of a pairing is shown.
    static constexpr Seconds endedLifetime = 60s;

    class Ticket;

    /// What is referred to outlives this; `onFarAway` is told the endpoint of each one that was turned away because of
    /// where it comes from.
    ServicePairing(Home& home, const platform::PublicKey& ownKey, PortLoan& loan,
                   std::function<void(const std::string& remoteEndpoint)> onFarAway);
    ServicePairing(const ServicePairing&) = delete;
    ServicePairing& operator=(const ServicePairing&) = delete;

    /// Nothing if there is none.
    [[nodiscard]] std::optional<PairingView> view() const;
    /// Whether begin() would refuse.
    [[nodiscard]] bool isBusy() const noexcept;

    /// Begins one at the service's port, which has this number. Returns when the code can be had.
    /// @throws PairingBusyError; PeerStoreError if nobody could be recorded; HostError, DeviceInfoError,
    ///         platform::SystemError, platform::Cancelled
    [[nodiscard]] Task<Ticket> begin(std::uint16_t port, PairingOptions options);

    /// Ends what runs, and returns when it has ended. From now on nobody begins one.
    [[nodiscard]] Task<> finish();

    /// Called when view() or isBusy() has changed. May be empty. Must not throw.
    std::function<void()> onChanged;

private:
    struct Run;
    using RunRef = std::shared_ptr<Run>;

    [[nodiscard]] Task<> open(RunRef run, std::uint16_t port, PairingOptions options);
    [[nodiscard]] Task<> pair(RunRef run);
    [[nodiscard]] Task<> confirm(RunRef run, IntroducedPhone phone);
    void record(const IntroducedPhone& phone);
    void returnPort();
    void cancel(Run& run);
    void forsake(Run& run);
    void fail(Run& run, const std::exception& error);
    void end(Run& run, PairingView::State state);
    void forget(const Run& run);
    void changed();

    Home& home_;
    const platform::PublicKey ownKey_;
    PortLoan& loan_;
    const std::function<void(const std::string&)> onFarAway_;
    platform::Condition news_;
    std::unique_ptr<platform::Timer> forgetting_;
    RunRef run_; ///< null if there is none
    bool isEnding_ = false;
    platform::TaskGroup tasks_; ///< the pairing, and the port on its way back
};

/// Held by whoever has begun a pairing. May outlive ServicePairing, and then does nothing.
class ServicePairing::Ticket {
public:
    explicit Ticket(const RunRef& run) noexcept : run_(run) {}
    Ticket(Ticket&&) noexcept = default;
    Ticket& operator=(Ticket&& other) noexcept;
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;
    ~Ticket();

    /// Nothing once it is shown no more.
    [[nodiscard]] std::optional<PairingView> view() const;
    /// What the code says, as text. @throws HostError unless the pairing waits for a phone
    [[nodiscard]] SecretBytes payload() const;
    /// The code as a PNG file, with its quiet zone, one pixel a module. @throws likewise; QRRenderer::Error
    [[nodiscard]] SecretBytes picture() const;
    /// Whether both screens show the same. Returns whether there is something to confirm.
    bool confirm(bool isSame);
    /// Ends it. One that has ended is shown no more.
    void cancel();

private:
    [[nodiscard]] const PairingPayload& shown(const RunRef& run) const;

    std::weak_ptr<Run> run_;
};

} // namespace orlinth::host
