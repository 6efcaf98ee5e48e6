#include "OrlinthHost/Outbox/OutboxSender.h"

#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Reach/Refusal.h"
#include "OrlinthHost/Sending/Delivery.h"
#include "OrlinthHost/Sending/PhoneLanes.h"
#include "OrlinthHost/Sending/PhoneTimeouts.h"
#include "OrlinthHost/Sending/RetryPolicy.h"
#include "base/Text.h"
#include "platform/IpAddress.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <list>
#include <numeric>
#include <set>
#include <utility>

namespace orlinth::host {

namespace {

using Why = OutboxEvents::Failure::Why;

/// Also if the second has just got the address at which the phone was found.
bool isReachedTheSameWay(const PeerRecord& one, const PeerRecord& other, const std::string& foundAt) {
    return (one.peer_ip == other.peer_ip || other.peer_ip == foundAt) && one.peer_port == other.peer_port &&
           one.peer_fcm_token == other.peer_fcm_token;
}

/// A phone that is away for a night is not looked for in every address of the network each hour.
bool isWorthASweep(const RetryPolicy& retries) {
    return retries.failures() == 0 || retries.failures() == 2;
}

/// Not if it is on this computer, and a name may be this computer's.
bool needsNetwork(const PeerRecord& record) {
    constexpr std::uint8_t ownNetwork = 127;
    const std::optional<platform::IpAddress> address = platform::parseIpAddress(record.peer_ip);
    if (!address) {
        return false;
    }
    const auto* const ipv4 = std::get_if<platform::Ipv4Address>(&*address);
    return ipv4 != nullptr ? ipv4->front() != ownNetwork : record.peer_ip != "::1";
}

/// Whether it is the phone that ended the attempt: by an answer, or by hanging up in good order.
bool isOfThePhone(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const SendError& error) {
        return error.which() == SendError::Case::declined || error.which() == SendError::Case::peerRemoved;
    } catch (const WireConnection::Error& error) {
        return error.which() == WireConnection::Error::Case::eof;
    } catch (...) {
        return false;
    }
}

bool isDeclined(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const SendError& error) {
        return error.which() == SendError::Case::declined;
    } catch (...) {
        return false;
    }
}

/// Whether it ended before anybody tried to connect again: nothing was heard of the phone since.
bool isPushFailure(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const SendError& error) {
        return error.reason() == SendError::Reason::pushFailed;
    } catch (...) {
        return false;
    }
}

} // namespace

/// One attempt under way.
struct OutboxSender::Running final : Attempt {
    Running(platform::Clock& clockOf, OutboxEvents& eventsOf, OutboxEvents::Transfer what, PeerRecord peer,
            platform::Path fileOf, std::shared_ptr<OutboxJournal> journalOf)
        : clock(clockOf),
          events(eventsOf),
          transfer(std::move(what)),
          record(std::move(peer)),
          file(std::move(fileOf)),
          journal(std::move(journalOf)),
          bytes(journal->sizeOf(file)) {}

    void onUnreached(const std::exception& error) override { wasRefused = isRefusal(error); }

    void onHandshakeComplete() override {
        Attempt::onHandshakeComplete();
        heardAt = clock.now();
        if (onProof) {
            onProof();
        }
    }

    void onProgress(std::int64_t bytesSent, std::int64_t totalBytes) override {
        Attempt::onProgress(bytesSent, totalBytes);
        const platform::Clock::Instant now = clock.now();
        tellWatcher(now, {.done = bytesSent, .total = totalBytes});
        heardAt = now; // it has answered, or its system has taken more
        if (!lastProgressAt || now - *lastProgressAt >= progressInterval) {
            lastProgressAt = now;
            events.progress(transfer, {.done = bytesSent, .total = totalBytes});
        }
    }

    void tellWatcher(platform::Clock::Instant now, const Progress& progress) {
        if (!lastWatchedAt) {
            lastWatchedAt = now;
            if (watcher->onStarted) {
                watcher->onStarted(number, transfer, progress);
            }
        } else if (now - *lastWatchedAt >= watchInterval || progress.done >= progress.total) {
            lastWatchedAt = now;
            if (watcher->onProgress) {
                watcher->onProgress(number, progress.done);
            }
        }
    }

    /// The file, with its batch.
    [[nodiscard]] std::string place() const { return transfer.batch.text() + "/" + transfer.file; }

    platform::Clock& clock;
    OutboxEvents& events;
    OutboxEvents::Transfer transfer;
    PeerRecord record;
    platform::Path file;
    std::shared_ptr<OutboxJournal> journal;
    std::int64_t bytes; ///< of the file
    AttemptNumber number{};
    const Watcher* watcher = nullptr; ///< never, once it runs
    std::optional<platform::Clock::Instant> lastWatchedAt;
    std::optional<platform::Clock::Instant> lastProgressAt;
    bool isCalledOff = false;           ///< cancelled to look again at what is next
    bool isCancelled = false;           ///< by somebody who does not want it to be sent any more
    bool isFirst = false;               ///< when it began there was no other connection to the phone
    platform::Clock::Instant heardAt{}; ///< when something last came from the phone, once it has proved its key
    bool wasRefused = false;            ///< at the last address that was tried, before a push
    bool hadCompany = false;            ///< another connection to the phone was there for a time
    OffersInDoubt inDoubt;              ///< with those of the attempts before
    std::optional<Delivered> delivered;
    platform::TaskGroup::Id task{};
    std::function<void()> onProof;
};

/// What goes to one phone.
struct OutboxSender::Phone {
    PeerKey peerKey;
    std::optional<PeerRecord> record; ///< as of the last attempt
    std::string foundAt;              ///< where it is instead, as long as that works; "" if nowhere else
    RetryPolicy retries;
    std::map<std::string, OffersInDoubt> inDoubt; ///< by file, with its batch
    /// What the phone had of a file, with its batch, when the last attempt began.
    std::map<std::string, std::int64_t> reached;
    std::string told; ///< why it waits, as it was told; "" once something was sent
    std::unique_ptr<platform::Timer> timer;
    std::optional<EpochMilliseconds> nextAttempt; ///< when the timer rings; stale unless the policy pauses
    std::list<std::unique_ptr<Running>> attempts; ///< under way
    PhoneLanes lanes;

    /// Whether data of this batch is on its way.
    [[nodiscard]] bool isSending(const BatchId& id) const {
        return std::ranges::any_of(
            attempts, [&id](const auto& attempt) { return attempt->transfer.batch == id && attempt->lastWatchedAt; });
    }
    [[nodiscard]] std::int64_t bytesUnderWay() const {
        return std::accumulate(attempts.begin(), attempts.end(), std::int64_t{0},
                               [](std::int64_t sum, const auto& attempt) { return sum + attempt->bytes; });
    }
};

OutboxSender::OutboxSender(Home& home, const platform::PrivateKey& ownKey, OutboxEvents& events, FindSetting find)
    : home_(home),
      ownKey_(ownKey),
      events_(events),
      queue_(home, events),
      lookout_(home, [this] { look(); }),
      finder_(home, find),
      tasks_(home.executor),
      news_(home.executor) {
    queue_.onChanged = [this] {
        if (onBatches) {
            onBatches();
        }
    };
    queue_.onLastPhone = [this] {
        if (onLastPhone) {
            onLastPhone();
        }
    };
}

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
    for (const BatchId& id : news.vanished) {
        static_cast<void>(drop(id)); // somebody has taken it back; what lies there now, if anything, is his
    }
    for (const PeerKey& peerKey : news.phones) {
        hope(phoneOf(peerKey));
    }
}

OutboxSender::Phone& OutboxSender::phoneOf(const PeerKey& peerKey) {
    std::unique_ptr<Phone>& phone = phones_[peerKey];
    if (!phone) {
        phone = std::make_unique<Phone>();
        phone->peerKey = peerKey;
        phone->timer = home_.system.clock.makeTimer(home_.executor);
    }
    return *phone;
}

bool OutboxSender::isUsed(const BatchId& id) const {
    return std::any_of(phones_.begin(), phones_.end(), [&id](const auto& entry) {
        const auto& attempts = entry.second->attempts;
        return std::any_of(attempts.begin(), attempts.end(),
                           [&id](const auto& attempt) { return attempt->transfer.batch == id; });
    });
}

void OutboxSender::hope(Phone& phone) {
    if (phone.retries.reasonToHope()) {
        tryNow(phone);
    }
}

void OutboxSender::tryNow(Phone& phone) {
    phone.timer->disarm();
    startNext(phone);
}

bool OutboxSender::mayBegin(const Phone& phone) const {
    return !isStopping_ && phone.retries.mayBegin() &&
           phone.lanes.mayOpen(
               {.ofPhone = phone.attempts.size(), .bytesOfPhone = phone.bytesUnderWay(), .ofAll = tasks_.size()});
}

void OutboxSender::startNext(Phone& phone) {
    while (mayBegin(phone)) {
        Job* const job = queue_.nextFor(phone.peerKey);
        if (job == nullptr) {
            return;
        }
        begin(phone, *job);
    }
}

void OutboxSender::begin(Phone& phone, Job& job) {
    OutboxState::Phone& state = *job.state.find(phone.peerKey);
    const std::string file = *job.nextFor(phone.peerKey);
    try {
        const PeerBook book = home_.peers().loadBook();
        const PeerRecord* const record = book.find(phone.peerKey);
        if (record == nullptr) {
            queue_.setAllFailed(
                phone.peerKey,
                {.why = Why::notPaired, .message = forDisplay(state.displayName()) + " is not paired any more"});
            return;
        }
        if (phone.record && phone.record->peer_ip != record->peer_ip) {
            phone.foundAt.clear();
        }
        phone.record = *record;
        state.hostname = record->peer_hostname;
        static_cast<void>(checkPeer(*record, ownKey_.publicKey(), PeerUse::connection));
        queue_.checkFile(job, file);
        if (!isConnected_ && needsNetwork(*record)) {
            pause(phone, "this computer is not connected to any network");
            return;
        }
    } catch (const OutboxError& error) {
        queue_.setFailed(job, phone.peerKey, file, {.why = Why::unreadable, .message = error.description()});
        return;
    } catch (const Error& error) {
        pause(phone, error.description());
        return;
    }
    launch(phone, job, file);
}

void OutboxSender::launch(Phone& phone, Job& job, const std::string& file) {
    OutboxState::Phone& state = *job.state.find(phone.peerKey);
    OutboxEvents::Transfer what{.batch = job.id(), .file = file, .to = state.displayName(), .peerKey = phone.peerKey};
    const bool isFirst = phone.attempts.empty();
    PeerRecord record = *phone.record;
    if (!phone.foundAt.empty()) {
        record.peer_ip = phone.foundAt;
    }
    Running& running = *phone.attempts.emplace_back(
        std::make_unique<Running>(home_.system.clock, events_, std::move(what), std::move(record),
                                  job.batch.folder / file, queue_.setUnderWay(job, phone.peerKey)));
    if (const auto before = phone.inDoubt.find(running.place()); before != phone.inDoubt.end()) {
        running.inDoubt = before->second;
    }
    running.number = AttemptNumber{++lastAttempt_};
    running.watcher = &watcher;
    if (onContact) {
        running.onProof = [this, &running] { onContact(running.record, Contact::proved, running.heardAt); };
    }
    running.isFirst = isFirst;
    if (!isFirst) {
        for (const std::unique_ptr<Running>& other : phone.attempts) {
            other->hadCompany = true;
        }
    }
    phone.retries.began();
    running.task = tasks_.add(transfer(running), [this, &phone, &running](const std::exception_ptr& error) {
        settle(phone, running, error);
    });
}

/// `running` stays until the task has ended.
Task<> OutboxSender::transfer(Running& running) {
    PreparedFile file = running.journal->take(running.file);
    Phone& phone = phoneOf(running.transfer.peerKey);
    const int left = OffersInDoubt::limitOfOutbox - running.inDoubt.count;
    DeliveryRequest request{.file = std::move(file),
                            .phone = running.record,
                            .ownKey = ownKey_,
                            .mayWake = running.isFirst, // one push is enough
                            .silenceLimit = silenceLimit,
                            .progress = &running,
                            .offersAtOnce = std::min(left, OffersInDoubt::atOnce),
                            .inDoubt = running.inDoubt,
                            .onAgain = {},
                            .finder = running.isFirst ? &finder_ : nullptr,
                            .maySweep = isWorthASweep(phone.retries) ? MaySweep::yes : MaySweep::no,
                            .onMoved = [&phone, &running](const PeerRecord& moved) {
                                running.record.peer_ip = phone.foundAt = moved.peer_ip;
                            }};
    Delivered delivered = co_await deliver(home_.system, std::move(request));
    running.delivered = std::move(delivered);
}

void OutboxSender::tellContact(const Running& running, const std::exception_ptr& error) const {
    if (!onContact || running.isCalledOff || isStopping_) {
        return;
    }
    const platform::Clock::Instant now = home_.system.clock.now();
    if (running.stage() == AttemptStage::offering || running.stage() == AttemptStage::sending ||
        running.stage() == AttemptStage::farewell) {
        onContact(running.record, Contact::proved, !error || isOfThePhone(error) ? now : running.heardAt);
    } else if (error) {
        const bool isAsleep = isRefusal(error) || (running.wasRefused && isPushFailure(error));
        onContact(running.record, isAsleep ? Contact::refused : Contact::failed, now);
    }
}

void OutboxSender::settle(Phone& phone, const Running& ended, std::exception_ptr error) {
    const auto at = std::find_if(phone.attempts.begin(), phone.attempts.end(),
                                 [&ended](const auto& attempt) { return attempt.get() == &ended; });
    const std::unique_ptr<Running> running = std::move(*at);
    phone.attempts.erase(at);
    tellContact(*running, error);
    const BatchId& id = running->transfer.batch;
    if (Job* const job = queue_.find(id)) {
        queue_.setEnded(*job, phone.peerKey, running->transfer.file);
        settle(phone, *job, *running,
               {.error = std::move(error),
                .stage = running->stage(),
                .mayWake = running->isFirst,
                .hadCompany = running->hadCompany});
    } else {
        tellEnd(*running, SendVerdict::cancelled, {});
        end(phone, RetryPolicy::Outcome::nothing);
    }
    const Job* const left = queue_.find(id);
    if (left != nullptr && left->isDropped && !isUsed(id)) {
        discard(id);
    }
    startNext(phone);
    news_.changed();
}

void OutboxSender::settle(Phone& phone, Job& job, const Running& running, const EndedAttempt& ended) {
    using Outcome = RetryPolicy::Outcome;
    if (running.inDoubt.count > 0) {
        phone.inDoubt[running.place()] = running.inDoubt;
    }
    const SendVerdict verdict = judge(ended);
    tellEnd(running, verdict, ended);
    const bool isOver = job.isDropped || isStopping_ || running.isCalledOff || running.isCancelled;
    if (isOver && verdict != SendVerdict::delivered) {
        end(phone, Outcome::nothing);
        if (running.isCancelled && !job.isDropped) {
            queue_.setCancelled(job, phone.peerKey, running.transfer.file);
        }
        return;
    }
    switch (verdict) {
    case SendVerdict::delivered:
        end(phone, Outcome::delivered);
        phone.told.clear();
        phone.reached.erase(running.place());
        phone.inDoubt.erase(running.place());
        phone.lanes.addTaken();
        queue_.setDone(job, phone.peerKey, running.transfer, *running.delivered);
        break;
    case SendVerdict::fileLost:
        end(phone, Outcome::answered);
        queue_.setFailed(
            job, phone.peerKey, running.transfer.file,
            {.why = isDeclined(ended.error) ? Why::declined : Why::unreadable, .message = failureText(ended)});
        break;
    case SendVerdict::phoneLost:
        end(phone, Outcome::answered);
        queue_.setAllFailed(phone.peerKey, {.why = Why::removed, .message = failureText(ended)});
        break;
    case SendVerdict::inDoubt:
        settleDoubt(phone, job, running);
        break;
    case SendVerdict::oneTooMany:
        settleOneTooMany(phone, job, running);
        break;
    case SendVerdict::tryAgain:
    case SendVerdict::cancelled: // by nobody here: as any other end
        settleBreak(phone, job, running, ended);
        break;
    }
}

void OutboxSender::tellEnd(const Running& running, SendVerdict verdict, const EndedAttempt& ended) {
    if (!running.lastWatchedAt || !watcher.onEnded) {
        return;
    }
    if (verdict == SendVerdict::delivered) {
        watcher.onEnded(running.number, AttemptEnd::delivered, "");
    } else if (verdict == SendVerdict::cancelled) {
        const Job* const job = queue_.find(running.transfer.batch);
        const bool isTakenBack = running.isCancelled || job == nullptr || job->isDropped;
        watcher.onEnded(running.number, isTakenBack ? AttemptEnd::cancelled : AttemptEnd::failed,
                        isTakenBack   ? ""
                        : isStopping_ ? "the service has ended"
                                      : "the phone was removed");
    } else {
        watcher.onEnded(running.number, AttemptEnd::failed, failureText(ended));
    }
}

/// The file may be there or not, and the phone is. It keeps its id; so whoever retries the batch sends nothing twice.
void OutboxSender::settleDoubt(Phone& phone, Job& job, const Running& running) {
    end(phone, RetryPolicy::Outcome::answered);
    if (running.inDoubt.count < OffersInDoubt::limitOfOutbox) {
        pause(phone, DeliveryInDoubt::text);
        return;
    }
    phone.inDoubt.erase(running.place()); // a retry begins anew
    queue_.setFailed(job, phone.peerKey, running.transfer.file,
                     {.why = Why::inDoubt, .message = DeliveryInDoubt::text});
}

/// The next attempt, which is alone, shows whether the phone is there.
void OutboxSender::settleOneTooMany(Phone& phone, Job& job, const Running& running) {
    const bool hasMoved = hasGotFurther(phone, running);
    if (!hasMoved && running.beganAt()) {
        queue_.putBehind(job, phone.peerKey, running.transfer.file);
    }
    end(phone, hasMoved ? RetryPolicy::Outcome::answered : RetryPolicy::Outcome::nothing);
    phone.lanes.fallBack();
}

void OutboxSender::settleBreak(Phone& phone, Job& job, const Running& running, const EndedAttempt& ended) {
    const bool hasMoved = hasGotFurther(phone, running);
    if (!hasMoved && running.stage() != AttemptStage::connecting) {
        queue_.putBehind(job, phone.peerKey, running.transfer.file);
    }
    if (running.stage() == AttemptStage::connecting) {
        phone.foundAt.clear();
    }
    const RetryPolicy::Outcome outcome = hasMoved ? RetryPolicy::Outcome::moved : RetryPolicy::Outcome::failed;
    if (const auto pause = phone.retries.ended(outcome, home_.system.clock.now())) {
        wait(phone, *pause, failureText(ended));
    }
}

/// Whether the attempt before was of use: the phone had more of the file now than then. One that takes a piece each
/// time and keeps none gets nowhere.
bool OutboxSender::hasGotFurther(Phone& phone, const Running& running) {
    if (!running.beganAt()) {
        return false;
    }
    const auto [before, isFirst] = phone.reached.try_emplace(running.place(), *running.beganAt());
    return isFirst ? running.hasMoved() : *running.beganAt() > std::exchange(before->second, *running.beganAt());
}

/// An attempt is over in a way that calls for no pause.
void OutboxSender::end(Phone& phone, RetryPolicy::Outcome outcome) const {
    static_cast<void>(phone.retries.ended(outcome, home_.system.clock.now()));
}

void OutboxSender::pause(Phone& phone, const std::string& message) {
    wait(phone, phone.retries.pause(home_.system.clock.now()), message);
}

void OutboxSender::wait(Phone& phone, Seconds pause, const std::string& message) {
    phone.nextAttempt = home_.system.clock.epochMilliseconds() + std::chrono::ceil<EpochMilliseconds::duration>(pause);
    phone.timer->arm(pause, [this, &phone] {
        phone.retries.pauseIsOver();
        startNext(phone);
    });
    const bool isNews = std::exchange(phone.told, message) != message;
    queue_.setWaiting(phone.peerKey, message, pause, isNews);
}

void OutboxSender::heardOf(const PeerRecord& record) {
    const auto at = phones_.find(record.peer_pubkey);
    if (at != phones_.end() && at->second->retries.heard(home_.system.clock.now())) {
        tryNow(*at->second);
    }
}

void OutboxSender::isBack(const PeerKey& peerKey) {
    const auto at = phones_.find(peerKey);
    if (at != phones_.end() && at->second->retries.returned(home_.system.clock.now())) {
        tryNow(*at->second);
    }
}

void OutboxSender::networkChanged() {
    for (const auto& [peerKey, phone] : phones_) {
        hope(*phone);
    }
}

void OutboxSender::peersChanged() {
    PeerBook book;
    try {
        book = home_.peers().loadBook();
    } catch (const PeerStoreError&) {
        return; // the next attempt meets the same and tells it
    }
    for (const auto& [peerKey, phone] : phones_) {
        const PeerRecord* const record = book.find(peerKey);
        if (phone->record && record != nullptr && isReachedTheSameWay(*phone->record, *record, phone->foundAt)) {
            continue;
        }
        for (const std::unique_ptr<Running>& attempt : phone->attempts) {
            if (record == nullptr || attempt->stage() == AttemptStage::connecting) {
                attempt->isCalledOff = true;
                tasks_.cancel(attempt->task);
            }
        }
        hope(*phone);
    }
    lookout_.lookSoon(); // a batch may wait for a store that can be read
}

bool OutboxSender::retry(const std::optional<BatchId>& id) {
    const bool isFound = !id || queue_.retry(*id);
    for (const auto& [peerKey, phone] : phones_) {
        hope(*phone);
    }
    lookout_.lookSoon();
    return isFound;
}

bool OutboxSender::retry(const BatchId& id, const PeerKey& peerKey) {
    const bool isFound = queue_.retry(id, peerKey);
    if (isFound) {
        hope(phoneOf(peerKey));
    }
    return isFound;
}

bool OutboxSender::drop(const BatchId& id) {
    Job* const job = queue_.find(id);
    if (job == nullptr) {
        return false;
    }
    job->isDropped = true;
    left_.erase(id);
    for (const auto& [peerKey, phone] : phones_) {
        for (const std::unique_ptr<Running>& attempt : phone->attempts) {
            if (attempt->transfer.batch == id) {
                tasks_.cancel(attempt->task);
            }
        }
    }
    if (!isUsed(id)) {
        discard(id);
    }
    return true;
}

void OutboxSender::discard(const BatchId& id) {
    if (const std::optional<std::string> problem = queue_.discard(id)) {
        left_[id] = *problem;
    }
    news_.changed();
}

Task<bool> OutboxSender::remove(BatchId id) {
    const bool isFound = drop(id);
    const auto isGone = [this, &id] { return queue_.find(id) == nullptr; };
    co_await news_.until(isGone);
    if (const auto left = left_.find(id); left != left_.end()) {
        throw HostError(left->second);
    }
    co_return isFound;
}

void OutboxSender::cancel(AttemptNumber number) {
    for (const auto& [peerKey, phone] : phones_) {
        for (const std::unique_ptr<Running>& attempt : phone->attempts) {
            if (attempt->number == number) {
                attempt->isCancelled = true;
                tasks_.cancel(attempt->task);
            }
        }
    }
}

bool OutboxSender::cancel(const BatchId& id, const PeerKey& peerKey) {
    Job* const job = queue_.find(id);
    const OutboxState::Phone* const to = job != nullptr && !job->isDropped ? job->state.find(peerKey) : nullptr;
    if (to == nullptr || !(job->isOpenFor(peerKey) || to->hasFailures())) {
        return false;
    }
    for (const std::unique_ptr<Running>& attempt : phoneOf(peerKey).attempts) {
        if (attempt->transfer.batch == id) {
            attempt->isCancelled = true;
            tasks_.cancel(attempt->task);
        }
    }
    queue_.setAllCancelled(*job, peerKey);
    return true;
}

std::vector<OutboxView> OutboxSender::batches() const {
    std::vector<OutboxView> views;
    for (const auto& [id, job] : queue_.all()) {
        const ShareOutbox::Manifest& manifest = job->batch.manifest;
        for (const OutboxState::Phone& to : job->state.phones) {
            const bool isOpen = to.done.size() + to.failed.size() < manifest.files.size();
            const auto failure = std::ranges::find_if(
                to.failed, [](const auto& entry) { return entry.second != OutboxState::cancelled; });
            if (job->isDropped || (!isOpen && failure == to.failed.end())) {
                continue;
            }
            OutboxView& view = views.emplace_back(OutboxView{.batch = id,
                                                             .peerKey = to.peerKey,
                                                             .phone = to.displayName(),
                                                             .createdAt = manifest.createdAtMs,
                                                             .files = manifest.files.size(),
                                                             .filesDone = to.done.size(),
                                                             .problem = to.waiting});
            const auto phone = phones_.find(to.peerKey);
            if (phone != phones_.end() && phone->second->isSending(id)) {
                view.state = OutboxView::State::sending;
            } else if (!isOpen) {
                view.state = OutboxView::State::failed;
                view.problem = failure->second;
            } else if (phone != phones_.end() && !phone->second->retries.mayBegin()) {
                view.state = OutboxView::State::paused;
                view.nextAttempt = phone->second->nextAttempt;
            }
        }
    }
    return views;
}

Task<> OutboxSender::finish() {
    isStopping_ = true;
    lookout_.stop();
    for (const auto& [peerKey, phone] : phones_) {
        phone->timer->disarm();
    }
    tasks_.cancelAll();
    co_await tasks_.join();
    co_await finder_.finish();
    queue_.saveWhatIsBehind();
}

} // namespace orlinth::host
