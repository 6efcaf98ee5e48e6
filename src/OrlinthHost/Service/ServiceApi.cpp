#include "OrlinthHost/Service/ServiceApi.h"

#include "OrlinthCore/Share/ShareStaging.h"
#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "base/Counted.h"
#include "base/Text.h"
#include "platform/Blocking.h"

#include <algorithm>
#include <utility>

namespace orlinth::host {

ServiceApi::ServiceApi(Home& home, const Parts& parts)
    : home_(home),
      receiver_(parts.receiver),
      outbox_(parts.outbox),
      loan_(parts.loan),
      presence_(parts.presence),
      offers_(parts.offers),
      pairing_(parts.pairing),
      history_(parts.history),
      phoneRequests_(parts.phoneRequests),
      settings_(parts.settings),
      restarting_(home.system.clock.makeTimer(home.executor)),
      news_(home.executor),
      transfers_(home,
                 [this] {
                     changed();
                     if (onTransfers) {
                         onTransfers();
                     }
                 }),
      lastText_(home.system.clock, home.executor) {
    loan_.onChanged = [this] {
        workBegins();
        changed();
    };
    presence_.onChanged = [this] { phonesChanged(); };
    offers_.onChanged = [this] { changed(); };
    pairing_.onChanged = [this] { changed(); };
    phoneRequests_.onChanged = [this] {
        workBegins();
        changed();
    };
    history_.onChanged = [this] { changed(); };
    settings_.onChanged = [this] {
        changed();
        if (onSettings) {
            onSettings();
        }
    };
    transfers_.onEnded = [this](const TransferView& transfer) {
        if (onTransferEnded) {
            onTransferEnded(transfer);
        }
    };
    watchOutbox();
}

void ServiceApi::watchOutbox() {
    outbox_.onBatches = [this] { changed(); };
    outbox_.watcher = {
        .onStarted =
            [this](OutboxSender::AttemptNumber attempt, const OutboxEvents::Transfer& transfer,
                   const Progress& progress) {
                workBegins();
                transfers_.began(attempt, {.direction = TransferView::Direction::out,
                                           .peerKey = transfer.peerKey,
                                           .phone = transfer.to,
                                           .name = transfer.file,
                                           .batch = transfer.batch,
                                           .bytes = progress});
            },
        .onProgress = [this](OutboxSender::AttemptNumber attempt,
                             std::int64_t bytes) { transfers_.progressed(attempt, bytes); },
        .onEnded =
            [this](OutboxSender::AttemptNumber attempt, OutboxSender::AttemptEnd end, const std::string& why) {
                using End = OutboxSender::AttemptEnd;
                using State = TransferView::State;
                transfers_.ended(attempt,
                                 end == End::delivered   ? State::done
                                 : end == End::cancelled ? State::cancelled
                                                         : State::failed,
                                 why);
            }};
}

void ServiceApi::watch(Receiver::Callbacks& callbacks) {
    callbacks.onTransferStarted = [this](const Receiver::Transfer& transfer) {
        workBegins();
        transfers_.began(transfer.number, {.direction = TransferView::Direction::in,
                                           .peerKey = transfer.peerKey,
                                           .phone = transfer.from,
                                           .name = transfer.name,
                                           .bytes = {.done = transfer.resumedFrom, .total = transfer.size}});
    };
    callbacks.onTransferProgress = [this](const Receiver::TransferProgress& progress) {
        transfers_.progressed(progress.number, progress.bytesHere);
    };
    callbacks.onTransferEnded = [this](const Receiver::TransferEnd& end) {
        using How = Receiver::TransferEnd::How;
        using State = TransferView::State;
        transfers_.ended(end.number,
                         end.how == How::delivered   ? State::done
                         : end.how == How::cancelled ? State::cancelled
                                                     : State::failed,
                         end.error ? describe(end.error) : "", end.savedAt);
    };
}

ServiceView ServiceApi::service() const {
    ServiceView view{.state = state_,
                     .port = port_,
                     .name = settings_.computerName(),
                     .downloads = std::filesystem::absolute(settings_.downloads())};
    if (state_ == ServiceView::State::listening && loan_.isLent()) {
        view.problem = loan_.problem();
        view.state = view.problem.empty() ? ServiceView::State::lent : ServiceView::State::notListening;
    }
    if (view.problem.empty()) {
        view.problem = settings_.problem();
    }
    return view;
}

std::vector<PhoneView> ServiceApi::phones() const {
    try {
        lastBook_ = home_.peers().loadBook();
    } catch (const PeerStoreError&) {
        // the service has told of that, and goes on serving those whom it knows: they are not gone
    }
    std::vector<PhoneView> views;
    std::vector<PhonePresence> presences = presence_.all(lastBook_);
    for (std::size_t i = 0; i < presences.size(); ++i) {
        const PeerRecord& record = lastBook_.peers.at(i);
        views.push_back({.name = record.peer_hostname,
                         .presence = std::move(presences.at(i)),
                         .pairedAt = record.paired_at_epoch_ms,
                         .address = record.peer_ip});
    }
    return views;
}

std::vector<TransferView> ServiceApi::transfers() const {
    std::vector<TransferView> views;
    for (const auto& [number, view] : transfers_.all()) {
        views.push_back(view);
    }
    return views;
}

Task<BatchId> ServiceApi::share(std::vector<platform::Path> files, std::optional<std::vector<PeerKey>> phones) {
    const Counted counted(sharesUnderWay_);
    workBegins();
    co_return co_await stage(std::move(files), std::move(phones));
}

Task<BatchId> ServiceApi::stage(std::vector<platform::Path> files, std::optional<std::vector<PeerKey>> phones) {
    const auto step = [this, &files, &phones, isEnding = isEnding_] {
        if (!phones && home_.peers().loadBook().peers.size() > 1) {
            if (const std::optional<PeerRecord> phone = likelyPeer(home_)) {
                phones.emplace({phone->peer_pubkey});
            }
        }
        const ShareOutbox outbox(home_.system.files, home_.system.directories);
        ShareStaging staging({.files = home_.system.files,
                              .clock = home_.system.clock,
                              .log = home_.system.log,
                              .busSignals = home_.system.busSignals},
                             outbox);
        for (const platform::Path& file : files) {
            if (*isEnding) {
                throw HostError("the service is ending");
            }
            if (!staging.add(file)) {
                throw HostError("'" + forDisplay(file.native()) + "' cannot be shared: " + staging.lastProblem());
            }
        }
        return BatchId(staging.finish(phones).id);
    };
    co_return co_await platform::blocking(home_.system.queues, step);
}

bool ServiceApi::cancelTransfer(TransferNumber number) {
    const std::optional<TransferList::Carrier> carrier = transfers_.carrierOf(number);
    if (!carrier) {
        return false;
    }
    if (const auto* incoming = std::get_if<Receiver::TransferNumber>(&*carrier)) {
        receiver_.cancelTransfer(*incoming);
    } else {
        outbox_.cancel(std::get<OutboxSender::AttemptNumber>(*carrier));
    }
    return true;
}

void ServiceApi::restart() {
    if (!canRestart()) {
        throw HostError("no service manager would start the service again",
                        "End the service yourself, and start it again: `orlinth serve`");
    }
    restarting_->arm(restartDelay, onRestart);
}

bool ServiceApi::isBusy() const {
    const auto isUnderWay = [](const auto& transfer) { return !transfer.second.endedAt; };
    const auto isSending = [](const OutboxView& batch) { return batch.state == OutboxView::State::sending; };
    return sharesUnderWay_ > 0 || pairing_.isBusy() || phoneRequests_.isBusy() || !offers_.open().empty() ||
           std::ranges::any_of(transfers_.all(), isUnderWay) || std::ranges::any_of(outbox_.batches(), isSending);
}

void ServiceApi::metOtherVersion() {
    if (onOtherVersion) {
        onOtherVersion();
    }
}

Task<ServicePairing::Ticket> ServiceApi::pair(PairingOptions options) {
    if (state_ != ServiceView::State::listening) {
        throw HostError("the service does not listen");
    }
    co_return co_await pairing_.begin(port_, std::move(options));
}

void ServiceApi::listening(std::uint16_t port) {
    port_ = port;
    state_ = ServiceView::State::listening;
    changed();
}

void ServiceApi::stopping() {
    *isEnding_ = true;
    restarting_->disarm();
    state_ = ServiceView::State::stopping;
    lastText_.forget();
    changed();
}

void ServiceApi::changed() noexcept {
    ++version_;
    news_.changed();
}

void ServiceApi::phonesChanged() noexcept {
    ++phonesVersion_;
    changed();
}

} // namespace orlinth::host
