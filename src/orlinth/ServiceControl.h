#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "orlinth/Host.h"

#include <cstdint>
#include <memory>
#include <optional>

namespace orlinth::host {

/// How other commands of the same data folder talk to the running service: a socket in that folder, one request a
/// connection, in lines of JSON.
///
/// `{"request":"lend_port"}` closes the service's port until the connection ends, however it ends, so that a borrower
/// that crashes gives it back too. Answer: `{"port":28471}` once it is closed, or `{"error":"…"}`.
class ServiceControl {
public:
    /// Everything referred to outlives run().
    ServiceControl(Host& host, Receiver& receiver, std::uint16_t port);
    /// Answers requests until it is cancelled. @throws platform::SystemError if the socket cannot be opened; Cancelled
    [[nodiscard]] Task<> run();

private:
    Host& host_;
    Receiver& receiver_;
    std::uint16_t port_;
};

/// The running service's port, for as long as this lives.
class BorrowedPort {
public:
    /// Nothing if no service runs. @throws HostError if one runs and does not lend its port
    [[nodiscard]] static Task<std::optional<BorrowedPort>> borrow(Host& host);

    [[nodiscard]] std::uint16_t port() const noexcept { return port_; }

private:
    BorrowedPort(std::unique_ptr<platform::Stream> connection, std::uint16_t port) noexcept
        : connection_(std::move(connection)), port_(port) {}

    std::unique_ptr<platform::Stream> connection_; ///< the service takes its port back when this closes
    std::uint16_t port_;
};

} // namespace orlinth::host
