#include "OrlinthHost/Service/ServicePairing.h"

#include "OrlinthCore/Pairing/QRRenderer.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/PairedPhones.h"
#include "OrlinthHost/Service/NearbyListener.h"
#include "base/Text.h"
#include "platform/Blocking.h"
#include "platform/Cancelled.h"

#include <asio/post.hpp>

#include <utility>

namespace orlinth::host {

namespace {

constexpr const char* notConfirmedHint = "If they differed, somebody else may have answered: pair again, without an "
                                         "announcement on the network. If the phone "
                                         "has recorded this computer, remove it there.";

EpochMilliseconds momentIn(const platform::Clock& clock, Seconds time) {
    return clock.epochMilliseconds() + std::chrono::duration_cast<std::chrono::milliseconds>(time);
}

} // namespace

/// One pairing, from its beginning to when it is shown no more.
struct ServicePairing::Run {
    explicit Run(ServicePairing& ownerOf) : owner(ownerOf) {}

    ServicePairing& owner;
    PairingView view;
    std::optional<PairingAttempt> attempt; ///< while the port is ours
    bool hasBegun = false;                 ///< the code can be had, or could
    bool isOver = false;
    bool isForsaken = false; ///< its ticket is gone
    bool isCancelled = false;
    std::optional<bool> decision = {}; ///< whether the screens show the same
};

ServicePairing::ServicePairing(Home& home, const platform::PublicKey& ownKey, PortLoan& loan,
                               std::function<void(const std::string&)> onFarAway)
    : home_(home),
      ownKey_(ownKey),
      loan_(loan),
      onFarAway_(std::move(onFarAway)),
      news_(home.executor),
      forgetting_(home.system.clock.makeTimer(home.executor)),
      tasks_(home.executor) {}

std::optional<PairingView> ServicePairing::view() const {
    return run_ && run_->hasBegun ? std::optional(run_->view) : std::nullopt;
}

bool ServicePairing::isBusy() const noexcept {
    return isEnding_ || loan_.isLent() || (run_ && !run_->isOver);
}

Task<ServicePairing::Ticket> ServicePairing::begin(std::uint16_t port, PairingOptions options) {
    if (isBusy()) {
        throw PairingBusyError(isEnding_ ? "the service is ending" : "another pairing is under way");
    }
    static_cast<void>(home_.peers().loadBook()); // later, the phone would have recorded us already
    const auto run = std::make_shared<Run>(*this);
    run_ = run;
    forgetting_->disarm();
    const Seconds timeout = options.timeout;
    std::exception_ptr failure;
    try {
        co_await open(run, port, std::move(options));
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        run_.reset();
        changed();
        returnPort();
        std::rethrow_exception(failure);
    }
    run->hasBegun = true;
    run->view.expires = momentIn(home_.system.clock, timeout);
    tasks_.add(pair(run), [](const std::exception_ptr&) {
        // what went wrong is in the view, unless the service ends
    });
    changed();
    co_return Ticket(run);
}

/// Up to the moment at which the code can be shown.
Task<> ServicePairing::open(RunRef run, std::uint16_t port, PairingOptions options) {
    std::unique_ptr<platform::Listener> listener = co_await loan_.take(port);
    const std::string place = listener->place();
    if (!options.isPublic) {
        auto tell = [onFarAway = onFarAway_, main = home_.executor](const std::string& endpoint) {
            asio::post(main, [onFarAway, endpoint] { onFarAway(endpoint); });
        };
        listener = std::make_unique<NearbyListener>(std::move(listener), home_.system.interfaces, std::move(tell));
    }
    auto onDelivery = [&log = home_.system.log](const std::string& who) {
        log.write(platform::LogLevel::info, "com.tarvinex.orlinth", "pair",
                  "a paired phone (" + who + ") wanted to deliver something during a pairing");
    };
    run->attempt.emplace(home_, std::move(listener),
                         PairingAttempt::Settings{.ownKey = ownKey_,
                                                  .timeout = options.timeout,
                                                  .interface = std::move(options.interface),
                                                  .place = place,
                                                  .onDelivery = std::move(onDelivery)});
    if (options.isAnnounced) {
        run->attempt->announce({.onPublished =
                                    [this, run = run.get()] {
                                        run->view.digits = run->attempt->digits();
                                        changed();
                                    },
                                .onFailure = {}});
    }
}

Task<> ServicePairing::pair(RunRef run) {
    std::optional<IntroducedPhone> phone;
    std::exception_ptr failure;
    try {
        phone = co_await run->attempt->awaitPhone();
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw; // the service ends, and the port with it
        }
        failure = std::current_exception();
    }
    run->attempt.reset();
    run->view.digits.clear();
    returnPort();
    if (phone) {
        co_await confirm(run, *std::move(phone));
        co_return;
    }
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        fail(*run, error);
    }
}

Task<> ServicePairing::confirm(RunRef run, IntroducedPhone phone) {
    run->view.state = PairingView::State::confirming;
    run->view.confirmationCode = phone.confirmationCode;
    run->view.phone = phone.record.peer_hostname;
    run->view.expires = momentIn(home_.system.clock, confirmationLimit);
    changed();
    const auto isDecided = [&run] { return run->decision || run->isCancelled; };
    const bool isInTime = co_await news_.until(isDecided, home_.system.clock, confirmationLimit);
    if (!isInTime) {
        fail(*run, HostError("nobody has confirmed the codes in time; nothing was recorded"));
        co_return;
    }
    if (!run->decision.value_or(false)) {
        fail(*run, run->decision ? HostError("the codes were not confirmed; nothing was recorded", notConfirmedHint)
                                 : HostError("cancelled"));
        co_return;
    }
    std::exception_ptr failure;
    try {
        co_await platform::blocking(home_.system.queues, [this, &phone] { record(phone); });
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        failure = std::current_exception();
    }
    if (!failure) {
        end(*run, PairingView::State::done);
        co_return;
    }
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        fail(*run, error);
    }
}

void ServicePairing::record(const IntroducedPhone& phone) {
    PeerRecord record = phone.record;
    record.paired_at_epoch_ms = home_.system.clock.epochMilliseconds();
    const PeerStore::Recorded recorded = PairedPhones(home_).record(record, phone.met);
    if (phone.told) {
        AddressMemory(home_.system.files, home_.system.clock, home_.system.log, home_.dataDirectory())
            .tell(*phone.told);
    }
    home_.system.log.write(platform::LogLevel::info, "com.tarvinex.orlinth", "pair",
                           "paired with " + forDisplay(recorded.record.peer_hostname));
}

/// Not waited for: the port may be in use for a moment.
void ServicePairing::returnPort() {
    if (!isEnding_) {
        tasks_.add(loan_.giveBack(), [this](const std::exception_ptr&) { changed(); });
    }
}

void ServicePairing::cancel(Run& run) {
    if (run.isOver) {
        forget(run);
        return;
    }
    run.isCancelled = true;
    if (run.attempt) {
        run.attempt->cancel();
    }
    news_.changed();
}

void ServicePairing::forsake(Run& run) {
    run.isForsaken = true;
    cancel(run);
}

void ServicePairing::fail(Run& run, const std::exception& error) {
    run.view.problem = describe(error);
    run.view.hint = hintForPairing(error).value_or("");
    end(run, PairingView::State::failed);
}

void ServicePairing::end(Run& run, PairingView::State state) {
    run.view.state = state;
    run.view.expires.reset();
    run.isOver = true;
    if (run.isForsaken) {
        forget(run);
        return;
    }
    if (run_.get() == &run) {
        forgetting_->arm(endedLifetime, [this, &run] { forget(run); });
    }
    changed();
}

void ServicePairing::forget(const Run& run) {
    if (run_.get() == &run) {
        forgetting_->disarm();
        run_.reset();
        changed();
    }
}

void ServicePairing::changed() {
    if (onChanged) {
        onChanged();
    }
}

Task<> ServicePairing::finish() {
    isEnding_ = true;
    forgetting_->disarm();
    tasks_.cancelAll();
    co_await tasks_.join();
    run_.reset();
}

// The ticket

ServicePairing::Ticket& ServicePairing::Ticket::operator=(Ticket&& other) noexcept {
    std::swap(run_, other.run_); // what was held goes with the other
    return *this;
}

ServicePairing::Ticket::~Ticket() {
    if (const RunRef run = run_.lock()) {
        run->owner.forsake(*run);
    }
}

std::optional<PairingView> ServicePairing::Ticket::view() const {
    const RunRef run = run_.lock();
    return run ? std::optional(run->view) : std::nullopt;
}

const PairingPayload& ServicePairing::Ticket::shown(const RunRef& run) const {
    if (!run || !run->attempt) {
        throw HostError("the pairing waits for no phone any more");
    }
    return run->attempt->payload();
}

SecretBytes ServicePairing::Ticket::payload() const {
    const RunRef run = run_.lock();
    return shown(run).jsonData();
}

SecretBytes ServicePairing::Ticket::picture() const {
    constexpr double onePixelAModule = 1;
    const RunRef run = run_.lock();
    return QRRenderer::makePNG(shown(run), onePixelAModule);
}

bool ServicePairing::Ticket::confirm(bool isSame) {
    const RunRef run = run_.lock();
    const bool canBe = run && run->view.state == PairingView::State::confirming && !run->decision && !run->isCancelled;
    if (canBe) {
        run->decision = isSame;
        run->owner.news_.changed();
    }
    return canBe;
}

void ServicePairing::Ticket::cancel() {
    if (const RunRef run = run_.lock()) {
        run->owner.cancel(*run);
    }
}

} // namespace orlinth::host
