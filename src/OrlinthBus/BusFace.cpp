#include "OrlinthBus/BusFace.h"

#include "OrlinthBus/FileUri.h"
#include "OrlinthBus/ObjectPath.h"
#include "OrlinthBus/OfferObjects.h"
#include "OrlinthBus/PairingObject.h"
#include "OrlinthHost/HostError.h"
#include "platform/Cancelled.h"
#include "platform/SystemError.h"
#include "platform/linux/SystemdLibrary.h"

#include <asio/this_coro.hpp>

#include <chrono>
#include <exception>
#include <limits>

namespace orlinth::bus {

namespace {

using platform::systemd;

constexpr std::chrono::seconds answerLimit = 10s;

std::vector<BusInterface> allInterfaces() {
    std::vector<BusInterface> interfaces = serviceInterfaces();
    interfaces.push_back(offerInterface());
    interfaces.push_back(pairingInterface());
    return interfaces;
}

/// Of the error on the bus.
const char* nameOf(host::SettingError::Case which) noexcept {
    using Case = host::SettingError::Case;
    switch (which) {
    case Case::unknownSetting:
    case Case::invalidValue:
        return "InvalidArgument";
    case Case::noSuchPhone:
        return "NoSuchPhone";
    case Case::fixed:
        return "NotAllowed";
    case Case::notSaved:
        break;
    }
    return "Failed";
}

} // namespace

BusFace::BusFace(host::Home& home, platform::BusEnvironment environment, ServiceIdentity identity)
    : home_(home),
      identity_(std::move(identity)),
      news_(home.executor),
      loop_(home.executor, environment, answerLimit,
            [this] {
                disconnect();
                connectLater();
            }),
      pairingCalls_(home, loop_, [this] { tellEverything(); }),
      gate_(home, loop_, [this](BusCall call) { onCall(std::move(call)); }),
      phoneCalls_(home, loop_),
      tree_(allInterfaces(), {phonesPath, batchesPath, transfersPath, offersPath},
            [this](BusCall call) {
                if (isStopping_) {
                    call.fail("Busy", "the service is ending");
                } else {
                    gate_.take(std::move(call));
                }
            }),
      clients_([this](const std::string& /*name*/) { clientsChanged(); }),
      reconnecting_(home.system.clock.makeTimer(home.executor)),
      tasks_(home.executor),
      sendings_(home.executor) {}

BusFace::~BusFace() {
    disconnect();
}

Task<> BusFace::start(host::ServiceApi& api) {
    api_ = &api;
    pairingCalls_.start(api);
    phoneCalls_.start(api);
    tasks_.add(tellNews(), [this](const std::exception_ptr& error) {
        try {
            if (error) {
                std::rethrow_exception(error);
            }
        } catch (const std::exception& failure) {
            if (!platform::isCancellation(failure)) {
                log(platform::LogLevel::error, describe(failure));
            }
        }
    });
    connect();
    static_cast<void>(co_await news_.until([this] { return name_ != Name::unknown || loop_.get() == nullptr; },
                                           home_.system.clock, startLimit));
}

void BusFace::stop() {
    isStopping_ = true;
    news_.changed();
    if (api_ == nullptr) {
        return;
    }
    reconnecting_->disarm();
    tasks_.cancelAll();
    pairingCalls_.stop();
    onlooker_.reset();
    phoneCalls_.stop();
    static_cast<void>(tree_.update(look(false), tree_.objects().size() + phoneViews_.size() + signalsAtOnce));
}

Task<> BusFace::finish() {
    co_await tasks_.join();
    co_await pairingCalls_.finish();
    co_await gate_.finish();
    co_await phoneCalls_.finish();
    co_await sendings_.join();
    const auto isOut = [this] {
        std::uint64_t queued = 0;
        return loop_.get() == nullptr || systemd().sd_bus_get_n_queued_write(loop_.get(), &queued) < 0 || queued == 0;
    };
    static_cast<void>(loop_.runUntil(isOut, platform::BusLoop::SteadyClock::now() + lastWordsLimit));
    disconnect();
    loop_.close();
    reconnecting_->disarm(); // the connection may have been lost just now
}

// The connection

void BusFace::connect() {
    if (isStopping_) {
        return;
    }
    name_ = Name::unknown;
    historySignals_.start(api_->history());
    static_cast<void>(tree_.update(look(true), signalsAtOnce)); // not attached: told to nobody
    if (!loop_.open() || !tree_.attach(loop_)) {
        disconnect();
        loop_.close();
        connectLater();
        news_.changed();
        return;
    }
    clients_.attach(loop_);
    pairingCalls_.attach();
    constexpr std::uint32_t doNotQueue = 4;
    sd_bus_slot* slot = nullptr;
    if (systemd().sd_bus_add_filter(loop_.get(), &slot, onMessage, this) >= 0) {
        filter_.reset(slot);
    }
    if (systemd().sd_bus_call_method_async(loop_.get(), &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                           "org.freedesktop.DBus", "RequestName", onName, this, "su", serviceName,
                                           doNotQueue) < 0) {
        disconnect();
        loop_.close();
        connectLater();
        return;
    }
    request_.reset(slot);
    loop_.wake();
}

void BusFace::disconnect() noexcept {
    request_.reset();
    filter_.reset();
    clients_.detach();
    pairingCalls_.detach();
    onlooker_.reset();
    gate_.forget();
    tree_.detach();
    name_ = Name::unknown;
}

void BusFace::connectLater() {
    reconnecting_->arm(reconnectInterval, [this] { connect(); });
}

int BusFace::onName(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
    constexpr std::uint32_t isPrimaryOwner = 1;
    auto* const face = static_cast<BusFace*>(self);
    std::uint32_t result = 0;
    const bool isAnswered = systemd().sd_bus_message_is_method_error(message, nullptr) == 0 &&
                            systemd().sd_bus_message_read(message, "u", &result) > 0;
    if (isAnswered && result == isPrimaryOwner) {
        face->name_ = Name::ours;
    } else {
        face->log(platform::LogLevel::info, isAnswered ? "another service has the name on the session's bus"
                                                       : "the session's bus does not give us our name");
        face->disconnect(); // nobody would look for us under a number
        face->name_ = Name::anothers;
        face->reconnecting_->arm(Seconds(0), [face] { face->loop_.close(); }); // not in the library's call
    }
    face->news_.changed();
    return 1;
}

int BusFace::onMessage(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
    try {
        auto* const face = static_cast<BusFace*>(self);
        const char* const sender = systemd().sd_bus_message_get_sender(message);
        if (sender != nullptr && systemd().sd_bus_message_is_method_call(message, "org.freedesktop.DBus.ObjectManager",
                                                                         "GetManagedObjects") > 0) {
            face->clients_.add(sender);
            face->clientsChanged();
        }
    } catch (const std::exception&) {
        return 0; // no memory: whoever it is can still ask again
    }
    return 0; // what it wants is for others to see
}

void BusFace::tellEverything() {
    static_cast<void>(tree_.update(look(false), std::numeric_limits<std::size_t>::max()));
}

void BusFace::clientsChanged() {
    if (clients_.isEmpty() || isStopping_) {
        onlooker_.reset();
    } else if (!onlooker_) {
        onlooker_ = api_->onlooker();
    }
}

// What there is

BusObjects BusFace::look(bool alsoPhones) {
    transfers_.clear();
    batches_.clear();
    phones_.clear();
    offers_.clear();
    if (alsoPhones || phonesSeen_ != api_->phonesVersion()) {
        phonesSeen_ = api_->phonesVersion();
        phoneViews_ = api_->phones();
    }
    const std::vector<host::TransferView> transfers = api_->transfers();
    const std::vector<host::OutboxView> batches = api_->batches();
    for (const host::PhoneView& phone : phoneViews_) {
        phones_.emplace(pathOfPhone(phone.presence.peerKey), phone.presence.peerKey);
    }
    for (const host::TransferView& transfer : transfers) {
        transfers_.emplace(pathOfTransfer(transfer.number), transfer.number);
    }
    for (const host::OutboxView& batch : batches) {
        batches_.emplace(pathOfBatch(batch.batch, batch.peerKey), std::pair(batch.batch, batch.peerKey));
    }
    const std::vector<host::OfferView> offers = api_->offers();
    for (const host::OfferView& offer : offers) {
        offers_.emplace(pathOfOffer(offer.number), offer.number);
    }
    BusObjects objects = objectsOf(api_->service(), identity_, api_->settings(), phoneViews_, transfers, batches,
                                   home_.system.clock.now());
    addOffers(objects, offers);
    addPairing(objects, api_->pairing());
    return objects;
}

std::optional<Seconds> BusFace::timeToLook() const {
    for (const host::TransferView& transfer : api_->transfers()) {
        if (!transfer.endedAt && !tree_.objects().contains(pathOfTransfer(transfer.number))) {
            return tellingAge;
        }
    }
    std::optional<Seconds> time;
    for (const host::PhoneView& phone : phoneViews_) {
        if (phone.presence.state == host::PresenceState::here) {
            return phonesInterval;
        }
        if (phone.presence.state == host::PresenceState::asleep) {
            time = sleepersInterval;
        }
    }
    return time;
}

Task<> BusFace::tellNews() {
    std::uint64_t seen = 0;
    for (;;) {
        co_await news_.until([this] { return name_ == Name::ours; });
        const auto isNew = [this, &seen] { return api_->version() != seen; };
        bool hasCome = true;
        if (const std::optional<Seconds> limit = timeToLook()) {
            hasCome = co_await api_->news().until(isNew, home_.system.clock, *limit);
        } else {
            co_await api_->news().until(isNew);
        }
        seen = api_->version();
        BusTree::Told told = tell(!hasCome);
        keepTold(told, seen);
        while (told.signals > 0) {
            co_await home_.system.clock.sleep(newsInterval);
            if (told.isEverything) {
                break;
            }
            told = tell(false);
            keepTold(told, seen);
        }
    }
}

BusTree::Told BusFace::tell(bool alsoPhones) {
    const HistorySignals::Told history = historySignals_.tell(loop_, api_->history());
    BusTree::Told told = tree_.update(look(alsoPhones), signalsAtOnce - history.signals);
    told.signals += history.signals;
    told.isEverything = told.isEverything && history.isEverything;
    return told;
}

void BusFace::keepTold(const BusTree::Told& told, std::uint64_t version) {
    if (told.isEverything) {
        toldVersion_ = version;
        news_.changed();
    }
}

// What is asked

void BusFace::onCall(BusCall call) {
    if (pairingCalls_.take(call)) {
        return;
    }
    if (phoneCalls_.take(call, phones_)) {
        return;
    }
    const std::string path = call.path();
    const std::string member = call.member();
    if (member == "SendFiles") {
        sendFiles(std::move(call));
        return;
    }
    if (member == "Restart") {
        restart(std::move(call));
        return;
    }
    if (member == "SetSetting") {
        setSetting(std::move(call));
        return;
    }
    if (const auto transfer = transfers_.find(path); transfer != transfers_.end() && member == "Cancel") {
        if (api_->cancelTransfer(transfer->second)) {
            call.reply();
        } else {
            call.fail("NotFound", "the transfer has ended");
        }
        return;
    }
    if (const auto batch = batches_.find(path); batch != batches_.end()) {
        const auto& [id, peerKey] = batch->second;
        const bool isFound = member == "Cancel" ? api_->cancelBatch(id, peerKey) : api_->retry(id, peerKey);
        if (isFound) {
            call.reply();
        } else {
            call.fail("NotFound", "the batch is not there any more");
        }
        return;
    }
    if (const auto offer = offers_.find(path); offer != offers_.end()) {
        answerOffer(std::move(call), offer->second);
        return;
    }
    call.fail("NotFound", "there is no such object any more");
}

void BusFace::restart(BusCall call) {
    try {
        api_->restart();
    } catch (const host::HostError& error) {
        call.fail("Failed", error.description() + "\n" + error.hint());
        return;
    }
    call.reply();
}

void BusFace::answerOffer(BusCall call, host::OfferNumber number) {
    if (api_->answerOffer(number, call.member() == "Accept")) {
        call.reply();
    } else {
        call.fail("NotFound", "the file waits for no answer any more");
    }
}

void BusFace::sendFiles(BusCall call) {
    if (sendings_.size() >= maxSendings) {
        call.fail("Busy", "too many files are being shared at once");
        return;
    }
    std::vector<platform::Path> files;
    std::vector<PeerKey> phones;
    try {
        for (const std::string& uri : call.readTexts('s', maxFiles)) {
            files.push_back(pathOfFileUri(uri));
        }
        for (const std::string& path : call.readTexts('o', maxFiles)) {
            const auto phone = phones_.find(path);
            if (phone == phones_.end()) {
                call.fail("NoSuchPhone", "there is no phone " + path);
                return;
            }
            phones.push_back(phone->second);
        }
    } catch (const std::exception& error) {
        call.fail("InvalidArgument", describe(error));
        return;
    }
    const auto shared = std::make_shared<BusCall>(std::move(call));
    sendings_.add(share(shared, std::move(files), std::move(phones)), [](const std::exception_ptr&) {
        // it has answered; a call that was cut short is answered when it goes
    });
}

Task<> BusFace::share(std::shared_ptr<BusCall> call, std::vector<platform::Path> files, std::vector<PeerKey> phones) {
    std::string problem;
    try {
        std::optional<std::vector<PeerKey>> targets;
        if (!phones.empty()) {
            targets = std::move(phones);
        }
        const BatchId batch = co_await api_->share(std::move(files), std::move(targets));
        call->reply(batch.text());
        loop_.wake();
        co_return;
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        problem = describe(error);
    }
    call->fail("Failed", problem);
    loop_.wake();
}

void BusFace::setSetting(BusCall call) {
    if (isStopping_ || sendings_.size() >= maxSendings) {
        call.fail("Busy", isStopping_ ? "the service is ending" : "too much is being done at once");
        return;
    }
    std::string name;
    host::SettingValue value;
    try {
        name = call.readText();
        value = std::visit([](auto&& read) { return host::SettingValue(std::forward<decltype(read)>(read)); },
                           call.readValue());
    } catch (const platform::SystemError& error) {
        call.fail("InvalidArgument", error.description());
        return;
    }
    const auto shared = std::make_shared<BusCall>(std::move(call));
    sendings_.add(set(shared, std::move(name), std::move(value)), [](const std::exception_ptr&) {
        // likewise
    });
}

Task<> BusFace::set(std::shared_ptr<BusCall> call, std::string name, host::SettingValue value) {
    const char* kind = "Failed";
    std::string problem;
    try {
        co_await api_->setSetting(std::move(name), std::move(value));
    } catch (const host::SettingError& error) {
        kind = nameOf(error.which());
        problem = error.description() + (error.hint().empty() ? "" : "\n" + error.hint());
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        problem = describe(error);
    }
    if (problem.empty()) {
        const auto isTold = [this, version = api_->version()] {
            return toldVersion_ >= version || name_ != Name::ours || isStopping_;
        };
        static_cast<void>(co_await news_.until(isTold, home_.system.clock, tellingLimit));
        call->reply();
    } else {
        call->fail(kind, problem);
    }
    loop_.wake();
}

void BusFace::log(platform::LogLevel level, const std::string& text) const noexcept {
    home_.system.log.write(level, "com.tarvinex.orlinth", "bus", text);
}

} // namespace orlinth::bus
