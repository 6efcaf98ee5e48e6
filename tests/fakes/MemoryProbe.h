#pragma once

#include "fakes/MemoryNetwork.h"
#include "platform/Clock.h"
#include "platform/Probe.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace orlinth::fakes {

/// Addresses that answer as a test says, each after its own time. What a test has not named is silent: the probe lasts
/// as long as its limit. One thread.
class MemoryProbe final : public platform::Probe {
public:
    /// `clock` outlives every probe.
    explicit MemoryProbe(platform::Clock& clock) : clock_(clock) {}
    ~MemoryProbe() override;

    [[nodiscard]] Task<platform::ProbeResult> connect(platform::IpAddress address, std::uint16_t port, Seconds limit,
                                                      Executor executor) override {
        if (errorNumber) {
            throw platform::SystemError::fromErrno(*errorNumber);
        }
        attempts.push_back({.address = address, .port = port, .at = clock_.now()});
        const Underway counted(*this);
        const auto place = answers_.find({address, port});
        if (place == answers_.end() || place->second.after >= limit) {
            co_await clock_.sleep(limit);
            co_return platform::ProbeTimeout();
        }
        const Answer answer = place->second; // the test may change it meanwhile
        co_await clock_.sleep(answer.after);
        if (answer.failure) {
            co_return *answer.failure;
        }
        const auto there = std::make_shared<detail::Pipe>(executor);
        const auto back = std::make_shared<detail::Pipe>(executor);
        answer.onConnected(std::make_unique<MemoryStream>(there, back, executor, "203.0.113.1:40112"));
        std::unique_ptr<platform::Stream> ours =
            std::make_unique<MemoryStream>(back, there, executor, endpointText(address, port));
        co_return ours;
    }

    [[nodiscard]] bool maySendDatagram(const platform::IpAddress& address) const override {
        ++datagrams;
        return !forbidden_.contains(address);
    }

    /// This computer lets no datagram out to the address.
    void forbidDatagrams(const platform::IpAddress& address) { forbidden_.insert(address); }
    /// The port takes connections; `onConnected` gets the other end of each.
    void accept(platform::IpAddress address, std::uint16_t port,
                std::function<void(std::unique_ptr<MemoryStream>)> onConnected, Seconds after = 0s) {
        answers_.insert_or_assign(Place(std::move(address), port),
                                  Answer{.after = after, .failure = {}, .onConnected = std::move(onConnected)});
    }
    void fail(platform::IpAddress address, std::uint16_t port, int number,
              std::optional<platform::IcmpReport> icmp = std::nullopt, Seconds after = 0s) {
        platform::ProbeFailure failure{.code = std::error_code(number, std::generic_category()),
                                       .icmp = std::move(icmp)};
        answers_.insert_or_assign(Place(std::move(address), port),
                                  Answer{.after = after, .failure = std::move(failure), .onConnected = {}});
    }
    void makeSilent(const platform::IpAddress& address, std::uint16_t port) { answers_.erase({address, port}); }

    struct Attempt {
        platform::IpAddress address;
        std::uint16_t port = 0;
        platform::Clock::Instant at;
    };
    std::vector<Attempt> attempts;     ///< so far, in order
    std::size_t most = 0;              ///< that were under way at once
    mutable std::size_t datagrams = 0; ///< that were sent, or tried
    std::optional<int> errorNumber;    ///< connect() fails with this error, if set

    [[nodiscard]] std::size_t underWay() const noexcept { return underWay_; }

private:
    using Place = std::pair<platform::IpAddress, std::uint16_t>;
    struct Answer {
        Seconds after{};
        std::optional<platform::ProbeFailure> failure;
        std::function<void(std::unique_ptr<MemoryStream>)> onConnected;
    };
    struct Underway {
        explicit Underway(MemoryProbe& theProbe) : probe(theProbe) {
            ++probe.underWay_;
            probe.most = std::max(probe.most, probe.underWay_);
        }
        ~Underway() { --probe.underWay_; }
        Underway(const Underway&) = delete;
        Underway& operator=(const Underway&) = delete;
        MemoryProbe& probe;
    };

    [[nodiscard]] static std::string endpointText(const platform::IpAddress& address, std::uint16_t port) {
        const bool isIpv4 = std::holds_alternative<platform::Ipv4Address>(address);
        const std::string text = platform::textOf(address);
        return (isIpv4 ? text : "[" + text + "]") + ":" + std::to_string(port);
    }

    platform::Clock& clock_;
    std::map<Place, Answer> answers_;
    std::set<platform::IpAddress> forbidden_;
    std::size_t underWay_ = 0;
};

} // namespace orlinth::fakes
