#include "OrlinthHost/Outbox/OutboxSender.h"

#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Sending/Delivery.h"
#include "OrlinthHost/Sending/HandshakeLimit.h"
#include "OrlinthHost/Sending/PhoneKeepAlive.h"
#include "OrlinthHost/Sending/PhoneLanes.h"
#include "OrlinthHost/Sending/PushService.h"
#include "OrlinthHost/Sending/SendTimes.h"
#include "base/Text.h"
#include "platform/Spawn.h"
#include "platform/SystemError.h"

#include <asio/post.hpp>

#include <algorithm>
#include <array>
#include <list>
#include <numeric>
#include <set>
#include <utility>

namespace orlinth::host {

namespace {

enum class Verdict { tryAgain, inDoubt, fileIsLost, phoneIsLost };

Verdict judge(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const SendError& failure) {
        switch (failure.which()) {
        case SendError::Case::declined:
        case SendError::Case::fileMissing:
        case SendError::Case::fileRead:
            return Verdict::fileIsLost;
        case SendError::Case::peerRemoved:
            return Verdict::phoneIsLost;
        default:
            return Verdict::tryAgain;
        }
    } catch (const DeliveryInDoubt&) {
        return Verdict::inDoubt;
    } catch (...) {
        return Verdict::tryAgain;
    }
}

bool isReachedTheSameWay(const PeerRecord& one, const PeerRecord& other) {
    return one.peer_ip == other.peer_ip && one.peer_port == other.peer_port &&
           one.peer_fcm_token == other.peer_fcm_token;
}

} // namespace

/// One file under way to one phone.
struct OutboxSender::Attempt final : SendProgress {
    Attempt(Home& homeOf, OutboxEvents& eventsOf, OutboxEvents::Transfer what, PeerRecord peer, platform::Path fileOf,
            std::shared_ptr<OutboxJournal> journalOf)
        : home(homeOf),
          events(eventsOf),
          transfer(std::move(what)),
          record(std::move(peer)),
          file(std::move(fileOf)),
          journal(std::move(journalOf)),
          handshake(homeOf.system.clock, homeOf.executor, [this] { cancel(); }),
          silence(homeOf.system.clock, homeOf.executor, [this] { cancel(); }) {}

    void cancel() { stop.emit(asio::cancellation_type::terminal); }

    void onConnected() override {
        hasConnected = true;
        handshake.begin();
    }
    void onHandshakeComplete() override {
        handshake.end();
        hasProvedKey = true;
        silence.begin(silenceSeconds);
    }
    void onProgress(std::int64_t bytesSent, std::int64_t totalBytes) override {
        if (!beginsAt) {
            beginsAt = bytesSent; // the first is what the phone had before
        } else {
            hasMoved = true;
        }
        silence.begin(silenceSeconds);
        const platform::Clock::Instant now = home.system.clock.now();
        if (!lastTold || (now - *lastTold).count() >= progressSeconds) {
            lastTold = now;
            events.progress(transfer, bytesSent, totalBytes);
        }
    }
    void onComplete(const SentFile&) override { silence.end(); } // the farewell has a limit of its own

    /// The file, with its batch.
    [[nodiscard]] std::string place() const { return transfer.batch + "/" + transfer.file; }
    [[nodiscard]] bool wasCutOff() const { return handshake.hasExpired() || silence.hasExpired(); }
    [[nodiscard]] std::string failureText() const {
        if (handshake.hasExpired()) {
            return SendError::noiseHandshakeFailed(HandshakeLimit::text()).description();
        }
        if (silence.hasExpired()) {
            return SendError::network("no progress for five minutes").description();
        }
        if (isNotTaken({.hasProvedKey = hasProvedKey, .hasBegun = beginsAt.has_value()}, error)) {
            return notTakenText;
        }
        return describe(error);
    }

    Home& home;
    OutboxEvents& events;
    OutboxEvents::Transfer transfer;
    PeerRecord record;
    platform::Path file;
    std::shared_ptr<OutboxJournal> journal;
    asio::cancellation_signal stop;
    HandshakeLimit handshake;
    TimeLimit silence;
    std::optional<platform::Clock::Instant> lastTold;
    bool hasConnected = false;
    bool hasProvedKey = false;            ///< the phone has
    std::optional<std::int64_t> beginsAt; ///< bytes that the phone had before
    bool hasMoved = false;
    bool isCalledOff = false; ///< cancelled to look again at what is next
    std::int64_t bytes = 0;   ///< of the file
    bool isFirst = false;     ///< when it began there was no other connection to the phone
    bool hadCompany = false;  ///< another connection to the phone was there for a time
    OffersInDoubt inDoubt;    ///< with those of the attempts before
    std::optional<Delivered> delivered;
    std::exception_ptr error;
};

/// What goes to one phone.
struct OutboxSender::Phone {
    std::string key;
    std::optional<PeerRecord> record; ///< as of the last attempt
    int failures = 0;                 ///< in a row
    bool isPausing = false;
    platform::Clock::Instant pausedAt{};
    bool goesOnAtOnce = false; ///< there is reason to hope since the first of the attempts under way began
    bool isByHope = false;     ///< the attempt under way, or the last, was made for that, and not in its turn
    std::map<std::string, OffersInDoubt> inDoubt; ///< by file, with its batch
    /// What the phone had of a file, with its batch, when the last attempt began.
    std::map<std::string, std::int64_t> reached;
    std::string told; ///< why it waits, as it was told; "" once something was sent
    std::unique_ptr<platform::Timer> timer;
    std::list<std::unique_ptr<Attempt>> attempts; ///< under way
    PhoneLanes lanes;

    [[nodiscard]] std::int64_t bytesUnderWay() const {
        return std::accumulate(attempts.begin(), attempts.end(), std::int64_t{0},
                               [](std::int64_t sum, const auto& attempt) { return sum + attempt->bytes; });
    }
};

double OutboxSender::pauseAfter(int failures) noexcept {
    constexpr std::array<double, 6> pauses{5, 15, 60, 300, 900, 3600};
    const std::size_t step = failures < 1 ? 0 : static_cast<std::size_t>(failures) - 1;
    return step < pauses.size() ? pauses.at(step) : pauses.back();
}

OutboxSender::OutboxSender(Home& home, const platform::PrivateKey& ownKey, OutboxEvents& events)
    : home_(home),
      ownKey_(ownKey),
      events_(events),
      queue_(home, events),
      lookout_(home, [this] { look(); }),
      news_(home.executor) {}

OutboxSender::~OutboxSender() = default;

void OutboxSender::start() {
    queue_.forgetOrphans();
    lookout_.start();
}

void OutboxSender::look() {
    const OutboxQueue::News news =
        queue_.look([this](const std::optional<platform::Path>& outbox, const std::set<platform::Path>& incomplete) {
            lookout_.watch(outbox, incomplete);
        });
    for (const std::string& id : news.vanished) {
        static_cast<void>(drop(id)); // somebody has taken it back; what lies there now, if anything, is his
    }
    for (const std::string& key : news.phones) {
        hope(phoneOf(key));
    }
}

OutboxSender::Phone& OutboxSender::phoneOf(const std::string& key) {
    std::unique_ptr<Phone>& phone = phones_[key];
    if (!phone) {
        phone = std::make_unique<Phone>();
        phone->key = key;
        phone->timer = home_.system.clock.makeTimer(home_.executor);
    }
    return *phone;
}

bool OutboxSender::isUsed(const std::string& id) const {
    return std::any_of(phones_.begin(), phones_.end(), [&id](const auto& entry) {
        const auto& attempts = entry.second->attempts;
        return std::any_of(attempts.begin(), attempts.end(),
                           [&id](const auto& attempt) { return attempt->transfer.batch == id; });
    });
}

void OutboxSender::hope(Phone& phone) {
    phone.failures = 0;
    if (!phone.attempts.empty()) {
        phone.goesOnAtOnce = true;
    } else {
        phone.isByHope = false;
        tryNow(phone);
    }
}

void OutboxSender::tryNow(Phone& phone) {
    phone.timer->disarm();
    phone.isPausing = false;
    startNext(phone);
}

bool OutboxSender::mayBegin(const Phone& phone) const {
    if (isStopping_ || phone.isPausing) {
        return false;
    }
    const std::size_t all =
        std::accumulate(phones_.begin(), phones_.end(), std::size_t{0},
                        [](std::size_t sum, const auto& entry) { return sum + entry.second->attempts.size(); });
    return phone.lanes.mayOpen({.ofPhone = phone.attempts.size(), .bytesOfPhone = phone.bytesUnderWay(), .ofAll = all});
}

void OutboxSender::startNext(Phone& phone) {
    while (mayBegin(phone)) {
        Job* const job = queue_.nextFor(phone.key);
        if (job == nullptr) {
            return;
        }
        begin(phone, *job);
    }
}

void OutboxSender::begin(Phone& phone, Job& job) {
    OutboxState::Phone& state = *job.state.find(phone.key);
    const std::string file = *job.nextFor(phone.key);
    try {
        const PeerBook book = home_.peers().loadBook();
        const PeerRecord* const record = book.find(phone.key);
        if (record == nullptr) {
            queue_.setAllFailed(phone.key, forDisplay(state.displayName()) + " is not paired any more");
            return;
        }
        phone.record = *record;
        state.hostname = record->peer_hostname;
        static_cast<void>(checkPeer(*record, ownKey_.publicKey(), PeerUse::connection));
        queue_.checkFile(job, file);
    } catch (const OutboxError& error) {
        queue_.setFailed(job, phone.key, file, error.description());
        return;
    } catch (const Error& error) {
        pause(phone, error.description());
        return;
    }
    launch(phone, job, file);
}

void OutboxSender::launch(Phone& phone, Job& job, const std::string& file) {
    OutboxState::Phone& state = *job.state.find(phone.key);
    PeerRecord record = *phone.record;
    const bool isFirst = phone.attempts.empty();
    if (isFirst) {
        phone.goesOnAtOnce = false;
    } else {
        record.peer_fcm_token.clear(); // one push is enough, and it is that of the first
    }
    OutboxEvents::Transfer what{.batch = job.id(), .file = file, .to = state.displayName(), .key = phone.key};
    const platform::Path path = job.batch.folder / file;
    Attempt& attempt = *phone.attempts.emplace_back(std::make_unique<Attempt>(
        home_, events_, std::move(what), std::move(record), path, queue_.setUnderWay(job, phone.key)));
    attempt.bytes = attempt.journal->sizeOf(path);
    if (const auto before = phone.inDoubt.find(attempt.place()); before != phone.inDoubt.end()) {
        attempt.inDoubt = before->second;
    }
    attempt.isFirst = isFirst;
    if (!isFirst) {
        for (const std::unique_ptr<Attempt>& other : phone.attempts) {
            other->hadCompany = true;
        }
    }
    platform::spawn(home_.executor, transfer(attempt), attempt.stop.slot(),
                    [this, &phone, &attempt](const std::exception_ptr& error) {
                        attempt.error = error;
                        // not here, where the signal's slot may still be in use
                        asio::post(home_.executor, [this, &phone, &attempt] { settle(phone, attempt); });
                    });
}

/// `attempt` stays until it has ended.
Task<> OutboxSender::transfer(Attempt& attempt) {
    const SendTimes times;
    PreparedFile file = attempt.journal->take(attempt.file);
    SendTerms terms{.peer = attempt.record,
                    .staticKey = ownKey_,
                    .warmConnectTimeout = times.warm,
                    .postWakeConnectTimeout = times.wake,
                    .postWakeAttemptTimeout = times.attempt,
                    .postWakeRetryInterval = times.retry,
                    .fcmBaseURL = pushServiceURL(),
                    .progress = &attempt,
                    .keepAlive = phoneKeepAlive};
    const int left = OffersInDoubt::limitOfOutbox - attempt.inDoubt.count;
    Delivered delivered = co_await deliver(home_.system, std::move(file), std::move(terms),
                                           std::min(left, OffersInDoubt::atOnce), attempt.inDoubt, [] {});
    attempt.delivered = std::move(delivered);
}

void OutboxSender::settle(Phone& phone, const Attempt& ended) {
    const auto at = std::find_if(phone.attempts.begin(), phone.attempts.end(),
                                 [&ended](const auto& attempt) { return attempt.get() == &ended; });
    const std::unique_ptr<Attempt> attempt = std::move(*at);
    phone.attempts.erase(at);
    const std::string& id = attempt->transfer.batch;
    if (Job* const job = queue_.find(id)) {
        OutboxQueue::setEnded(*job, phone.key, attempt->transfer.file);
        settle(phone, *job, *attempt);
    }
    const Job* const left = queue_.find(id);
    if (left != nullptr && left->isDropped && !isUsed(id)) {
        discard(id);
    }
    startNext(phone);
    news_.changed();
}

void OutboxSender::settle(Phone& phone, Job& job, const Attempt& attempt) {
    if (attempt.inDoubt.count > 0) {
        phone.inDoubt[attempt.place()] = attempt.inDoubt;
    }
    if (attempt.delivered) {
        phone.failures = 0;
        phone.isByHope = false;
        phone.told.clear();
        phone.reached.erase(attempt.place());
        phone.inDoubt.erase(attempt.place());
        phone.lanes.addTaken();
        queue_.setDone(job, phone.key, attempt.transfer, *attempt.delivered);
    } else if (!job.isDropped && !isStopping_ && !attempt.isCalledOff) {
        settleFailure(phone, job, attempt);
    }
}

/// The file may be there or not, and the phone is. It keeps its id; so whoever retries the batch sends nothing twice.
void OutboxSender::settleDoubt(Phone& phone, Job& job, const Attempt& attempt) {
    phone.failures = 0;
    if (attempt.inDoubt.count < OffersInDoubt::limitOfOutbox) {
        pause(phone, DeliveryInDoubt::text);
        return;
    }
    phone.inDoubt.erase(attempt.place()); // a retry begins anew
    queue_.setFailed(job, phone.key, attempt.transfer.file, DeliveryInDoubt::text);
}

/// Whether the attempt before was of use: the phone had more of the file now than then. One that takes a piece each
/// time and keeps none gets nowhere.
bool OutboxSender::hasGotFurther(Phone& phone, const Attempt& attempt) {
    if (!attempt.beginsAt) {
        return false;
    }
    const auto [before, isFirst] = phone.reached.try_emplace(attempt.place(), *attempt.beginsAt);
    return isFirst ? attempt.hasMoved : *attempt.beginsAt > std::exchange(before->second, *attempt.beginsAt);
}

void OutboxSender::settleFailure(Phone& phone, Job& job, const Attempt& attempt) {
    const std::string text = attempt.failureText();
    switch (attempt.wasCutOff() ? Verdict::tryAgain : judge(attempt.error)) {
    case Verdict::fileIsLost:
        phone.failures = 0; // the phone is there
        queue_.setFailed(job, phone.key, attempt.transfer.file, text);
        return;
    case Verdict::phoneIsLost:
        phone.failures = 0;
        queue_.setAllFailed(phone.key, text);
        return;
    case Verdict::inDoubt:
        settleDoubt(phone, job, attempt);
        return;
    case Verdict::tryAgain:
        break;
    }
    const bool mayBeTooMany = attempt.hadCompany && (attempt.hasConnected || !attempt.isFirst);
    if (hasGotFurther(phone, attempt)) {
        phone.failures = 0;
    } else if (attempt.beginsAt || (attempt.hasConnected && !mayBeTooMany)) {
        queue_.putBehind(job, phone.key, attempt.transfer.file);
    }
    if (mayBeTooMany) {
        phone.lanes.fallBack();
        return; // the next, which is alone, shows whether the phone is there
    }
    // twice in a row would be for ever, if each attempt is a push that makes the phone call
    if (std::exchange(phone.goesOnAtOnce, false) && !phone.isByHope) {
        phone.isByHope = true;
    } else {
        pause(phone, text);
    }
}

void OutboxSender::pause(Phone& phone, const std::string& message) {
    const double seconds = pauseAfter(++phone.failures);
    phone.isPausing = true;
    phone.pausedAt = home_.system.clock.now();
    phone.timer->arm(seconds, [this, &phone] {
        phone.isPausing = false;
        phone.isByHope = false;
        startNext(phone);
    });
    const bool isNews = std::exchange(phone.told, message) != message;
    queue_.setWaiting(phone.key, message, seconds, isNews);
}

/// May be the answer to the push of an attempt that has failed all the same; the next one would fail so too, and push.
void OutboxSender::heardOf(const PeerRecord& record) {
    const auto at = phones_.find(record.peer_pubkey);
    if (at == phones_.end()) {
        return;
    }
    Phone& phone = *at->second;
    if (!phone.attempts.empty()) {
        phone.goesOnAtOnce = true;
        return;
    }
    const bool isEcho = phone.isPausing && (home_.system.clock.now() - phone.pausedAt).count() < echoSeconds;
    if (isEcho && phone.isByHope) {
        return;
    }
    if (!isEcho) {
        phone.failures = 0;
    }
    phone.isByHope = true;
    tryNow(phone);
}

void OutboxSender::peersChanged() {
    PeerBook book;
    try {
        book = home_.peers().loadBook();
    } catch (const PeerStoreError&) {
        return; // the next attempt meets the same and tells it
    }
    for (const auto& [key, phone] : phones_) {
        const PeerRecord* const record = book.find(key);
        if (phone->record && record != nullptr && isReachedTheSameWay(*phone->record, *record)) {
            continue;
        }
        for (const std::unique_ptr<Attempt>& attempt : phone->attempts) {
            if (record == nullptr || !attempt->hasConnected) {
                attempt->isCalledOff = true;
                attempt->cancel();
            }
        }
        hope(*phone);
    }
    lookout_.lookSoon(); // a batch may wait for a store that can be read
}

bool OutboxSender::retry(const std::optional<std::string>& id) {
    const bool isFound = !id || queue_.retry(*id);
    for (const auto& [key, phone] : phones_) {
        hope(*phone);
    }
    lookout_.lookSoon();
    return isFound;
}

bool OutboxSender::drop(const std::string& id) {
    Job* const job = queue_.find(id);
    if (job == nullptr) {
        return false;
    }
    job->isDropped = true;
    left_.erase(id);
    for (const auto& [key, phone] : phones_) {
        for (const std::unique_ptr<Attempt>& attempt : phone->attempts) {
            if (attempt->transfer.batch == id) {
                attempt->cancel();
            }
        }
    }
    if (!isUsed(id)) {
        discard(id);
    }
    return true;
}

void OutboxSender::discard(const std::string& id) {
    if (const std::optional<std::string> problem = queue_.discard(id)) {
        left_[id] = *problem;
    }
    news_.changed();
}

Task<bool> OutboxSender::remove(std::string id) {
    const bool isFound = drop(id);
    const auto isGone = [this, &id] { return queue_.find(id) == nullptr; };
    co_await news_.until(isGone);
    if (const auto left = left_.find(id); left != left_.end()) {
        throw HostError(left->second);
    }
    co_return isFound;
}

Task<> OutboxSender::finish() {
    isStopping_ = true;
    lookout_.stop();
    for (const auto& [key, phone] : phones_) {
        phone->timer->disarm();
        for (const std::unique_ptr<Attempt>& attempt : phone->attempts) {
            attempt->cancel();
        }
    }
    const auto hasAllEnded = [this] {
        return std::all_of(phones_.begin(), phones_.end(),
                           [](const auto& entry) { return entry.second->attempts.empty(); });
    };
    co_await news_.until(hasAllEnded);
    queue_.saveWhatIsBehind();
}

} // namespace orlinth::host
