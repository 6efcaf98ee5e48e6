#include "OrlinthBus/PairingCalls.h"

#include "OrlinthBus/ObjectPath.h"
#include "OrlinthBus/PairingObject.h"
#include "OrlinthHost/HostError.h"
#include "platform/Cancelled.h"
#include "platform/linux/SealedMemory.h"
#include "platform/linux/SystemdLibrary.h"

#include <utility>

namespace orlinth::bus {

namespace {

using platform::systemd;

/// The error's own text, and what to do in a line of its own.
std::string textWithHint(const std::exception& error) {
    const std::string hint = host::hintForPairing(error).value_or("");
    return hint.empty() ? describe(error) : describe(error) + "\n" + hint;
}

} // namespace

PairingCalls::PairingCalls(host::Home& home, platform::BusLoop& loop, std::function<void()> onBegun)
    : loop_(loop),
      onBegun_(std::move(onBegun)),
      owners_([this](const std::string& name) {
          if (name == owner_) {
              letGo();
          }
      }),
      tasks_(home.executor) {}

void PairingCalls::detach() noexcept {
    letGo();
    owners_.detach();
}

void PairingCalls::stop() {
    tasks_.cancelAll();
    letGo();
}

Task<> PairingCalls::finish() {
    co_await tasks_.join();
    letGo(); // it may have begun just now
}

void PairingCalls::letGo() noexcept {
    owner_.clear();
    ticket_.reset();
}

bool PairingCalls::take(BusCall& call) {
    if (call.path() == rootPath && call.member() == "Pair") {
        begin(std::move(call));
        return true;
    }
    if (call.path() == pairingPath) {
        goOn(std::move(call));
        return true;
    }
    return false;
}

void PairingCalls::begin(BusCall call) {
    if (!tasks_.isEmpty()) {
        call.fail({.name = "Busy", .text = "another pairing is under way"});
        return;
    }
    host::PairingOptions options;
    try {
        options = pairingOptionsIn(call.readOptions());
    } catch (const std::exception& error) {
        call.fail({.name = "InvalidArgument", .text = describe(error)});
        return;
    }
    const auto shared = std::make_shared<BusCall>(std::move(call));
    tasks_.add(begin(shared, std::move(options)), [](const std::exception_ptr&) {
        // it has answered; a call that was cut short is answered when it goes
    });
}

Task<> PairingCalls::begin(std::shared_ptr<BusCall> call, host::PairingOptions options) {
    const std::string caller = call->sender();
    std::optional<BusError> problem;
    try {
        host::ServicePairing::Ticket ticket = co_await api_->pair(std::move(options));
        if (owner_ != caller) {
            owners_.forget(owner_); // its ticket is another's now
        }
        if (owners_.add(caller)) {
            ticket_ = std::move(ticket);
            owner_ = caller;
        } else {
            problem = {.text = "the bus does not say when the caller leaves it"};
        }
    } catch (const host::PairingBusyError& error) {
        problem = busErrorOf(error);
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        problem = {.text = textWithHint(error)};
    }
    if (!problem) {
        onBegun_();
        call->reply(
            [](sd_bus_message* answer) { return systemd().sd_bus_message_append_basic(answer, 'o', pairingPath); });
    } else {
        call->fail(*problem);
    }
    loop_.wake();
}

void PairingCalls::goOn(BusCall call) {
    if (!ticket_ || call.sender() != owner_) {
        call.fail({.name = "NotAllowed", .text = "another program has begun this pairing"});
        return;
    }
    const std::string member = call.member();
    if (member == "GetCode") {
        sendCode(std::move(call));
    } else if (member == "Cancel") {
        ticket_->cancel();
        call.reply();
    } else if (ticket_->confirm(call.readFlag())) {
        call.reply();
    } else {
        call.fail({.name = "NotFound", .text = "there is nothing to confirm"});
    }
}

void PairingCalls::sendCode(BusCall call) {
    try {
        const SecretBytes picture = ticket_->picture();
        const platform::detail::Descriptor file = platform::detail::sealedMemory(picture.reveal());
        const int number = file.get();
        call.reply([number](sd_bus_message* answer) {
            return systemd().sd_bus_message_append_basic(answer, 'h', &number); // which copies it
        });
    } catch (const host::HostError& error) {
        call.fail({.name = "NotFound", .text = describe(error)});
    } catch (const std::exception& error) {
        call.fail({.name = "Failed", .text = textWithHint(error)});
    }
}

} // namespace orlinth::bus
