#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Outbox/OutboxSender.h"
#include "OrlinthHost/Service/HistoryKeeper.h"
#include "OrlinthHost/Service/LastText.h"
#include "OrlinthHost/Service/LiveSettings.h"
#include "OrlinthHost/Service/OfferQueue.h"
#include "OrlinthHost/Service/PhoneRequests.h"
#include "OrlinthHost/Service/PortLoan.h"
#include "OrlinthHost/Service/PresenceKeeper.h"
#include "OrlinthHost/Service/ServicePairing.h"
#include "OrlinthHost/Service/ServiceView.h"
#include "OrlinthHost/Service/TransferList.h"
#include "platform/Condition.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orlinth::host {

/// The running service as its faces know it: what there is, word when that changes, and everything that can be asked of
/// it. A face turns this into messages of its own kind and has no rules of its own.
///
///     Receiver, OutboxSender, PortLoan, PresenceKeeper, OfferQueue, ServicePairing ──▶ ServiceApi ◀── SocketFace
///
/// Word is that something has changed, not what: a face compares with what it has told before. So a face that is slow
/// misses steps in between, and nothing piles up for it.
///
/// Threading: everything on the home's executor.
class ServiceApi {
public:
    /// What of the service does the work. All of it outlives the ServiceApi.
    struct Parts {
        Receiver& receiver;
        OutboxSender& outbox;
        PortLoan& loan;
        PresenceKeeper& presence;
        OfferQueue& offers;
        ServicePairing& pairing;
        HistoryKeeper& history;
        PhoneRequests& phoneRequests;
        LiveSettings& settings;
    };

    /// `home` outlives this. Takes over the watchers of the parts.
    ServiceApi(Home& home, const Parts& parts);
    ServiceApi(const ServiceApi&) = delete;
    ServiceApi& operator=(const ServiceApi&) = delete;

    // ---- what there is

    [[nodiscard]] ServiceView service() const;
    /// The paired phones in the order of the peer store. If that cannot be read, those that it had when it last could.
    /// Reads a file or two.
    [[nodiscard]] std::vector<PhoneView> phones() const;
    /// In the order in which they began.
    [[nodiscard]] std::vector<TransferView> transfers() const;
    /// Of the outbox, sorted by id and phone.
    [[nodiscard]] std::vector<OutboxView> batches() const { return outbox_.batches(); }
    /// The files that wait for a yes or a no, sorted by number.
    [[nodiscard]] std::vector<OfferView> offers() const { return offers_.open(); }
    /// The pairing that somebody has begun by a face, also for a moment after its end; nothing if there is none.
    [[nodiscard]] std::optional<PairingView> pairing() const { return pairing_.view(); }
    /// Whether a pairing keeps others from beginning, `orlinth pair` included.
    [[nodiscard]] bool isPairing() const noexcept { return pairing_.isBusy(); }

    /// LiveSettings::all().
    [[nodiscard]] std::vector<SettingView> settings() const { return settings_.all(); }

    // ---- that it has changed

    /// A number that grows whenever any of that may have changed, but for phones of which nothing is heard for a while.
    [[nodiscard]] std::uint64_t version() const noexcept { return version_; }
    /// The same of the phones alone.
    [[nodiscard]] std::uint64_t phonesVersion() const noexcept { return phonesVersion_; }
    /// Told whenever version() has grown.
    [[nodiscard]] platform::Condition& news() noexcept { return news_; }

    // ---- what can be asked

    /// Ends this transfer for good: what comes in is declined from now on, what goes out is not sent any more. Returns
    /// whether it is under way.
    [[nodiscard]] bool cancelTransfer(TransferNumber number);
    /// Copies these files into the outbox, for these phones, or for the default phone; returns the batch. All of them,
    /// or none. @throws HostError, also if the service ends meanwhile; ShareError
    [[nodiscard]] Task<BatchId> share(std::vector<platform::Path> files, std::optional<std::vector<PeerKey>> phones);
    /// OutboxSender::retry().
    [[nodiscard]] bool retry(const std::optional<BatchId>& batch) { return outbox_.retry(batch); }
    /// Tries now what one phone has not got of a batch; OutboxSender::retry().
    [[nodiscard]] bool retry(const BatchId& batch, const PeerKey& peerKey) { return outbox_.retry(batch, peerKey); }
    /// Takes a batch back for one phone; the others still get it. Returns whether there is such a batch for it.
    [[nodiscard]] bool cancelBatch(const BatchId& batch, const PeerKey& peerKey) {
        return outbox_.cancel(batch, peerKey);
    }
    /// Takes a batch back, and ends what is under way of it: OutboxSender::remove().
    [[nodiscard]] Task<bool> cancelBatch(BatchId batch) { return outbox_.remove(std::move(batch)); }
    /// Accepts or declines a file that a phone offers; the first answer counts. Returns whether it waits for one.
    [[nodiscard]] bool answerOffer(OfferNumber number, bool isAccepted) { return offers_.answer(number, isAccepted); }
    /// Begins a pairing at the service's port. Whoever holds the ticket goes on with it, and nobody else.
    /// @throws HostError, also if the service does not listen; ServicePairing::begin()
    [[nodiscard]] Task<ServicePairing::Ticket> pair(PairingOptions options);
    /// As long as the result lives, there is somebody who sees offers() and can answer them, so that they wait for an
    /// answer also where nobody else can be asked.
    [[nodiscard]] std::shared_ptr<const void> onlooker() const { return offers_.onlooker(); }

    /// LiveSettings::set(). @throws SettingError
    [[nodiscard]] Task<> setSetting(std::string name, SettingValue value) {
        return settings_.set(std::move(name), std::move(value));
    }

    /// The last text that came, which can also be forgotten.
    [[nodiscard]] LastText& lastText() noexcept { return lastText_; }
    /// What came and went, which can also be cleared.
    [[nodiscard]] HistoryKeeper& history() noexcept { return history_; }
    [[nodiscard]] const HistoryKeeper& history() const noexcept { return history_; }
    /// What can be asked about a phone.
    [[nodiscard]] PhoneRequests& phoneRequests() noexcept { return phoneRequests_; }

    /// Ends the service, which whoever manages it then starts anew. Returns before that, so that there is a moment for
    /// an answer. What is under way is broken off, and goes on with the next service; texts in memory are lost.
    /// @throws HostError if nobody would start it again
    void restart();
    [[nodiscard]] bool canRestart() const noexcept { return onRestart != nullptr; }
    /// Whether a file is on its way, is being shared or waited for, a phone gets what somebody has asked for, or a
    /// pairing is under way, up to the answer whether the codes are the same.
    [[nodiscard]] bool isBusy() const;
    /// A number that grows whenever any of that begins.
    [[nodiscard]] std::uint64_t workBegun() const noexcept { return workBegun_; }
    /// A client of another version of the program has asked for something.
    void metOtherVersion();

    // ---- for the service

    /// Told of each transfer that ends. May be empty.
    std::function<void(const TransferView&)> onTransferEnded;
    /// Ends the service so that whoever manages it starts it anew. Empty: nobody would.
    std::function<void()> onRestart;
    /// Told of a client of another version. May be empty.
    std::function<void()> onOtherVersion;
    /// Told whenever a transfer begins, goes on or ends; throws nothing. May be empty.
    std::function<void()> onTransfers;
    /// Told when a setting has changed. May be empty.
    std::function<void()> onSettings;

    /// Lets `callbacks` tell of transfers too.
    void watch(Receiver::Callbacks& callbacks);
    void listening(std::uint16_t port);
    void stopping();
    /// Something that service() shows has changed.
    void changed() noexcept;
    /// Something that phones() shows.
    void phonesChanged() noexcept;

private:
    /// Between restart() and the end, for the answer to whoever has asked for it.
    static constexpr Seconds restartDelay = 100ms;

    void watchOutbox();
    void workBegins() noexcept { ++workBegun_; }
    [[nodiscard]] Task<BatchId> stage(std::vector<platform::Path> files, std::optional<std::vector<PeerKey>> phones);

    Home& home_;
    Receiver& receiver_;
    OutboxSender& outbox_;
    PortLoan& loan_;
    PresenceKeeper& presence_;
    OfferQueue& offers_;
    ServicePairing& pairing_;
    HistoryKeeper& history_;
    PhoneRequests& phoneRequests_;
    LiveSettings& settings_;
    ServiceView::State state_ = ServiceView::State::starting;
    std::uint16_t port_ = 0;
    /// Shared with those who copy files on other threads.
    std::shared_ptr<std::atomic<bool>> isEnding_ = std::make_shared<std::atomic<bool>>(false);
    std::uint64_t version_ = 1;
    std::uint64_t phonesVersion_ = 1;
    std::uint64_t workBegun_ = 0;
    std::size_t sharesUnderWay_ = 0;
    mutable PeerBook lastBook_; ///< as it was last read
    std::unique_ptr<platform::Timer> restarting_;
    platform::Condition news_;
    TransferList transfers_;
    LastText lastText_;
};

} // namespace orlinth::host
