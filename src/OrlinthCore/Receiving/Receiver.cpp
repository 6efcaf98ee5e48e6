#include "OrlinthCore/Receiving/Receiver.h"

#include "OrlinthCore/Receiving/ReceiverConnection.h"
#include "OrlinthCore/Receiving/Strangers.h"
#include "base/ConstantTime.h"
#include "base/Mutex.h"
#include "platform/Condition.h"
#include "platform/IpAddress.h"
#include "platform/Spawn.h"
#include "platform/SystemError.h"

#include <asio/cancellation_signal.hpp>
#include <asio/dispatch.hpp>
#include <asio/post.hpp>
#include <asio/this_coro.hpp>

#include <algorithm>
#include <atomic>
#include <map>
#include <utility>

namespace orlinth {
namespace {

/// How long accepting rests when the system has run out of something.
constexpr Seconds rest = 100ms;

constexpr const char* logSubsystem = "com.tarvinex.orlinth";
constexpr const char* logCategory = "receiver";

/// One connection as the service keeps it.
struct Session {
    /// Who ends it.
    ///
    ///     open ──end()──▶ cut
    ///       └─it is settled how it ends──▶ over
    enum class Course {
        open, ///< it is served
        cut,  ///< it is ended from here, for the reason in `cutBecause`
        over  ///< it comes to an end of its own; nothing from here is the reason any more
    };

    Session(std::uint64_t number, Executor worker, std::string endpoint)
        : identity(number), queue(std::move(worker)), remoteEndpoint(std::move(endpoint)) {}

    std::uint64_t identity;
    Executor queue; ///< its own
    std::string remoteEndpoint;
    platform::Clock::Instant acceptedAt{};
    std::atomic<bool> hasGreeted = false; ///< the first message of its handshake has come; any thread
    asio::cancellation_signal stop;       ///< on its queue
    Course course = Course::open;         ///< on its queue
    std::string cutBecause;               ///< likewise
    std::string from;                     ///< display name of the phone; on its queue
    PeerKey peerKey;                      ///< its key, once it is proved to be a paired one; on its queue
    platform::Clock::Instant heardAt{};   ///< when something last came from the phone; on its queue
    /// What goes with the session, which is when the host has been told of its end.
    std::shared_ptr<const void> kept;
    bool isLeaving = false;               ///< it had to make room; on the receiver's queue
    bool isAnnounced = false;             ///< the host was told of the phone; likewise
    bool isCancelled = false;             ///< its transfer is; likewise
    std::optional<TransferId> transferId; ///< of the file that comes in; likewise
};

using SessionRef = std::shared_ptr<Session>;

/// Whom an end may concern.
enum class Whom { anybody, strangersOnly };

/// Ends a session, soon after. Any thread.
void end(const SessionRef& session, std::string because, Whom whom = Whom::anybody) {
    asio::post(session->queue, [session, because = std::move(because), whom] {
        const bool hasProvedItself = !session->peerKey.isEmpty(); // in this very moment, perhaps
        const bool isOpen = session->course == Session::Course::open;
        if (isOpen && !(whom == Whom::strangersOnly && hasProvedItself)) {
            session->course = Session::Course::cut;
            session->cutBecause = because;
            session->stop.emit(asio::cancellation_type::terminal);
        }
    });
}

/// Whose the port is. stop() may come in any state; what ends by itself, by a failure or a cancellation, ends as if
/// by stop().
///
///     ours ───────stepAside()──▶ lent ────comeBack()──────▶ ours
///     ours, lent ────stop()────▶ ending ──the next run()──▶ ours
enum class Port {
    ours,  ///< connections are taken while a run is under way
    lent,  ///< somebody else needs it for a moment: no more connections are taken, those that are there stay
    ending ///< the run ends, or has ended: every connection is closed
};

} // namespace

/// The running service. What has no other word is touched on `queue` only.
struct Receiver::Service : std::enable_shared_from_this<Receiver::Service> {
    Service(platform::System& owner, const platform::PrivateKey& key, std::vector<platform::PublicKey> expectedKeys,
            platform::Path directory, std::uint16_t number, std::string prologueBytes)
        : system(owner),
          staticKey(key),
          port(number),
          prologue(std::move(prologueBytes)),
          peers(PeerStore::keepingBook(owner.files, owner.directories, owner.clock)),
          downloads(owner.storage(), owner.queues, std::move(directory)),
          queue(owner.queues.makeSerialQueue("orlinth.receiver")),
          updates(std::make_shared<RecordUpdates>(peers, owner.clock, owner.queues)),
          expected(std::move(expectedKeys)) {}

    platform::System& system;
    const platform::PrivateKey& staticKey;
    std::uint16_t port; ///< once it listens, the real one
    const std::string prologue;
    const PeerStore peers; ///< any thread, and so the next one
    Downloads downloads;
    const Executor queue;
    const std::shared_ptr<RecordUpdates> updates; ///< any thread, and so the next two
    PhonePlaces places;
    FrameRoom frames;
    CancelledTransfers cancelled;
    std::atomic<std::uint64_t> looks = 0; ///< any thread

    mutable Mutex keysLock;
    std::vector<platform::PublicKey> expected ORLINTH_GUARDED_BY(keysLock);
    std::vector<platform::PublicKey> removed ORLINTH_GUARDED_BY(keysLock);

    Callbacks callbacks;
    std::function<Task<bool>(Offer)> approve;
    std::function<void()> refreshKeys;
    std::function<Reception(const PeerKey&)> receive;
    std::function<std::unique_ptr<platform::Listener>(const platform::ListenOptions&, Executor)> openListener;
    ReceiverLimits limits;

    std::unique_ptr<platform::Listener> listener;
    std::atomic<std::uint64_t> lastRun = 0; ///< number of the run() that was called last; any thread
    std::uint64_t stoppedRun = 0;           ///< number of the last one that is to end
    std::uint64_t currentRun = 0;           ///< number of the one that runs, or has run
    Port portState = Port::ours;
    bool isAccepting = false;        ///< the listener is in use, and may be closed but not replaced
    platform::Condition news{queue}; ///< told of the two before, and of fewer sessions, or fewer that are leaving
    std::uint64_t lastIdentity = 0;
    std::map<std::uint64_t, SessionRef> sessions;
    Strangers strangers{[this](std::uint64_t identity) { return sessions.at(identity)->hasGreeted.load(); }};
    std::unique_ptr<platform::Timer> crowdAlarm; ///< while it runs; looks after crowds of strangers
    bool isCrowdWatched = false;
    std::size_t leaving = 0; ///< sessions that had to make room and have not closed yet

    void open();
    [[nodiscard]] static Task<> serve(std::shared_ptr<Service> self, std::uint64_t number);
    void stop(std::uint64_t number);
    [[nodiscard]] bool mayAccept() const noexcept;
    [[nodiscard]] static Task<> acceptAll(std::shared_ptr<Service> self);
    [[nodiscard]] static Task<> endAll(std::shared_ptr<Service> self);
    [[nodiscard]] static Task<> closePort(std::shared_ptr<Service> self);
    [[nodiscard]] static Task<> openPort(std::shared_ptr<Service> self);
    void admit(std::unique_ptr<platform::Stream> stream);
    void makeRoom();
    void dismiss(std::uint64_t identity);
    void cancelTransfer(TransferNumber number);
    void watchCrowds();
    [[nodiscard]] static Task<> process(std::shared_ptr<Service> self, SessionRef session,
                                        std::unique_ptr<platform::Stream> stream);
    [[nodiscard]] ReceiverConnectionContext contextFor(const SessionRef& session);
    [[nodiscard]] ReceiverConnectionContext::Standing standingOf(const platform::PublicKey& key) const;
    [[nodiscard]] Reception receptionOf(const PeerKey& peerKey) const;
    [[nodiscard]] static Task<bool> ask(std::shared_ptr<Service> self, Offer offer);
    void stay(const SessionRef& session);
    void finish(const SessionRef& session, std::optional<ProcessOutcome> outcome, std::exception_ptr error);
    void finishTransfer(const Session& session, const std::optional<ProcessOutcome>& outcome,
                        const std::exception_ptr& error);
    void tell(const ProcessOutcome& outcome) const;
    void tellFailure(const Failure& failure) const;
};

void Receiver::Service::open() {
    if (port == 0) {
        throw Error::listenerStartFailed("invalid port " + std::to_string(port));
    }
    try {
        const platform::ListenOptions options{.port = port, .keepAlive = Receiver::keepAlive};
        listener = openListener ? openListener(options, queue) : system.network.listen(options, queue);
    } catch (const orlinth::Error& error) {
        throw Error::listenerStartFailed(error.description());
    }
}

void Receiver::Service::stop(std::uint64_t number) {
    stoppedRun = std::max(stoppedRun, number);
    if (currentRun <= stoppedRun) {
        portState = Port::ending;
        if (listener) {
            listener->close();
        }
        news.changed();
    }
}

Task<> Receiver::Service::serve(std::shared_ptr<Service> self, std::uint64_t number) {
    self->currentRun = number;
    if (number <= self->stoppedRun) {
        self->portState = Port::ending;
        self->listener.reset();
        co_return;
    }
    self->portState = Port::ours;
    if (!self->listener) {
        self->open();
    }
    self->port = self->listener->port();
    if (self->callbacks.onListening) {
        self->callbacks.onListening(self->port);
    }
    self->crowdAlarm = self->system.clock.makeTimer(self->queue);
    std::exception_ptr failure;
    try {
        co_await acceptAll(self);
    } catch (...) {
        failure = std::current_exception();
    }
    // Once we are cancelled every further await throws, the next line too, unless this is said first.
    co_await asio::this_coro::reset_cancellation_state(asio::disable_cancellation());
    co_await endAll(self);
    if (failure) {
        std::rethrow_exception(failure);
    }
    self->system.log.write(platform::LogLevel::info, logSubsystem, logCategory, "listener AsyncStream completed");
}

/// The port is ours, and there is room for another stranger.
bool Receiver::Service::mayAccept() const noexcept {
    return portState == Port::ours && leaving < maxStrangers;
}

/// Until stop(). A connection is only handed on here, so that the next one never waits for it.
Task<> Receiver::Service::acceptAll(std::shared_ptr<Service> self) {
    while (self->portState != Port::ending) {
        if (!self->mayAccept()) {
            const auto goesOn = [&service = *self] { return service.portState == Port::ending || service.mayAccept(); };
            co_await self->news.until(goesOn);
            continue;
        }
        std::exception_ptr failure;
        bool isShort = false;
        self->isAccepting = true;
        try {
            const Executor worker = self->system.queues.makeWorkerQueue("orlinth.receiver.connection");
            std::unique_ptr<platform::Stream> stream = co_await self->listener->accept(worker);
            self->admit(std::move(stream));
        } catch (const platform::SystemError& error) {
            isShort = platform::isShortage(error.code());
            if (!isShort && self->portState == Port::ours) {
                failure = std::make_exception_ptr(Error::listenerStopped(error.description()));
            }
        } catch (...) {
            failure = std::current_exception();
        }
        self->isAccepting = false;
        self->news.changed();
        if (failure) {
            std::rethrow_exception(failure);
        }
        if (isShort) {
            self->makeRoom();
            co_await self->system.clock.sleep(rest);
        }
    }
}

/// Closes the port, ends every connection and waits until the last one is gone.
Task<> Receiver::Service::endAll(std::shared_ptr<Service> self) {
    self->portState = Port::ending;
    self->news.changed();
    self->listener.reset();
    self->crowdAlarm.reset();
    self->isCrowdWatched = false;
    for (const auto& [identity, session] : self->sessions) {
        end(session, "the service has ended");
    }
    const auto areAllGone = [&sessions = self->sessions] { return sessions.empty(); };
    co_await self->news.until(areAllGone);
    co_await self->updates->finish();
}

Task<> Receiver::Service::closePort(std::shared_ptr<Service> self) {
    if (self->portState == Port::ours) {
        self->portState = Port::lent;
    }
    if (self->listener) {
        self->listener->close();
    }
    const auto isClosed = [&service = *self] { return service.portState == Port::ours || !service.isAccepting; };
    co_await self->news.until(isClosed);
}

Task<> Receiver::Service::openPort(std::shared_ptr<Service> self) {
    const auto isReady = [&service = *self] { // else stepAside() has not returned yet
        return service.portState != Port::lent || !service.isAccepting;
    };
    co_await self->news.until(isReady);
    if (self->portState == Port::lent) {
        self->open();
        self->portState = Port::ours;
        self->news.changed();
    }
}

void Receiver::Service::admit(std::unique_ptr<platform::Stream> stream) {
    const auto session = std::make_shared<Session>(++lastIdentity, stream->executor(), stream->remoteEndpoint());
    session->acceptedAt = system.clock.now();
    sessions.emplace(session->identity, session);
    platform::spawn(session->queue, process(shared_from_this(), session, std::move(stream)), session->stop.slot(),
                    [](const std::exception_ptr& error) {
                        if (error) {
                            std::rethrow_exception(error); // process() lets nothing escape but what nobody can handle
                        }
                    });
    // behind the start of its task, which may be the one to go
    std::string source = sourceOf(platform::addressOfEndpoint(session->remoteEndpoint));
    for (const std::uint64_t identity : strangers.add(session->identity, std::move(source), session->acceptedAt)) {
        dismiss(identity);
    }
    watchCrowds();
}

/// Ends one of those who have not yet proved who they are.
void Receiver::Service::makeRoom() {
    if (const std::optional<std::uint64_t> identity = strangers.takeOne()) {
        dismiss(*identity);
    }
}

void Receiver::Service::dismiss(std::uint64_t identity) {
    const SessionRef& session = sessions.at(identity);
    session->isLeaving = true;
    ++leaving;
    end(session, "too many connections of strangers", Whom::strangersOnly);
}

void Receiver::Service::cancelTransfer(TransferNumber number) {
    const auto at = sessions.find(static_cast<std::uint64_t>(number));
    if (at == sessions.end() || !at->second->transferId) {
        return;
    }
    const SessionRef& session = at->second;
    session->isCancelled = true;
    cancelled.add(session->peerKey, *session->transferId, system.clock.now()); // now: the phone may be quick
    end(session, "cancelled");
}

/// A source may have too many for a moment, and not for longer.
void Receiver::Service::watchCrowds() {
    constexpr Seconds lookInterval = limits::strangerGrace / 4;
    if (!strangers.isCrowded() || portState == Port::ending || std::exchange(isCrowdWatched, true)) {
        return;
    }
    crowdAlarm->arm(lookInterval, [this] { // a timer of our own, which ends with the run
        isCrowdWatched = false;
        for (const std::uint64_t identity : strangers.takeOverdue(system.clock.now())) {
            dismiss(identity);
        }
        watchCrowds();
    });
}

Task<> Receiver::Service::process(std::shared_ptr<Service> self, SessionRef session,
                                  std::unique_ptr<platform::Stream> stream) {
    const ReceiverConnectionContext context = self->contextFor(session);
    std::optional<ProcessOutcome> outcome;
    std::exception_ptr error;
    try {
        outcome = co_await processConnection(context, std::move(stream));
    } catch (...) {
        error = std::current_exception();
    }
    if (error && session->course == Session::Course::cut) {
        error = std::make_exception_ptr(ReceiveError::wire(session->cutBecause));
    }
    asio::post(self->queue, [self, session, outcome = std::move(outcome), error]() mutable {
        self->finish(session, std::move(outcome), error);
    });
}

Receiver::Reception Receiver::Service::receptionOf(const PeerKey& peerKey) const {
    using Approval = Reception::Approval;
    Reception reception =
        receive ? receive(peerKey)
                : Reception{.place = downloads.usualPlace(), .approval = approve ? Approval::asked : Approval::given};
    if (reception.approval == Approval::asked && !approve) {
        reception.approval = Approval::refused; // there is nobody who could say yes
    }
    return reception;
}

/// So that the host's function itself runs on our queue too, not only the task that it makes.
Task<bool> Receiver::Service::ask(std::shared_ptr<Service> self, Offer offer) {
    Task<bool> asking = self->approve(std::move(offer));
    const bool isWanted = co_await std::move(asking);
    co_return isWanted;
}

ReceiverConnectionContext Receiver::Service::contextFor(const SessionRef& session) {
    const std::shared_ptr<Service> self = shared_from_this();
    return {.clock = system.clock,
            .queues = system.queues,
            .peers = peers,
            .staticKey = staticKey,
            .downloads = downloads,
            .prologue = prologue,
            .updates = *updates,
            .places = places,
            .frames = frames,
            .cancelled = cancelled,
            .handshakeEnd = limits.handshakeLimit > 0s
                                // from now on: before, it may have waited for a thread that was busy with a disk
                                ? std::optional(system.clock.now() + limits.handshakeLimit)
                                : std::nullopt,
            .onGreeting = [session] { session->hasGreeted = true; },
            .onLook = [self] { ++self->looks; },
            .standingOf =
                [self, session](const platform::PublicKey& key) {
                    const auto standing = self->standingOf(key);
                    if (standing == ReceiverConnectionContext::Standing::expected) { // before its record is looked for
                        if (session->peerKey.isEmpty()) { // and never again: other threads read it later
                            session->peerKey = key.peerKey();
                        }
                        asio::post(self->queue, [self, session] {
                            self->strangers.remove(session->identity);
                            self->stay(session);
                        });
                    }
                    return standing;
                },
            .receptionOf = [self](const PeerKey& peerKey) { return self->receptionOf(peerKey); },
            .approveOffer = approve ? std::function([self](Offer offer) {
                return platform::runOn(self->queue, ask(self, std::move(offer)));
            })
                                    : std::function<Task<bool>(Offer)>(),
            .dismiss =
                [weak = std::weak_ptr(session)](const char* because) {
                    if (const SessionRef dismissed = weak.lock()) {
                        end(dismissed, because);
                    }
                },
            .keepUntilTold = [session](std::shared_ptr<const void> kept) { session->kept = std::move(kept); },
            .onAuthenticated =
                [self, session](const std::optional<PeerRecord>& record) {
                    session->from = record && !record->peer_hostname.empty() ? record->peer_hostname : unknownPeer;
                    asio::post(self->queue, [self, session, record] {
                        self->strangers.remove(session->identity);
                        if (record && self->callbacks.onAuthenticated) {
                            session->isAnnounced = true;
                            self->callbacks.onAuthenticated(
                                {.phone = *record, .remoteEndpoint = session->remoteEndpoint});
                        }
                    });
                },
            .onTransferStarted =
                [self, session](Transfer transfer) {
                    asio::post(self->queue, [self, session, transfer = std::move(transfer)]() mutable {
                        session->transferId = transfer.transferId;
                        transfer.number = TransferNumber{session->identity};
                        if (self->callbacks.onTransferStarted) {
                            self->callbacks.onTransferStarted(transfer);
                        }
                    });
                },
            .onTransferProgress =
                [self, session](std::int64_t bytesHere) {
                    asio::post(self->queue, [self, session, bytesHere] {
                        if (self->callbacks.onTransferProgress) {
                            self->callbacks.onTransferProgress(
                                {.number = TransferNumber{session->identity}, .bytesHere = bytesHere});
                        }
                    });
                },
            .onHeard = [session, &clock = system.clock] { session->heardAt = clock.now(); },
            .onOver =
                [session] {
                    if (session->course == Session::Course::open) {
                        session->course = Session::Course::over;
                    }
                },
            .onTrouble =
                [self, session](std::exception_ptr error) {
                    const Failure failure{.error = std::move(error),
                                          .remoteEndpoint = session->remoteEndpoint,
                                          .from = session->from.empty() ? unknownPeer : session->from,
                                          .peerKey = session->peerKey};
                    asio::post(self->queue, [self, failure] { self->tellFailure(failure); });
                }};
}

ReceiverConnectionContext::Standing Receiver::Service::standingOf(const platform::PublicKey& key) const {
    using Standing = ReceiverConnectionContext::Standing;
    if (refreshKeys) {
        refreshKeys();
    }
    const MutexLock guard(keysLock);
    const auto has = [&key](const std::vector<platform::PublicKey>& keys) {
        return std::ranges::any_of(
            keys, [&key](const platform::PublicKey& known) { return constantTimeEquals(known.raw(), key.raw()); });
    };
    if (has(removed)) {
        return Standing::removed;
    }
    return has(expected) ? Standing::expected : Standing::unknown;
}

/// It need not leave, or has left.
void Receiver::Service::stay(const SessionRef& session) {
    if (std::exchange(session->isLeaving, false)) {
        --leaving;
        news.changed();
    }
}

void Receiver::Service::finish(const SessionRef& session, std::optional<ProcessOutcome> outcome,
                               std::exception_ptr error) {
    sessions.erase(session->identity);
    strangers.remove(session->identity);
    stay(session);
    news.changed();
    if (outcome) {
        tell(*outcome);
    } else if (error && portState != Port::ending && !session->isCancelled) {
        tellFailure({.error = error,
                     .remoteEndpoint = session->remoteEndpoint,
                     .from = session->from,
                     .peerKey = session->peerKey});
    }
    if (session->transferId) {
        finishTransfer(*session, outcome, error);
    }
    if (session->isAnnounced && callbacks.onLeft) {
        callbacks.onLeft({.peerKey = session->peerKey, .heardAt = session->heardAt});
    }
    session->kept.reset(); // others may hold the session for longer
}

void Receiver::Service::finishTransfer(const Session& session, const std::optional<ProcessOutcome>& outcome,
                                       const std::exception_ptr& error) {
    const auto* const file = outcome ? std::get_if<File>(&*outcome) : nullptr;
    if (session.isCancelled && file != nullptr) {
        cancelled.remove(session.peerKey, *session.transferId);
    }
    if (!callbacks.onTransferEnded) {
        return;
    }
    TransferEnd end{.number = TransferNumber{session.identity}};
    if (file != nullptr) {
        end.how = TransferEnd::How::delivered;
        end.savedAt = file->file.savedAt;
    } else if (session.isCancelled) {
        end.how = TransferEnd::How::cancelled;
    } else {
        end.how = TransferEnd::How::failed;
        end.error = error;
    }
    callbacks.onTransferEnded(end);
}

void Receiver::Service::tell(const ProcessOutcome& outcome) const {
    if (const auto* file = std::get_if<File>(&outcome)) {
        if (callbacks.onTransfer) {
            callbacks.onTransfer(*file);
        }
    } else if (const auto* clipboard = std::get_if<Clipboard>(&outcome)) {
        if (callbacks.onClipboard) {
            callbacks.onClipboard(*clipboard);
        }
    } else if (callbacks.onSync) {
        callbacks.onSync(outcome);
    }
}

void Receiver::Service::tellFailure(const Failure& failure) const {
    if (callbacks.onError) {
        callbacks.onError(failure);
    }
}

Receiver::Receiver(platform::System& system, const platform::PrivateKey& staticKey,
                   std::vector<platform::PublicKey> expectedPeerPubkeys, platform::Path downloadsDir,
                   std::uint16_t port, std::string prologue)
    : service_(std::make_shared<Service>(system, staticKey, std::move(expectedPeerPubkeys), std::move(downloadsDir),
                                         port, std::move(prologue))) {}

Receiver::Receiver(platform::System& system, const platform::PrivateKey& staticKey,
                   platform::PublicKey expectedPeerPubkey, platform::Path downloadsDir, std::uint16_t port,
                   std::string prologue)
    : Receiver(system, staticKey, std::vector{expectedPeerPubkey}, std::move(downloadsDir), port, std::move(prologue)) {
}

Receiver::~Receiver() = default;

void Receiver::setExpectedPeerPubkeys(std::vector<platform::PublicKey> keys) {
    const MutexLock guard(service_->keysLock);
    service_->expected = std::move(keys);
}

void Receiver::setRemovedPeerPubkeys(std::vector<platform::PublicKey> keys) {
    const MutexLock guard(service_->keysLock);
    service_->removed = std::move(keys);
}

std::vector<platform::PublicKey> Receiver::removedPeerPubkeys() const {
    const MutexLock guard(service_->keysLock);
    return service_->removed;
}

std::uint64_t Receiver::lookCount() const noexcept {
    return service_->looks.load();
}

void Receiver::cancelTransfer(TransferNumber number) {
    asio::dispatch(service_->queue, [service = service_, number] { service->cancelTransfer(number); });
}

Task<> Receiver::run(Callbacks callbacks) {
    service_->callbacks = std::move(callbacks);
    service_->approve = approveOffer;
    service_->refreshKeys = beforeAuthorising;
    service_->receive = receptionOf;
    service_->downloads.setLimits(downloadLimits);
    service_->openListener = openListener;
    service_->limits = limits;
    service_->strangers.mostOfOneSource = limits.strangersOfOneSource;
    service_->listener = std::move(listener);
    return platform::runOn(service_->queue, Service::serve(service_, ++service_->lastRun));
}

void Receiver::stop() {
    constexpr std::uint64_t first = 1;
    const std::uint64_t number = std::max(service_->lastRun.load(), first);
    asio::dispatch(service_->queue, [service = service_, number] { service->stop(number); });
}

Task<> Receiver::stepAside() {
    return platform::runOn(service_->queue, Service::closePort(service_));
}

Task<> Receiver::comeBack() {
    return platform::runOn(service_->queue, Service::openPort(service_));
}

Receiver::Error Receiver::Error::listenerStartFailed(const std::string& text) {
    return {Case::listenerStartFailed, "listener start failed: ", text};
}
Receiver::Error Receiver::Error::listenerStopped(const std::string& text) {
    return {Case::listenerStopped, "listener stopped: ", text};
}

} // namespace orlinth
