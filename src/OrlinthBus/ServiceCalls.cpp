#include "OrlinthBus/ServiceCalls.h"

#include "OrlinthBus/BusError.h"
#include "OrlinthBus/FileUri.h"
#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Service/PhoneRequests.h"

#include <exception>
#include <optional>
#include <utility>
#include <variant>

namespace orlinth::bus {

namespace {

std::vector<platform::Path> filesIn(BusCall& call) {
    std::vector<platform::Path> files;
    for (const std::string& uri : call.readTexts('s', ServiceCalls::maxFiles)) {
        files.push_back(pathOfFileUri(uri));
    }
    return files;
}

std::vector<PeerKey> phonesIn(BusCall& call, const ServiceCalls::Phones& phones) {
    std::vector<PeerKey> keys;
    for (const std::string& path : call.readTexts('o', ServiceCalls::maxFiles)) {
        const auto phone = phones.find(path);
        if (phone == phones.end()) {
            throw host::NoSuchPhone();
        }
        keys.push_back(phone->second);
    }
    return keys;
}

} // namespace

ServiceCalls::ServiceCalls(host::Home& home, platform::BusLoop& loop,
                           std::function<Task<>(std::uint64_t version)> untilTold)
    : loop_(loop), untilTold_(std::move(untilTold)), sendings_(home.executor), settings_(home.executor) {}

bool ServiceCalls::take(BusCall& call, const Phones& phones) {
    const std::string member = call.member();
    if (member == "SendFiles") {
        run(sendings_, std::move(call), [this, &phones](const Call& begun) {
            std::vector<platform::Path> files = filesIn(*begun);
            return sendFiles(begun, std::move(files), phonesIn(*begun, phones));
        });
    } else if (member == "SetSetting") {
        run(settings_, std::move(call), [this](const Call& begun) {
            std::string name = begun->readText();
            auto value = std::visit([](auto&& read) { return host::SettingValue(std::forward<decltype(read)>(read)); },
                                    begun->readValue());
            return setSetting(begun, std::move(name), std::move(value));
        });
    } else if (member == "Restart") {
        restart(std::move(call));
    } else {
        return false;
    }
    return true;
}

/// The arguments are read at once: the phones are other ones by the time that the task runs.
void ServiceCalls::run(platform::TaskGroup& tasks, BusCall call, const std::function<Task<>(const Call&)>& begin) {
    if (tasks.size() >= maxCalls) {
        call.fail({.name = "Busy", .text = "too many calls of " + call.member() + " at once"});
        return;
    }
    const auto shared = std::make_shared<BusCall>(std::move(call));
    try {
        Task<> work = begin(shared);
        tasks.add(answerBy(std::move(work), shared, loop_), [](const std::exception_ptr&) {
            // it has answered; a call that was cut short is answered when it goes
        });
    } catch (const host::NoSuchPhone& error) {
        shared->fail(busErrorOf(error));
    } catch (const std::exception& error) {
        shared->fail({.name = "InvalidArgument", .text = describe(error)});
    }
}

Task<> ServiceCalls::sendFiles(Call call, std::vector<platform::Path> files, std::vector<PeerKey> phones) {
    std::optional<std::vector<PeerKey>> targets;
    if (!phones.empty()) {
        targets = std::move(phones);
    }
    const BatchId batch = co_await api_->share(std::move(files), std::move(targets));
    call->reply(batch.text());
}

Task<> ServiceCalls::setSetting(Call call, std::string name, host::SettingValue value) {
    co_await api_->setSetting(std::move(name), std::move(value));
    co_await untilTold_(api_->version());
    call->reply();
}

void ServiceCalls::restart(BusCall call) {
    try {
        api_->restart();
    } catch (const host::HostError& error) {
        call.fail(busErrorOf(error));
        return;
    }
    call.reply();
}

Task<> ServiceCalls::finish() {
    co_await sendings_.join();
    co_await settings_.join();
}

} // namespace orlinth::bus
