#include "OrlinthHost/Service/Service.h"

#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Outbox/OutboxSender.h"
#include "OrlinthHost/Phones/KnownKeys.h"
#include "OrlinthHost/Phones/PeerStoreWatch.h"
#include "OrlinthHost/Phones/SharedPeers.h"
#include "OrlinthHost/Service/DownloadsFolder.h"
#include "OrlinthHost/Service/HistoryKeeper.h"
#include "OrlinthHost/Service/NetworkLookout.h"
#include "OrlinthHost/Service/OfferQueue.h"
#include "OrlinthHost/Service/PartialsReminder.h"
#include "OrlinthHost/Service/PhoneArrivals.h"
#include "OrlinthHost/Service/PhoneRequests.h"
#include "OrlinthHost/Service/PortLoan.h"
#include "OrlinthHost/Service/PresenceKeeper.h"
#include "OrlinthHost/Service/ServiceApi.h"
#include "OrlinthHost/Service/ServiceLock.h"
#include "OrlinthHost/Service/ServicePairing.h"
#include "OrlinthHost/Service/SocketFace.h"
#include "OrlinthHost/Service/UpgradeWatch.h"

#include <asio/this_coro.hpp>

#include <utility>
#include <vector>

namespace orlinth::host {

/// What runs while the service does.
struct Service::Parts {
    Parts(const Service& service, const ServicePort& port, std::unique_ptr<platform::Listener> listener);

    /// Until the task is cancelled or the receiver fails.
    [[nodiscard]] Task<> serve();
    [[nodiscard]] Receiver::Callbacks callbacks();
    void start(std::uint16_t port);
    [[nodiscard]] Task<> finish();

    LiveSettings& live;
    ServiceEvents& events;
    const std::vector<ServiceFace*> faces;
    PresenceKeeper presence;
    OfferQueue offers;
    Receiver receiver;
    KnownKeys keys;
    OutboxSender outbox;
    SharedPeersUpdates sharedPeers;
    PhoneArrivals arrivals;
    PeerStoreWatch peers;
    NetworkLookout network;
    PartialsReminder partials;
    PortLoan loan;
    ServicePairing pairing;
    HistoryKeeper history;
    PhoneRequests phoneRequests;
    ServiceApi api;
    SocketFace control;
    UpgradeWatch upgrade;
    Watchdog watchdog;
};

Service::Parts::Parts(const Service& service, const ServicePort& port, std::unique_ptr<platform::Listener> listener)
    : live(service.live_),
      events(service.events_),
      faces(service.settings_.faces),
      presence(service.home_),
      offers(service.home_, service.settings_.asker),
      receiver(service.home_.system, service.ownKey_, std::vector<platform::PublicKey>(), service.live_.downloads(),
               port.number()),
      keys(service.home_, receiver, service.ownKey_.publicKey(),
           [&told = service.events_](const std::exception_ptr& error) { told.phonesUnreadable(error); }),
      outbox(service.home_, service.ownKey_, service.outboxEvents_, service.settings_.find),
      sharedPeers(service.home_),
      arrivals(service.home_, [this] { sharedPeers.update(); }),
      peers(service.home_,
            [this] {
                sharedPeers.update();
                arrivals.peersChanged();
                outbox.peersChanged();
                api.phonesChanged();
            }),
      network(service.home_, {.onConnected =
                                  [this](bool isConnected) {
                                      presence.networkChanged();
                                      outbox.setConnected(isConnected);
                                  },
                              .onNetwork =
                                  [this] {
                                      presence.networkChanged();
                                      outbox.networkChanged();
                                  },
                              .onPhone = [this](const PeerKey& phone) { outbox.isBack(phone); },
                              .onConfirmed = [this](const PeerKey& phone) { presence.confirmed(phone); },
                              .onPhoneGone = [this](const PeerKey& phone) { presence.disappeared(phone); }}),
      partials(
          service.home_, [this] { return live.folders(); },
          [&told = service.events_](const PartialsReminder::Reminder& reminder, const platform::Path& folder) {
              told.unfinishedDownloads(reminder, folder);
          }),
      loan(service.home_, receiver, port, service.events_),
      pairing(service.home_, service.ownKey_.publicKey(), loan,
              [&told = service.events_](const std::string& endpoint) { told.turnedAway(endpoint); }),
      history(service.home_),
      phoneRequests(service.home_, service.ownKey_, service.settings_.find),
      api(service.home_, {.receiver = receiver,
                          .outbox = outbox,
                          .loan = loan,
                          .presence = presence,
                          .offers = offers,
                          .pairing = pairing,
                          .history = history,
                          .phoneRequests = phoneRequests,
                          .settings = service.live_}),
      control(service.home_, api, loan, service.events_),
      upgrade(service.home_, api, service.settings_.program),
      watchdog(service.home_, service.settings_.watchdogInterval, service.settings_.watchdog) {
    outbox.onContact = [this](const PeerRecord& phone, OutboxSender::Contact contact, platform::Clock::Instant at) {
        presence.learn(phone, contact, at);
        if (contact == OutboxSender::Contact::proved) {
            sharedPeers.update(); // it was met
        }
    };
    outbox.onLastPhone = [this] { sharedPeers.update(); };
    api.onTransferEnded = [this](const TransferView& transfer) {
        if (live.keepsHistory()) {
            history.ended(transfer);
        }
    };
    api.onSettings = [this] { sharedPeers.update(); }; // the default phone comes first there
    api.onRestart = service.settings_.restart;
    api.onOtherVersion = [this] { upgrade.lookNow(); };
    receiver.limits = ReceiverLimits::strict();
    api.onTransfers = [this] { watchdog.stir(); };
    receiver.beforeAuthorising = [this] {
        watchdog.stir();
        keys.refresh();
    };
    receiver.receptionOf = [this](const PeerKey& peerKey) { return live.receptionOf(peerKey); };
    receiver.approveOffer = [this](Receiver::Offer offer) { return offers.wants(std::move(offer)); };
    receiver.openListener = [&port](const platform::ListenOptions& options, Executor executor) {
        return port.listen(options, std::move(executor));
    };
    receiver.listener = std::move(listener);
}

Receiver::Callbacks Service::Parts::callbacks() {
    Receiver::Callbacks told{
        .onListening = [this](std::uint16_t port) { start(port); },
        .onTransfer =
            [this](const Receiver::File& file) {
                live.forgetProblem(file.file.savedAt.parent_path());
                events.fileReceived(file);
            },
        .onClipboard =
            [this](const Receiver::Clipboard& text) {
                api.lastText().keep(text.text, text.from);
                events.textReceived(text);
            },
        .onSync =
            [this](const Receiver::ProcessOutcome& outcome) {
                events.settled(outcome);
                sharedPeers.update();
            },
        .onError = [this](const Receiver::Failure& failure) { events.connectionFailed(failure); },
        .onAuthenticated =
            [this](const Receiver::Arrival& arrival) {
                events.authenticated(arrival.phone, keys.pairedCount());
                presence.arrived(arrival.phone.peer_pubkey);
                arrivals.came(arrival);
                outbox.heardOf(arrival.phone);
                sharedPeers.update();
            },
        .onLeft =
            [this](const Receiver::Departure& departure) { presence.left(departure.peerKey, departure.heardAt); }};
    api.watch(told);
    return told;
}

void Service::Parts::start(std::uint16_t port) {
    control.start(port);
    network.start(); // before anything is sent: there may be no network
    outbox.start();
    peers.start();
    partials.start();
    upgrade.start();
    watchdog.start();
    api.listening(port);
    events.listening(port, keys.pairedCount());
}

Task<> Service::Parts::serve() {
    keys.refresh();
    events.phonesKnown(keys.pairedCount());
    std::exception_ptr failure;
    try {
        for (ServiceFace* const face : faces) {
            co_await face->start(api);
        }
        co_await receiver.run(callbacks());
    } catch (...) {
        failure = std::current_exception();
    }
    api.stopping();
    events.stopping();
    co_await asio::this_coro::reset_cancellation_state(asio::disable_cancellation());
    co_await finish();
    if (failure) {
        std::rethrow_exception(failure);
    }
}

Task<> Service::Parts::finish() {
    peers.stop();
    network.stop();
    partials.stop();
    for (ServiceFace* const face : faces) {
        face->stop();
    }
    co_await control.finish();
    co_await upgrade.finish();
    co_await pairing.finish();
    co_await outbox.finish();
    co_await events.finish();
    co_await history.finish();
    for (ServiceFace* const face : faces) {
        co_await face->finish(); // behind what must not be lost: somebody's files may be large
    }
    co_await phoneRequests.finish(); // behind those who ask it
    co_await arrivals.finish();
    co_await sharedPeers.finish(); // behind those who have news for it
    co_await partials.finish();    // behind the others: its folder may take its time
    co_await watchdog.finish();
}

Service::Service(Home& home, const platform::PrivateKey& ownKey, LiveSettings& live, ServiceSettings settings,
                 ServiceEvents& events, OutboxEvents& outboxEvents)
    : home_(home),
      ownKey_(ownKey),
      live_(live),
      settings_(std::move(settings)),
      events_(events),
      outboxEvents_(outboxEvents) {}

Task<> Service::run() {
    const ServiceLock lock = co_await ServiceLock::take(home_);
    checkFolders();
    ServicePort port(home_, settings_.port,
                     [&told = events_](const std::string& endpoint) { told.turnedAway(endpoint); });
    if (const std::optional<std::uint16_t> inherited = port.adoptInherited()) {
        events_.portInherited(*inherited);
    }
    std::unique_ptr<platform::Listener> listener = co_await port.open();
    Parts parts(*this, port, std::move(listener));
    co_await parts.serve();
}

void Service::checkFolders() const {
    const bool takesFiles = live_.takesFiles();
    for (const platform::Path& folder : live_.folders()) {
        if (const std::optional<std::string> reason = objectionToDownloads(home_, folder)) {
            throw HostError("received files cannot go to " + folder.string() + ": " + *reason);
        }
        if (takesFiles) {
            requireWritable(folder);
        }
    }
}

/// Who has chosen a folder while a service ran can only choose another one if it runs.
void Service::requireWritable(const platform::Path& folder) const {
    try {
        requireWritableFolder(home_, folder);
    } catch (const HostError& error) {
        if (!live_.canWaitFor(folder)) {
            throw;
        }
        live_.keepProblem(folder, error.description());
        events_.folderUnusable(folder, error.description());
    }
}

} // namespace orlinth::host
