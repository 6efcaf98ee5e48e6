#pragma once

#include "platform/Clock.h"
#include "platform/Firewall.h"
#include "platform/Machine.h"

#include <map>
#include <string>
#include <vector>

namespace orlinth::fakes {

/// A machine as a test makes it up; by default nobody listens, the clock is right, and the start was an hour before the
/// beginning of the test.
class FakeMachine final : public platform::Machine {
public:
    ~FakeMachine() override;
    [[nodiscard]] std::optional<platform::PortHolder> holderOf(std::uint16_t port) const override {
        const auto place = holders.find(port);
        return place != holders.end() ? std::optional(place->second) : std::nullopt;
    }
    [[nodiscard]] std::optional<bool> isClockSynchronised() const override { return clockIsRight; }
    [[nodiscard]] std::optional<EpochMilliseconds> startedAt() const override { return started; }

    std::map<std::uint16_t, platform::PortHolder> holders;
    std::optional<bool> clockIsRight = true;
    std::optional<EpochMilliseconds> started;
};

/// A firewall that answers as a test says, after its time, and remembers what it was asked.
class FakeFirewall final : public platform::Firewall {
public:
    /// `clock` outlives every answer.
    explicit FakeFirewall(platform::Clock& clock) : clock_(clock) {}
    ~FakeFirewall() override;

    [[nodiscard]] Task<platform::FirewallReport> incoming(std::string interface, std::uint16_t port,
                                                          Executor /*executor*/) override {
        asked.push_back(std::move(interface) + ":" + std::to_string(port));
        co_await clock_.sleep(after);
        co_return report;
    }

    platform::FirewallReport report;
    Seconds after{0};
    std::vector<std::string> asked; ///< "wlan0:28471"

private:
    platform::Clock& clock_;
};

} // namespace orlinth::fakes
