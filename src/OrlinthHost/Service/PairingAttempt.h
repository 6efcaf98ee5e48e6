#pragma once

#include "OrlinthCore/Pairing/PairAdvertiser.h"
#include "OrlinthCore/Pairing/PairListener.h"
#include "OrlinthCore/Pairing/PairingPayload.h"
#include "OrlinthCore/Peers/PeerRecord.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Phones/AddressBook.h"
#include "OrlinthHost/Service/PairingDoor.h"
#include "base/SecretBytes.h"
#include "base/Time.h"

#include <exception>
#include <memory>
#include <optional>
#include <string>

namespace orlinth::host {

/// A phone that has introduced itself, and what both screens show for it. Nothing is recorded of it yet: that is for
/// whoever has compared the screens.
struct IntroducedPhone {
    PeerRecord record; ///< `paired_at_epoch_ms` is 0
    std::string confirmationCode;
    std::string remoteEndpoint;
    std::optional<Meeting> met = {};      ///< where it has spoken from
    std::optional<ToldAddress> told = {}; ///< where it has been told to find this computer
};

/// One pairing, as far as it needs a port: what the code says, and the wait for the phone that has scanned it.
///
///     made ──awaitPhone()──▶ waits ──▶ over: a phone, an error, the time, or cancel()
///
/// Ownership: destroying it closes the port, withdraws the announcement and wipes the secret; nobody awaits
/// awaitPhone() by then. Threading: everything on the home's executor.
class PairingAttempt {
public:
    struct Settings {
        platform::PublicKey ownKey;
        Seconds timeout;            ///< for a phone to come
        std::string interface = {}; ///< whose address the code names; "": that of `place`, or the first that has one
        std::string place = {};     ///< Listener::place() of the port
        /// Given: the port is a service's, which paired phones know, so that a PairingDoor stands there.
        PairingDoor::OnDelivery onDelivery = {};
    };

    /// `port` is open. `home` outlives this, and so does what `onDelivery` refers to.
    /// @throws HostError, DeviceInfoError: nothing is known of an address that a phone could use
    PairingAttempt(Home& home, std::unique_ptr<platform::Listener> port, Settings settings);
    PairingAttempt(const PairingAttempt&) = delete;
    PairingAttempt& operator=(const PairingAttempt&) = delete;

    /// What the code says. It has the secret in it.
    [[nodiscard]] const PairingPayload& payload() const noexcept { return payload_; }
    /// The four digits by which a phone finds an announcement.
    [[nodiscard]] const std::string& digits() const noexcept { return digits_; }
    /// Announces the pairing on the network, the secret included.
    void announce(platform::ServiceDiscovery::PublicationEvents events);

    /// Waits for the phone. When it returns, nobody who has come to the port of a service is left there. Once.
    /// @throws PairListener::Error, PairIntroductionError; Cancelled, at once and without those manners
    [[nodiscard]] Task<IntroducedPhone> awaitPhone();
    /// Ends that with PairListener::Error::cancelled, soon after.
    void cancel() { listener_->cancel(); }

private:
    [[nodiscard]] IntroducedPhone introduced(const PairListener::Result& result);

    Home& home_;
    const platform::PublicKey ownKey_;
    const PairingPayload payload_;
    const std::string digits_;
    const SecretBytes secret_;
    std::optional<PairingDoor> door_;
    std::optional<PairListener> listener_;
    PairAdvertiser advertiser_;
};

/// What a person can do about an error of a pairing, whatever program shows it: it names no flags of a command. Nothing
/// where that is not about the pairing.
[[nodiscard]] std::optional<std::string> hintForPairing(const std::exception& error);

} // namespace orlinth::host
