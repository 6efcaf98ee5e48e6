#pragma once

#include "platform/Clock.h"
#include "platform/Probe.h"

namespace orlinth::platform {

/// TCP connections whose failures are explained by the socket's error queue.
///
/// A stream that it returns is like every other: the queue is switched off again, since it would make errors final that
/// pass by themselves.
class LinuxProbe final : public Probe {
public:
    /// `clock` measures the limit and outlives every probe.
    explicit LinuxProbe(Clock& clock) : clock_(clock) {}

    [[nodiscard]] Task<ProbeResult> connect(IpAddress address, std::uint16_t port, Seconds limit,
                                            Executor executor) override;
    [[nodiscard]] bool maySendDatagram(const IpAddress& address) const override;

private:
    Clock& clock_;
};

} // namespace orlinth::platform
