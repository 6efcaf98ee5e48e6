#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Outbox/OutboxEvents.h"
#include "OrlinthHost/Reach/FinderPlan.h"
#include "OrlinthHost/Service/LiveSettings.h"
#include "OrlinthHost/Service/OfferAsker.h"
#include "OrlinthHost/Service/ServiceEvents.h"
#include "OrlinthHost/Service/ServiceFace.h"
#include "OrlinthHost/Service/ServicePort.h"
#include "OrlinthHost/Service/Watchdog.h"

#include <optional>
#include <vector>

namespace orlinth::host {

/// What a service is to do for as long as it runs; what may change meanwhile is in LiveSettings.
struct ServiceSettings {
    using Accept = AcceptSetting;

    OfferAsker* asker = nullptr; ///< for Accept::ask; outlives the service. Null: only faces show what is offered
    ServicePort::Settings port;
    FindSetting find = FindSetting::known; ///< where phones are looked for that what was shared goes to
    /// How often whoever manages the service wants to hear that it is alive; nothing: never.
    std::optional<Seconds> watchdogInterval;
    /// By which the service can be seen and asked besides the control socket; all of them outlive the service.
    std::vector<ServiceFace*> faces = {};
    Watchdog::Callbacks watchdog;
    /// The file of the program, to notice that it was replaced; nothing: that is not noticed.
    std::optional<platform::Path> program = {};
    /// Cancels the service, so that the program ends in the way after which whoever manages it starts it anew. On the
    /// home's executor. Empty: nobody would.
    std::function<void()> restart = {};
};

/// The receive service of one data folder: receives from every paired phone, and sends what lies in the outbox, until
/// it is cancelled. Builds its parts, lets them know of each other, and ends them in order:
///
///     lock ─▶ folder ─▶ port ─▶ listening: Receiver, SocketFace, OutboxSender, PeerStoreWatch,
///                                  │        PhoneArrivals, NetworkLookout, PartialsReminder, UpgradeWatch, Watchdog
///                               stopping ─▶ control socket ─▶ outbox ─▶ events ─▶ history ─▶ addresses ─▶ shared list
///                                                                               ─▶ downloads ─▶ watchdog
///
/// stopping: the receiver has ended, and with it every connection of a phone; what was under way can be resumed.
/// Those who ask by the control socket go first, since they ask the others; the look at the downloads folder comes
/// late, because that may not answer for long, and the watchdog last.
///
/// Threading: everything on the home's executor, but for the callbacks of the watchdog.
class Service {
public:
    /// What is referred to outlives this, and stays until the executor has had its turn.
    Service(Home& home, const platform::PrivateKey& ownKey, LiveSettings& live, ServiceSettings settings,
            ServiceEvents& events, OutboxEvents& outboxEvents);
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /// Runs until the task is cancelled or the receiver fails; on return, however it ends, nothing of it is left but
    /// what waits on the executor for its turn. Once.
    /// @throws platform::Cancelled; HostError if a service runs for this data folder already, or its lock or the
    ///         downloads folder is of no use; PortError; Receiver::Error
    [[nodiscard]] Task<> run();

private:
    struct Parts;

    void checkFolders() const;
    void requireWritable(const platform::Path& folder) const;

    Home& home_;
    const platform::PrivateKey& ownKey_;
    LiveSettings& live_;
    const ServiceSettings settings_;
    ServiceEvents& events_;
    OutboxEvents& outboxEvents_;
};

} // namespace orlinth::host
