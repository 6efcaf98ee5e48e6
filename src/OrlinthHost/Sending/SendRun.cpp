#include "OrlinthHost/Sending/SendRun.h"

#include "OrlinthHost/Phones/LastPhone.h"
#include "OrlinthHost/Phones/SharedPeers.h"
#include "platform/Cancelled.h"

#include <asio/this_coro.hpp>

#include <numeric>
#include <optional>

namespace orlinth::host {

/// One attempt under way. It tells what happens as what happens to its transfer.
struct SendRun::Running final : Attempt {
    Running(SendEvents& eventsOf, SendPlan::Transfer planned, SendEvents::Transfer transferOf)
        : events(eventsOf), plan(planned), transfer(transferOf) {}

    void onFile(const std::string& name, std::int64_t size, const std::string& mime) override {
        events.began(transfer, name, size, mime);
    }
    void onConnected() override {
        Attempt::onConnected();
        events.connected(transfer);
    }
    void onWaking() override { events.waking(transfer); }
    void onHandshakeComplete() override {
        Attempt::onHandshakeComplete();
        events.authenticated(transfer);
    }
    void onProgress(std::int64_t bytesSent, std::int64_t totalBytes) override {
        Attempt::onProgress(bytesSent, totalBytes);
        events.progress(transfer, {.done = bytesSent, .total = totalBytes});
    }
    void onComplete(const SentFile& result) override {
        Attempt::onComplete(result);
        events.endSent(transfer);
    }

    SendEvents& events;
    SendPlan::Transfer plan; ///< as it was begun
    SendEvents::Transfer transfer;
    std::optional<SendSources::Offer> offer;
    OffersInDoubt inDoubt; ///< with those of the attempts before
    std::optional<Delivered> delivered;
    platform::TaskGroup::Id task{};
};

SendRun::SendRun(Home& home, const platform::PrivateKey& ownKey, InFlightJournal& journal, SendTimes times,
                 std::vector<std::string> files, std::vector<PeerRecord> phones, SendEvents& events, FindSetting find)
    : home_(home),
      ownKey_(ownKey),
      times_(times),
      events_(events),
      phones_(std::move(phones)),
      sources_(home.system.files, home.system.mimeTypes, journal, std::move(files), phones_.size()),
      plan_(sources_.sizes(), phones_.size()),
      finder_(home, find),
      tasks_(home.executor) {}

SendRun::~SendRun() = default;

Task<int> SendRun::run() {
    const std::vector<std::int64_t> sizes = sources_.sizes();
    const auto phones = static_cast<std::int64_t>(phones_.size());
    events_.expected(sizes.size() * phones_.size(),
                     phones * std::accumulate(sizes.begin(), sizes.end(), std::int64_t{0}));
    goOn();
    bool isCancelled = false;
    try {
        co_await tasks_.join();
    } catch (const std::exception& error) {
        if (!platform::isCancellation(error)) {
            throw;
        }
        isCancelled = true;
    }
    if (isCancelled) {
        co_await asio::this_coro::reset_cancellation_state(asio::disable_cancellation());
        co_await leave();
    }
    co_await finder_.finish();
    sources_.tidy();
    if (lastTaker_ && LastPhone(home_).remember(*lastTaker_)) {
        updateSharedPeers(home_);
    }
    if (isCancelled) {
        throw platform::Cancelled();
    }
    co_return failed_;
}

SendEvents::Transfer SendRun::transferOf(const SendPlan::Transfer& transfer) const {
    return {.number = transfer.file * phones_.size() + transfer.phone,
            .path = sources_.pathOf(transfer.file),
            .size = sources_.sizeOf(transfer.file),
            .phone = phones_.at(transfer.phone)};
}

void SendRun::goOn() {
    startWhatMay();
    if (plan_.isIdle() && plan_.waiting() > 0) {
        sources_.prepareAnew();
        startWhatMay();
    }
}

void SendRun::startWhatMay() {
    for (std::size_t phone = 0; phone < phones_.size(); ++phone) {
        for (auto next = plan_.nextFor(phone); next && sources_.prepare(*next); next = plan_.nextFor(phone)) {
            start(phone);
        }
    }
}

void SendRun::start(std::size_t phone) {
    const SendPlan::Id id = plan_.begin(phone);
    const SendPlan::Transfer& planned = plan_.at(id);
    Running& running =
        *running_.emplace(id, std::make_unique<Running>(events_, planned, transferOf(planned))).first->second;
    running.inDoubt = inDoubt_[{planned.phone, planned.file}];
    putBack_.erase({planned.phone, planned.file});
    running.task = tasks_.add(send(running), [this, id](const std::exception_ptr& error) { settle(id, error); });
}

/// `running` stays until the task has ended.
Task<> SendRun::send(Running& running) {
    PreparedFile file = sources_.take(running.plan.file, running.offer);
    DeliveryRequest request{.file = std::move(file),
                            .phone = running.transfer.phone,
                            .ownKey = ownKey_,
                            .times = times_,
                            .mayWake = running.plan.isLeader,
                            .progress = &running,
                            .offersAtOnce = OffersInDoubt::limitOfCommands - running.inDoubt.count,
                            .inDoubt = running.inDoubt,
                            .onAgain =
                                [this, &running] {
                                    if (sources_.hasChanged(running.plan.file)) {
                                        throw SendError::fileRead(running.transfer.path + " changed while it was sent");
                                    }
                                    events_.again(running.transfer);
                                },
                            .finder = running.plan.isLeader ? &finder_ : nullptr, // one search is enough
                            .maySweep = MaySweep::yes,
                            .onMoved =
                                [this, &running](const PeerRecord& moved) {
                                    phones_.at(running.plan.phone).peer_ip = moved.peer_ip; // also for other files
                                    events_.moved(running.transfer);
                                }};
    Delivered delivered = co_await deliver(home_.system, std::move(request));
    running.delivered = std::move(delivered);
}

/// The task has ended.
void SendRun::settle(SendPlan::Id id, std::exception_ptr error) {
    const std::unique_ptr<Running> running = std::move(running_.extract(id).mapped());
    const std::size_t file = running->plan.file;
    inDoubt_[{running->plan.phone, file}] = running->inDoubt;
    const EndedAttempt ended{.error = std::move(error),
                             .stage = running->stage(),
                             .mayWake = running->plan.isLeader,
                             .hadCompany = plan_.at(id).hadCompany};
    const SendVerdict verdict = judge(ended);
    const SendPlan::Outcome outcome = plan_.end(id, verdict, ended.stage);
    if (isLeaving_ && verdict == SendVerdict::cancelled) {
        cutShort(running->transfer, file, running->offer);
        return;
    }
    switch (outcome) {
    case SendPlan::Outcome::delivered:
        sources_.delivered(file, *running->offer);
        lastTaker_ = running->transfer.phone.peer_pubkey;
        events_.delivered(running->transfer, *running->delivered);
        break;
    case SendPlan::Outcome::failed:
        events_.failed(running->transfer, ended, running->inDoubt.count > 0);
        sources_.failed(file, running->offer);
        ++failed_;
        break;
    case SendPlan::Outcome::putBack:
        if (running->offer) {
            putBack_.insert_or_assign({running->plan.phone, file}, *running->offer);
        }
        events_.putBack(running->transfer);
        break;
    }
    if (!isLeaving_) {
        goOn();
    }
}

/// Ends what is under way. Some may end for another reason in the same moment, well or not, and are told as always.
Task<> SendRun::leave() {
    isLeaving_ = true;
    cancelBeforeFarewell();
    const std::unique_ptr<platform::Timer> timer = home_.system.clock.makeTimer(home_.executor);
    timer->arm(grace, [this] { tasks_.cancelAll(); });
    co_await tasks_.join();
    interruption_.notBegun = plan_.waiting() - putBack_.size();
    for (const auto& [waiting, offer] : putBack_) { // which would have got another attempt
        cutShort(transferOf({.phone = waiting.phone, .file = waiting.file}), waiting.file, offer);
    }
}

void SendRun::cutShort(const SendEvents::Transfer& transfer, std::size_t file,
                       const std::optional<SendSources::Offer>& offer) {
    sources_.keepForNextTime(file, offer);
    interruption_.cutShort.push_back(transfer);
}

/// A file that is there already should not be reported as cut short: its phone gets a moment to say so.
void SendRun::cancelBeforeFarewell() {
    for (const auto& [id, running] : running_) {
        if (running->stage() != AttemptStage::farewell) {
            tasks_.cancel(running->task);
        }
    }
}

} // namespace orlinth::host
