#include "OrlinthHost/Service/DesktopNotices.h"

#include "OrlinthHost/Outbox/OutboxStore.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Service/LinkText.h"
#include "OrlinthHost/Service/NoticePace.h"
#include "OrlinthHost/Service/ServiceApi.h"
#include "platform/Cancelled.h"

#include <algorithm>
#include <filesystem>
#include <utility>

namespace orlinth::host {

using platform::NotificationAnswer;

namespace {

/// By which folders can be compared.
platform::Path plainPath(const platform::Path& path) {
    return std::filesystem::absolute(path).lexically_normal();
}

} // namespace

DesktopNotices::DesktopNotices(NoticeBoard board, DesktopActions& desktop, Folders folders)
    : board_(std::move(board)),
      home_(board_.home()),
      desktop_(desktop),
      folders_(std::move(folders)),
      incoming_(
          board_, desktop, *this, [this] { wantLook(); }, folders_.of),
      outgoing_(board_, desktop, *this, [this] { wantLook(); }),
      port_(board_),
      folder_(board_),
      textSlot_(board_),
      tasks_(home_.executor) {}

// What has happened

void DesktopNotices::fileReceived(const Receiver::File& file) {
    if (plainPath(file.file.savedAt).parent_path() == troubledFolder_) {
        endFolderTrouble();
    }
    incoming_.fileReceived(file);
}

DesktopNotices::KeptText DesktopNotices::keptText() const {
    return api_ != nullptr ? api_->lastText().get() : nullptr;
}

void DesktopNotices::textReceived(const PeerKey& peerKey, const std::string& phone, notices::TextNotice text,
                                  KeptText kept) {
    if (isStopped_ || api_ == nullptr) {
        return;
    }
    newText_ = Text{.peerKey = peerKey, .phone = phone, .what = std::move(text), .kept = std::move(kept)};
    wantLook();
}

void DesktopNotices::unpaired(const Receiver::Unpair& unpair) {
    NoticeSlot slot(board_);
    showPlain(slot, notices::unpaired(phoneForDisplay(home_, unpair.from, unpair.peerKey), unpair.isForgotten));
}

void DesktopNotices::cannotSave(const PeerKey& from) {
    if (folders_.of) {
        cannotSaveIn(folders_.of(from));
    }
}

void DesktopNotices::cannotSaveIn(const platform::Path& folder) {
    const platform::Path troubled = plainPath(folder);
    const bool isDismissed = folder_.isDismissed() && troubled == troubledFolder_;
    if (!isStopped_ && !folder_.isShown() && !isDismissed) {
        troubledFolder_ = troubled;
        showPlain(folder_, notices::folderTrouble(folder));
    }
}

void DesktopNotices::wantLook() {
    hasNews_ = true;
    if (api_ != nullptr) {
        api_->news().changed();
    }
}

// As a face

Task<> DesktopNotices::start(ServiceApi& api) {
    api_ = &api;
    phonesSeen_ = api.phonesVersion();
    learnPhones();
    tasks_.add(watch(), [this](const std::exception_ptr& error) {
        try {
            if (error) {
                std::rethrow_exception(error);
            }
        } catch (const std::exception& failure) {
            if (!platform::isCancellation(failure)) {
                log("no more notifications: " + describe(failure));
            }
        }
    });
    co_return;
}

void DesktopNotices::stop() {
    isStopped_ = true;
    tasks_.cancelAll();
    incoming_.stop();
    outgoing_.stop();
    port_.close();
    folder_.close();
    textSlot_.close(); // its buttons would do nothing
    api_ = nullptr;
    life_.end(); // what stays on the desktop does nothing any more
}

Task<> DesktopNotices::finish() {
    co_await tasks_.join();
    co_await incoming_.finish();
}

Task<> DesktopNotices::watch() {
    std::uint64_t seen = 0;
    std::optional<Seconds> next;
    while (!isStopped_) { // which may be while this is about to go on, and then there is no service to look at
        const auto isNew = [this, &seen] { return isStopped_ || hasNews_ || api_->version() != seen; };
        if (next) {
            static_cast<void>(co_await api_->news().until(isNew, home_.system.clock, *next));
        } else {
            co_await api_->news().until(isNew);
        }
        if (isStopped_) {
            co_return;
        }
        seen = api_->version();
        hasNews_ = false;
        next = look();
        co_await home_.system.clock.sleep(lookInterval);
    }
}

std::optional<Seconds> DesktopNotices::look() {
    const std::vector<TransferView> transfers = api_->transfers();
    std::optional<Seconds> next = incoming_.look(transfers);
    if (const std::optional<Seconds> outgoing = outgoing_.look(api_->batches(), transfers)) {
        bringForward(next, *outgoing);
    }
    lookAtPhones();
    lookAtFolder();
    lookAtPort(next);
    lookAtText(next);
    return next;
}

void DesktopNotices::lookAtPhones() {
    if (std::exchange(phonesSeen_, api_->phonesVersion()) != phonesSeen_) {
        learnPhones();
    }
}

/// Those that were there before are not told of.
void DesktopNotices::learnPhones() {
    const std::vector<PhoneView> phones = api_->phones();
    if (phones.empty() && (paired_ || !isNobodyPaired())) {
        return; // they may be unreadable just now
    }
    const auto before = std::exchange(paired_, std::map<PeerKey, EpochMilliseconds>());
    for (const PhoneView& phone : phones) {
        const PeerKey& peerKey = phone.presence.peerKey;
        paired_->emplace(peerKey, phone.pairedAt);
        if (!before) {
            continue;
        }
        if (const auto known = before->find(peerKey); known == before->end() || known->second != phone.pairedAt) {
            NoticeSlot slot(board_);
            showPlain(slot, notices::paired(phoneForDisplay(home_, phone.name, peerKey)));
        }
    }
}

bool DesktopNotices::isNobodyPaired() const {
    try {
        return home_.peers().loadBook().peers.empty();
    } catch (const PeerStoreError&) {
        return false; // nobody knows
    }
}

/// Somebody may have chosen another one.
void DesktopNotices::lookAtFolder() {
    if (troubledFolder_.empty() || !folders_.chosen) {
        return;
    }
    const std::vector<platform::Path> chosen = folders_.chosen();
    if (std::ranges::find(chosen, troubledFolder_, plainPath) == chosen.end()) {
        endFolderTrouble();
    }
}

void DesktopNotices::endFolderTrouble() {
    folder_.close();
    troubledFolder_.clear();
}

void DesktopNotices::lookAtPort(std::optional<Seconds>& next) {
    const ServiceView view = api_->service();
    if (view.state != ServiceView::State::notListening) {
        portMissingSince_.reset();
        port_.close();
        return;
    }
    const Instant now = home_.system.clock.now();
    portMissingSince_ = portMissingSince_.value_or(now);
    if (const Seconds since = now - *portMissingSince_; since < troubleDelay) {
        bringForward(next, troubleDelay - since);
    } else if (!port_.isShown() && !port_.isDismissed()) {
        showPlain(port_, notices::portTrouble(view.port));
    }
}

void DesktopNotices::lookAtText(std::optional<Seconds>& next) {
    if (!newText_) {
        return;
    }
    const Instant now = home_.system.clock.now();
    if (const auto last = textAt_.find(newText_->peerKey); last != textAt_.end()) {
        if (const Seconds since = now - last->second; since < textInterval) {
            bringForward(next, textInterval - since);
            return;
        }
    }
    textAt_[newText_->peerKey] = now;
    ++lastTextNumber_;
    showText(*newText_, false);
    newText_.reset();
}

void DesktopNotices::showText(const Text& text, bool isQuiet) {
    platform::Notification notification = notices::text(text.what, phoneForDisplay(home_, text.phone, text.peerKey));
    notification.isQuiet = isQuiet;
    textSlot_.show(std::move(notification),
                   life_.guarding([this, text, number = lastTextNumber_](const NotificationAnswer& answer) {
                       onTextKey(text, number, answer);
                   }));
}

/// The text itself is not kept here. If another one has come by now, a click that was meant for this one does nothing.
void DesktopNotices::onTextKey(const Text& text, std::uint64_t number, const NotificationAnswer& answer) {
    if (answer.key == platform::Notification::clickKey) {
        desktop_.raiseWindow(answer.token);
        return;
    }
    const std::shared_ptr<const LastText::Text> kept = text.kept.lock();
    if (kept == nullptr || kept != keptText().lock()) {
        return;
    }
    std::string content = toText(kept->bytes.reveal());
    if (answer.key == notices::openLinkKey && text.what.linkHost) {
        desktop_.openLink(addressOfLink(content), answer.token);
    } else if (answer.key == notices::copyKey) {
        desktop_.copy(std::move(content), life_.guarding([this, text, number](bool isThere) {
            if (number == lastTextNumber_) {
                Text now = text;
                now.what.isOnClipboard = isThere;
                showText(now, isThere);
            }
        }));
    }
}

void DesktopNotices::showPlain(NoticeSlot& slot, platform::Notification notification) {
    slot.show(std::move(notification), life_.guarding([&desktop = desktop_](const NotificationAnswer& answer) {
        desktop.raiseWindow(answer.token);
    }));
}

// What is asked

void DesktopNotices::cancelTransfer(TransferNumber number) {
    if (api_ != nullptr) {
        static_cast<void>(api_->cancelTransfer(number)); // else it has just ended
    }
}

void DesktopNotices::retryBatch(const BatchId& batch, const PeerKey& peerKey) {
    if (api_ == nullptr || api_->retry(batch, peerKey)) {
        return;
    }
    try {
        if (OutboxStore(home_).bringBack(batch, peerKey)) { // else the service has it, or nothing is remembered of it
            static_cast<void>(api_->retry(std::nullopt));   // which looks for it
        } else {
            static_cast<void>(api_->retry(batch));
        }
    } catch (const Error& error) {
        log("cannot try again: " + describe(error));
    }
}

void DesktopNotices::dropBatch(const BatchId& batch, const PeerKey& peerKey) {
    if (api_ == nullptr || api_->cancelBatch(batch, peerKey)) {
        return;
    }
    try {
        OutboxStore store(home_);
        for (const OutboxStore::Entry& entry : store.all()) {
            if (entry.id == batch && entry.isSetAside) { // else the service has it, and it is through
                store.drop(entry, peerKey);
            }
        }
    } catch (const Error& error) {
        log("cannot drop what was not sent: " + describe(error));
    }
}

void DesktopNotices::log(const std::string& text) const noexcept {
    home_.system.log.write(platform::LogLevel::error, "com.tarvinex.orlinth", "notifications", text);
}

} // namespace orlinth::host
