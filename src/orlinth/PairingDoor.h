#pragma once

#include "orlinth/Host.h"
#include "platform/Network.h"

#include <memory>

namespace orlinth::host {

/// A borrowed port during a pairing: all paired phones know it, and one that wants to deliver something just then must
/// not be taken for the new one.
///
/// Both begin with a length of four bytes. That of a Noise handshake's first message is 32; a sealed introduction is
/// always longer. Whoever says 32 is let go of, and may come again when the service is back.
class PairingDoor final : public platform::Listener {
public:
    /// Seconds in which somebody who has connected must say a length; else whoever comes next is asked.
    static constexpr double patience = 5;

    /// `host` outlives this.
    PairingDoor(Host& host, std::unique_ptr<platform::Listener> port) : host_(host), port_(std::move(port)) {}

    [[nodiscard]] Task<std::unique_ptr<platform::Stream>> accept(Executor executor) override;
    [[nodiscard]] std::uint16_t port() const noexcept override { return port_->port(); }
    void close() noexcept override { port_->close(); }

private:
    Host& host_;
    std::unique_ptr<platform::Listener> port_;
};

} // namespace orlinth::host
