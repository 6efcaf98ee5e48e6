#pragma once

#include "OrlinthBus/BusPeers.h"
#include "OrlinthBus/BusTree.h"
#include "OrlinthBus/CallerGate.h"
#include "OrlinthBus/HistoryMessages.h"
#include "OrlinthBus/PairingCalls.h"
#include "OrlinthBus/PhoneCalls.h"
#include "OrlinthBus/ServiceCalls.h"
#include "OrlinthBus/ServiceObjects.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Service/ServiceApi.h"
#include "OrlinthHost/Service/ServiceFace.h"
#include "platform/Condition.h"
#include "platform/TaskGroup.h"
#include "platform/linux/BusLoop.h"

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orlinth::bus {

/// The service on the session's bus, as com.tarvinex.orlinth1; docs/dbus.md tells what others find there.
///
/// Who has no bus, or another service in its place, has no face and still does its work. A bus that went away is looked
/// for again after a while.
///
/// Threading: on the home's executor.
class BusFace final : public host::ServiceFace {
public:
    /// For the name, once there is a connection.
    static constexpr Seconds startLimit = 2s;
    /// Between two looks at what has changed.
    static constexpr Seconds newsInterval = 250ms;
    /// Between two looks at the phones of which one is here: it may have gone without a word.
    static constexpr Seconds phonesInterval = 15s;
    /// The same if one is only asleep.
    static constexpr Seconds sleepersInterval = 300s;
    /// For the last signals to get out.
    static constexpr std::chrono::milliseconds lastWordsLimit{100};
    /// In one interval of news, so that changes are told by twenty signals a second at most.
    static constexpr std::size_t signalsAtOnce = 5;
    /// Before a bus that is lost, or that there is none, is looked for again.
    static constexpr Seconds reconnectInterval = 60s;
    /// For a change of a setting to be told, before its call is answered: whoever looks then sees it.
    static constexpr Seconds tellingLimit = 1s;

    /// `home` outlives this.
    BusFace(host::Home& home, platform::BusEnvironment environment, ServiceIdentity identity);
    ~BusFace() override;
    BusFace(const BusFace&) = delete;
    BusFace& operator=(const BusFace&) = delete;

    [[nodiscard]] Task<> start(host::ServiceApi& api) override;
    void stop() override;
    [[nodiscard]] Task<> finish() override;

private:
    enum class Name { unknown, ours, anothers };

    void connect();
    void disconnect() noexcept;
    void connectLater();
    static int onName(sd_bus_message* message, void* self, sd_bus_error* error);
    [[nodiscard]] Task<> tellNews();
    /// Tells what is new, as far as may be told at once.
    BusTree::Told tell(bool alsoPhones);
    void keepTold(const BusTree::Told& told, std::uint64_t version);
    /// What there is; the phones anew if they are asked for, or if something was heard of one.
    [[nodiscard]] BusObjects look(bool alsoPhones);
    /// How long nothing may change by time alone; nothing: for ever.
    [[nodiscard]] std::optional<Seconds> timeToLook() const;
    /// Whoever asks for all objects is somebody who may answer questions, until it leaves the bus.
    static int onMessage(sd_bus_message* message, void* self, sd_bus_error* error);
    void clientsChanged();
    /// For somebody who is told at once where to find something new.
    void tellEverything();
    void onCall(BusCall call);
    void answerOffer(BusCall call, host::OfferNumber number);
    /// Until what there was at this version of the service was told, but not for long.
    [[nodiscard]] Task<> untilTold(std::uint64_t version);
    void log(platform::LogLevel level, const std::string& text) const noexcept;

    host::Home& home_;
    const ServiceIdentity identity_;
    host::ServiceApi* api_ = nullptr; ///< once it is started
    Name name_ = Name::unknown;
    std::uint64_t toldVersion_ = 0; ///< of the service, of which everything was told
    platform::Condition news_;      ///< of the two before
    platform::BusLoop loop_;
    PairingCalls pairingCalls_;
    CallerGate gate_;
    PhoneCalls phoneCalls_;
    ServiceCalls serviceCalls_;
    BusTree tree_;
    HistorySignals historySignals_;
    platform::BusSlotRef request_; ///< of the name
    platform::BusSlotRef filter_;  ///< onMessage()
    BusPeers clients_;
    std::shared_ptr<const void> onlooker_; ///< while there is one of them
    std::unique_ptr<platform::Timer> reconnecting_;
    std::map<std::string, host::TransferNumber> transfers_;      ///< by path
    std::map<std::string, std::pair<BatchId, PeerKey>> batches_; ///< likewise
    std::map<std::string, PeerKey> phones_;                      ///< likewise
    std::map<std::string, host::OfferNumber> offers_;            ///< likewise
    std::vector<host::PhoneView> phoneViews_;
    std::uint64_t phonesSeen_ = 0; ///< their version
    bool isStopping_ = false;
    platform::TaskGroup tasks_; ///< tellNews()
};

} // namespace orlinth::bus
