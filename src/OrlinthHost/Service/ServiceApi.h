#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Outbox/OutboxSender.h"
#include "OrlinthHost/Service/LastText.h"
#include "OrlinthHost/Service/LiveSettings.h"
#include "OrlinthHost/Service/PortLoan.h"
#include "OrlinthHost/Service/PresenceKeeper.h"
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
///     Receiver, OutboxSender, PortLoan, PresenceKeeper ──▶ ServiceApi ◀── SocketFace
///
/// Word is that something has changed, not what: a face compares with what it has told before. So a face that is slow
/// misses steps in between, and nothing piles up for it.
///
/// Threading: everything on the home's executor.
class ServiceApi {
public:
    /// What is referred to outlives this. Takes over the watchers of `outbox`, `loan`, `presence` and `settings`.
    ServiceApi(Home& home, Receiver& receiver, OutboxSender& outbox, PortLoan& loan, PresenceKeeper& presence,
               LiveSettings& settings);
    ServiceApi(const ServiceApi&) = delete;
    ServiceApi& operator=(const ServiceApi&) = delete;

    // ---- what there is

    [[nodiscard]] ServiceView service() const;
    /// The paired phones in the order of the peer store. None if that cannot be read. Reads a file or two.
    [[nodiscard]] std::vector<PhoneView> phones() const;
    /// In the order in which they began.
    [[nodiscard]] std::vector<TransferView> transfers() const;
    /// Of the outbox, sorted by id and phone.
    [[nodiscard]] std::vector<OutboxView> batches() const { return outbox_.batches(); }

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

    /// LiveSettings::set(). @throws SettingError
    [[nodiscard]] Task<> setSetting(std::string name, SettingValue value) {
        return settings_.set(std::move(name), std::move(value));
    }

    /// The last text that came, which can also be forgotten.
    [[nodiscard]] LastText& lastText() noexcept { return lastText_; }

    // ---- for the service

    /// Told of each transfer that ends. May be empty.
    std::function<void(const TransferView&)> onTransferEnded;
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
    void watchOutbox();

    Home& home_;
    Receiver& receiver_;
    OutboxSender& outbox_;
    PortLoan& loan_;
    PresenceKeeper& presence_;
    LiveSettings& settings_;
    ServiceView::State state_ = ServiceView::State::starting;
    std::uint16_t port_ = 0;
    /// Shared with those who copy files on other threads.
    std::shared_ptr<std::atomic<bool>> isEnding_ = std::make_shared<std::atomic<bool>>(false);
    std::uint64_t version_ = 1;
    std::uint64_t phonesVersion_ = 1;
    platform::Condition news_;
    TransferList transfers_;
    LastText lastText_;
};

} // namespace orlinth::host
