#pragma once

#include "OrlinthBus/BusCall.h"
#include "OrlinthHost/Home.h"
#include "platform/TaskGroup.h"
#include "platform/linux/BusLoop.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <utility>

namespace orlinth::bus {

/// What every call of a method passes through: rightOf() says who may make it. Of a caller on whom that depends, the
/// bus is asked for the process, and the kernel whether that is in a sandbox; who cannot be looked at counts as one
/// that is. A refusal is the error NotAllowed. The calls of one caller may overtake each other here.
///
/// Defence in depth: a sandbox that lets a program talk to the service may as well not, and whoever is in none could
/// read the service's files.
///
/// Threading: on the home's executor, or from within the calls of the library.
class CallerGate {
public:
    /// Calls whose callers are being looked at; more are refused for now.
    static constexpr std::size_t maxLooks = 32;
    /// Those of one caller, so that it leaves some for the others.
    static constexpr std::size_t maxLooksAtOne = 4;

    /// What is referred to outlives this. `onAdmitted` gets the calls that may be made; it throws nothing.
    CallerGate(host::Home& home, platform::BusLoop& loop, std::function<void(BusCall)> onAdmitted);
    CallerGate(const CallerGate&) = delete;
    CallerGate& operator=(const CallerGate&) = delete;

    void take(BusCall call);
    /// Refuses who waits. Before the connection is closed.
    void forget() noexcept { questions_.clear(); }
    /// Refuses who waits, and returns when nobody is being looked at. The last call, but for forget().
    [[nodiscard]] Task<> finish();

private:
    /// Which process has called.
    struct Question {
        Question(CallerGate& gateOf, BusCall callOf) : gate(&gateOf), call(std::move(callOf)) {}
        CallerGate* gate;
        BusCall call;
        platform::BusSlotRef slot; ///< goes first
    };

    void ask(BusCall call);
    static int onProcess(sd_bus_message* answer, void* question, sd_bus_error* error);
    [[nodiscard]] Task<> look(std::shared_ptr<BusCall> call, std::uint32_t process);
    /// Calls of this one that wait.
    [[nodiscard]] std::size_t waitingOf(const std::string& sender) const;

    host::Home& home_;
    platform::BusLoop& loop_;
    const std::function<void(BusCall)> onAdmitted_;
    std::list<Question> questions_;
    std::multiset<std::string> lookedAt_; ///< the callers on whom look() is at work
    platform::TaskGroup looks_;
};

} // namespace orlinth::bus
