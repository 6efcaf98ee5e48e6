#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Service/ServiceEvents.h"
#include "OrlinthHost/Service/ServicePort.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace orlinth::host {

/// The service's port in the hands of a pairing, which needs it for a moment:
///
///     home ──lend()──▶ away: the listening socket has gone to the borrower ──its connection ends──▶ home
///     home ──take()──▶ away: a pairing of the service itself has it ──giveBack()──▶ home
///
/// The socket itself is lent: a port that a service manager keeps open could not be opened by anybody else. However the
/// borrower ends, its connection does, and the port is back: nothing has to be given back. Connections of phones that
/// are there when the port is lent go on.
///
/// Threading: on the home's executor.
class PortLoan {
public:
    /// What is referred to outlives this.
    PortLoan(Home& home, Receiver& receiver, const ServicePort& port, ServiceEvents& events)
        : home_(home), receiver_(receiver), port_(port), events_(events) {}
    PortLoan(const PortLoan&) = delete;
    PortLoan& operator=(const PortLoan&) = delete;

    [[nodiscard]] bool isLent() const noexcept { return lent_; }
    /// While it is lent: why it cannot be opened again, though the loan is over; "" if it is not over.
    [[nodiscard]] const std::string& problem() const noexcept { return problem_; }
    /// Called when one of these has changed. May be empty. Must not throw.
    std::function<void()> onChanged;

    /// Lends the port with this number to the other end of `stream`, until that ends: from stepping aside to coming
    /// back. Answers the request itself, also if the port cannot be lent. Not while it is lent. `stream` outlives the
    /// call.
    /// @throws platform::Cancelled
    [[nodiscard]] Task<> lend(platform::Stream& stream, std::uint16_t number);

    /// Takes the port away from the receiver, for a pairing in this process, and reports that it is lent. Not while it
    /// is lent. However it ends, giveBack() follows. @throws platform::Cancelled, platform::SystemError,
    /// Receiver::Error
    [[nodiscard]] Task<std::unique_ptr<platform::Listener>> take(std::uint16_t number);
    /// Lets the receiver have the port again, which the pairing has closed by now, and returns when it has. Reports
    /// that it is back if take() has reported that it is lent. @throws platform::Cancelled
    [[nodiscard]] Task<> giveBack();

private:
    [[nodiscard]] Task<> handOver(platform::Stream& stream, std::uint16_t number);
    [[nodiscard]] Task<> takeBack();
    void set(bool isLent, std::string problem = {});

    Home& home_;
    Receiver& receiver_;
    const ServicePort& port_;
    ServiceEvents& events_;
    bool lent_ = false;
    bool isLentReported_ = false; ///< and not yet that it is back
    std::string problem_;
};

} // namespace orlinth::host
