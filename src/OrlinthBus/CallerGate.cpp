#include "OrlinthBus/CallerGate.h"

#include "OrlinthBus/MethodRights.h"
#include "platform/Blocking.h"
#include "platform/linux/CallerProcess.h"
#include "platform/linux/SystemdLibrary.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <utility>

namespace orlinth::bus {

namespace {

using platform::Confinement;
using platform::systemd;

constexpr const char* notAllowed = "NotAllowed";

/// A caller is among those who are being looked at, as long as this lives.
class Looking {
public:
    Looking(std::multiset<std::string>& all, std::string caller) : all_(all), place_(all.insert(std::move(caller))) {}
    ~Looking() { all_.erase(place_); }
    Looking(const Looking&) = delete;
    Looking& operator=(const Looking&) = delete;

private:
    std::multiset<std::string>& all_;
    std::multiset<std::string>::iterator place_;
};

} // namespace

CallerGate::CallerGate(host::Home& home, platform::BusLoop& loop, std::function<void(BusCall)> onAdmitted)
    : home_(home), loop_(loop), onAdmitted_(std::move(onAdmitted)), looks_(home.executor) {}

void CallerGate::take(BusCall call) {
    const std::optional<MethodRight> right = rightOf(call.interface(), call.member());
    if (!right) {
        call.fail({.name = notAllowed, .text = "nobody may call this method"});
    } else if (*right == MethodRight::everybody) {
        onAdmitted_(std::move(call));
    } else if (questions_.size() + looks_.size() >= maxLooks || waitingOf(call.sender()) >= maxLooksAtOne) {
        call.fail({.name = "Busy", .text = "too many calls at once"});
    } else {
        ask(std::move(call));
    }
}

std::size_t CallerGate::waitingOf(const std::string& sender) const {
    const auto asked =
        std::ranges::count_if(questions_, [&](const Question& one) { return one.call.sender() == sender; });
    return static_cast<std::size_t>(asked) + lookedAt_.count(sender);
}

void CallerGate::ask(BusCall call) {
    const std::string sender = call.sender();
    Question& question = questions_.emplace_back(*this, std::move(call));
    sd_bus_slot* slot = nullptr;
    if (systemd().sd_bus_call_method_async(loop_.get(), &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                           "org.freedesktop.DBus", "GetConnectionUnixProcessID", onProcess, &question,
                                           "s", sender.c_str()) < 0) {
        questions_.pop_back(); // which refuses it
        return;
    }
    question.slot.reset(slot);
}

int CallerGate::onProcess(sd_bus_message* answer, void* question, sd_bus_error* /*error*/) {
    CallerGate& gate = *static_cast<Question*>(question)->gate;
    try {
        const auto at = std::ranges::find_if(gate.questions_, [&](const Question& one) { return &one == question; });
        BusCall call = std::move(at->call);
        gate.questions_.erase(at);
        std::uint32_t process = 0;
        if (!platform::isFromBus(answer) || systemd().sd_bus_message_is_method_error(answer, nullptr) != 0 ||
            systemd().sd_bus_message_read(answer, "u", &process) <= 0) {
            call.fail({.name = notAllowed, .text = "the bus does not say which program calls"});
            return 1;
        }
        gate.looks_.add(gate.look(std::make_shared<BusCall>(std::move(call)), process), [](const std::exception_ptr&) {
            // a call that was not passed on is refused when it goes
        });
    } catch (const std::exception&) {
        return 1; // no memory: the call was refused when it went
    }
    return 1;
}

Task<> CallerGate::look(std::shared_ptr<BusCall> call, std::uint32_t process) {
    const Looking looking(lookedAt_, call->sender());
    const auto step = [process] { return platform::confinementOf(static_cast<pid_t>(process)); };
    const Confinement confinement = co_await platform::blocking(home_.system.queues, step);
    switch (confinement) {
    case Confinement::none:
        onAdmitted_(std::move(*call));
        break;
    case Confinement::sandboxed:
        call->fail({.name = notAllowed, .text = "programs in a sandbox may not do this"});
        break;
    case Confinement::unknown:
        call->fail({.name = notAllowed, .text = "it cannot be seen whether the program that calls is in a sandbox"});
        break;
    }
    loop_.wake();
}

Task<> CallerGate::finish() {
    forget();
    co_await looks_.join();
}

} // namespace orlinth::bus
