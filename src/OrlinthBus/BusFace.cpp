#include "OrlinthBus/BusFace.h"

#include "OrlinthBus/ObjectPath.h"
#include "OrlinthBus/OfferObjects.h"
#include "OrlinthBus/PairingObject.h"
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
      serviceCalls_(home, loop_, [this](std::uint64_t version) { return untilTold(version); }),
      tree_(allInterfaces(), {phonesPath, batchesPath, transfersPath, offersPath},
            [this](BusCall call) { gate_.take(std::move(call)); }),
      clients_([this](const std::string& /*name*/) { clientsChanged(); }),
      reconnecting_(home.system.clock.makeTimer(home.executor)),
      tasks_(home.executor) {}

BusFace::~BusFace() {
    disconnect();
}

Task<> BusFace::start(host::ServiceApi& api) {
    api_ = &api;
    pairingCalls_.start(api);
    phoneCalls_.start(api);
    serviceCalls_.start(api);
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
    co_await serviceCalls_.finish();
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
    news_.changed();
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
        face->reconnecting_->arm(Seconds(0), [face, isAnswered] { // not in the library's call
            face->loop_.close();
            if (!isAnswered) {
                face->connectLater();
            }
        });
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
    platform::Clock::Instant lookedAt = home_.system.clock.now(); // at the phones
    const auto isTimeToLookAtPhones = [this, &lookedAt] {
        const platform::Clock::Instant now = home_.system.clock.now();
        const bool isTime = now - lookedAt >= phonesInterval;
        lookedAt = isTime ? now : lookedAt;
        return isTime;
    };
    for (;;) {
        co_await news_.until([this] { return name_ == Name::ours; });
        const auto isNew = [this, &seen] { return api_->version() != seen; };
        if (const std::optional<Seconds> limit = timeToLook()) {
            static_cast<void>(co_await api_->news().until(isNew, home_.system.clock, *limit));
        } else {
            co_await api_->news().until(isNew);
        }
        seen = api_->version();
        BusTree::Told told = tell(isTimeToLookAtPhones());
        keepTold(told, seen);
        while (told.signals > 0) {
            co_await home_.system.clock.sleep(newsInterval);
            if (told.isEverything) {
                break;
            }
            told = tell(isTimeToLookAtPhones());
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
    if (isStopping_) { // now, or since it has come to the gate
        call.fail({.name = "Busy", .text = "the service is ending"});
        return;
    }
    if (pairingCalls_.take(call)) {
        return;
    }
    if (phoneCalls_.take(call, phones_)) {
        return;
    }
    if (serviceCalls_.take(call, phones_)) {
        return;
    }
    const std::string path = call.path();
    const std::string member = call.member();
    if (const auto transfer = transfers_.find(path); transfer != transfers_.end() && member == "Cancel") {
        if (api_->cancelTransfer(transfer->second)) {
            call.reply();
        } else {
            call.fail({.name = "NotFound", .text = "the transfer has ended"});
        }
        return;
    }
    if (const auto batch = batches_.find(path); batch != batches_.end()) {
        const auto& [id, peerKey] = batch->second;
        const bool isFound = member == "Cancel" ? api_->cancelBatch(id, peerKey) : api_->retry(id, peerKey);
        if (isFound) {
            call.reply();
        } else {
            call.fail({.name = "NotFound", .text = "the batch is not there any more"});
        }
        return;
    }
    if (const auto offer = offers_.find(path); offer != offers_.end()) {
        answerOffer(std::move(call), offer->second);
        return;
    }
    call.fail({.name = "NotFound", .text = "there is no such object any more"});
}

void BusFace::answerOffer(BusCall call, host::OfferNumber number) {
    if (api_->answerOffer(number, call.member() == "Accept")) {
        call.reply();
    } else {
        call.fail({.name = "NotFound", .text = "the file waits for no answer any more"});
    }
}

Task<> BusFace::untilTold(std::uint64_t version) {
    const auto isTold = [this, version] { return toldVersion_ >= version || name_ != Name::ours || isStopping_; };
    static_cast<void>(co_await news_.until(isTold, home_.system.clock, tellingLimit));
}

void BusFace::log(platform::LogLevel level, const std::string& text) const noexcept {
    home_.system.log.write(level, "com.tarvinex.orlinth", "bus", text);
}

} // namespace orlinth::bus
