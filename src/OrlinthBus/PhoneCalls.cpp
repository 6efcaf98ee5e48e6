#include "OrlinthBus/PhoneCalls.h"

#include "OrlinthBus/HistoryMessages.h"
#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Service/PhoneMessages.h"
#include "platform/Blocking.h"
#include "platform/linux/PassedFile.h"
#include "platform/linux/SealedMemory.h"
#include "platform/linux/SystemdLibrary.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

namespace orlinth::bus {

namespace {

using platform::systemd;
using platform::detail::Descriptor;

constexpr std::array members{std::string_view("Rename"),      std::string_view("Remove"),
                             std::string_view("Wake"),        std::string_view("SendText"),
                             std::string_view("GetLastText"), std::string_view("GetHistory"),
                             std::string_view("ClearHistory")};

std::vector<PeerKey> keysOf(const std::vector<std::string>& paths, const PhoneCalls::Phones& phones) {
    std::vector<PeerKey> keys;
    for (const std::string& path : paths) {
        const auto phone = phones.find(path);
        if (phone == phones.end()) {
            throw host::NoSuchPhone();
        }
        keys.push_back(phone->second);
    }
    return keys;
}

} // namespace

bool PhoneCalls::take(BusCall& call, const Phones& phones) {
    const std::string member = call.member();
    if (std::ranges::find(members, member) == members.end()) {
        return false;
    }
    if (member == "GetLastText") {
        getLastText(call);
    } else if (calls_.size() >= maxCalls) {
        call.fail({.name = "Busy", .text = "too many calls at once"});
    } else {
        run(std::move(call), phones);
    }
    return true;
}

void PhoneCalls::run(BusCall call, const Phones& phones) {
    const auto shared = std::make_shared<BusCall>(std::move(call));
    try {
        Task<> work = workOn(shared, phones);
        calls_.add(answerBy(std::move(work), shared, loop_), [](const std::exception_ptr&) {
            // it has answered; a call that was cut short is answered when it goes
        });
    } catch (const std::exception& error) {
        shared->fail(busErrorOf(error));
    }
}

/// The arguments are read at once: the phones are another ones by the time that the task runs. No coroutine.
Task<> PhoneCalls::workOn(Call call, const Phones& phones) {
    const std::string member = call->member();
    if (member == "SendText") {
        auto file = std::make_shared<const Descriptor>(call->readDescriptor());
        return sendText(call, std::move(file), keysOf(call->readTexts('o', maxPhones), phones));
    }
    if (member == "GetHistory") {
        const std::uint64_t before = call->readNumber<std::uint64_t>();
        const auto count = call->readNumber<std::uint32_t>();
        return getHistory(call, before, count);
    }
    if (member == "ClearHistory") {
        return clearHistory(call);
    }
    const PeerKey phone = keysOf({call->path()}, phones).front();
    if (member == "Rename") {
        return rename(call, phone, call->readText());
    }
    return member == "Remove" ? remove(call, phone) : wake(call, phone);
}

Task<> PhoneCalls::rename(Call call, PeerKey phone, std::string name) {
    std::string refusal;
    try {
        co_await api_->phoneRequests().rename(std::move(phone), std::move(name));
    } catch (const host::NoSuchPhone&) {
        throw;
    } catch (const host::HostError& error) {
        refusal = busErrorOf(error).text; // it cannot have this name
    }
    if (!refusal.empty()) {
        throw BadArgument(refusal);
    }
    call->reply();
}

Task<> PhoneCalls::remove(Call call, PeerKey phone) {
    co_await api_->phoneRequests().remove(std::move(phone));
    call->reply();
}

Task<> PhoneCalls::wake(Call call, PeerKey phone) {
    co_await api_->phoneRequests().wake(std::move(phone));
    call->reply();
}

Task<> PhoneCalls::sendText(Call call, std::shared_ptr<const Descriptor> file, std::vector<PeerKey> phones) {
    const auto read = [&file] {
        const auto patience = std::chrono::duration_cast<std::chrono::milliseconds>(pipeLimit);
        return std::optional(platform::readPassedFile(*file, host::PhoneRequests::maxTextBytes, patience));
    };
    std::optional<SecretBytes> text;
    std::string problem;
    try {
        text = co_await platform::blocking(home_.system.queues, read);
    } catch (const platform::SystemError& error) {
        problem = "the text cannot be read: " + error.description();
    }
    if (!text) {
        throw BadArgument(problem);
    }
    co_await api_->phoneRequests().sendText(std::move(*text), std::move(phones));
    call->reply();
}

void PhoneCalls::getLastText(BusCall& call) {
    const std::shared_ptr<const host::LastText::Text> text = api_->lastText().get();
    if (!text) {
        call.fail({.name = "NotFound", .text = "there is no text"});
        return;
    }
    try {
        const Descriptor file = platform::detail::sealedMemory(text->bytes.reveal());
        const int number = file.get();
        call.reply(
            [number](sd_bus_message* reply) { return systemd().sd_bus_message_append_basic(reply, 'h', &number); });
    } catch (const platform::SystemError& error) {
        call.fail({.name = "Failed", .text = error.description()});
    }
}

Task<> PhoneCalls::getHistory(Call call, std::uint64_t before, std::uint32_t count) {
    constexpr std::size_t most = host::HistoryRequest::maxCount;
    if (count == 0 || count > most) {
        throw BadArgument("1 to " + std::to_string(most) + " entries can be asked for");
    }
    const auto moment =
        static_cast<std::int64_t>(std::min<std::uint64_t>(before, std::numeric_limits<std::int64_t>::max()));
    const auto limit = before > 0 ? std::optional(fromEpochMilliseconds(moment)) : std::nullopt;
    const std::vector<host::HistoryEntry> entries = co_await api_->history().page(limit, count);
    call->reply([&entries](sd_bus_message* reply) { return appendHistory(reply, entries); });
}

Task<> PhoneCalls::clearHistory(Call call) {
    co_await api_->history().clear();
    call->reply();
}

Task<> PhoneCalls::finish() {
    co_await calls_.join();
}

} // namespace orlinth::bus
