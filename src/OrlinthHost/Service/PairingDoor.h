#pragma once

#include "OrlinthHost/Home.h"
#include "base/SecretBytes.h"
#include "platform/Network.h"

#include <functional>
#include <memory>
#include <string>

namespace orlinth::host {

/// A borrowed port during a pairing: all paired phones know it, and one that wants to deliver something just then must
/// not be taken for the new one.
///
///     looking ──a visitor has said the length of an introduction──▶ decided ──finish()──▶ closed
///
/// looking: everybody who connects is listened to at the same time, so that those who say nothing hold nobody up.
/// decided: one of them is the phone; all others are turned away, also those who come later. Their connections end
/// without an answer, and none of them is left for the service, which would take an introduction for a handshake.
///
/// Both kinds begin with a length of four bytes. That of a Noise handshake's first message is 32. An introduction can
/// have that length too, though not a valid one: four bytes of text. Such a frame is read and tried: if it opens with
/// the key of this pairing it is an introduction, and it is for the pairing to say what is wrong with it. If it does
/// not, whoever sent it is let go of, and may come again when the service is back.
///
/// Threading: the pairing uses the listener on its own queue; everything else is on the thread of `main`.
class PairingDoor {
public:
    /// How long somebody who has connected may take to say what shows who it is.
    static constexpr Seconds patience = 5s;
    /// How many are listened to at once; one more, and the first of them has to go.
    static constexpr std::size_t maxVisitors = 64;

    /// Called with the endpoint of somebody who wanted to deliver something instead, a few times and no more, on the
    /// home's executor.
    using OnDelivery = std::function<void(const std::string& remoteEndpoint)>;

    /// `home` outlives this, and so does what `onDelivery` refers to.
    PairingDoor(Home& home, std::unique_ptr<platform::Listener> port, const SecretBytes& pairingSecret,
                OnDelivery onDelivery);
    PairingDoor(const PairingDoor&) = delete;
    PairingDoor& operator=(const PairingDoor&) = delete;
    /// Closes the port and ends what is under way, soon after.
    ~PairingDoor();

    [[nodiscard]] std::uint16_t port() const noexcept;

    /// What the pairing waits on: its accept() returns the phone's connection, its close() turns away everybody else.
    /// Once.
    [[nodiscard]] std::unique_ptr<platform::Listener> listener();

    /// Turns away whoever has connected by now, closes the port, and returns when nothing of this is left. The last
    /// call, before the port is given back.
    [[nodiscard]] Task<bool> finish();

private:
    struct State;
    class Port;
    std::shared_ptr<State> state_;
};

} // namespace orlinth::host
