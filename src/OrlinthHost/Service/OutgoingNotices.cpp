#include "OrlinthHost/Service/OutgoingNotices.h"

#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Service/NoticePace.h"
#include "OrlinthHost/Service/NoticeText.h"

#include <algorithm>

namespace orlinth::host {

using platform::NotificationAnswer;

OutgoingNotices::Batch& OutgoingNotices::batchOf(const Key& key) {
    return batches_.try_emplace(key, Batch{.slot = NoticeSlot(board_), .lastSending = home_.system.clock.now()})
        .first->second;
}

void OutgoingNotices::through(const BatchId& id, const PeerKey& peerKey, const std::string& phone,
                              const std::vector<std::string>& files) {
    if (isStopped_ || files.empty()) {
        return;
    }
    const Key key(id, peerKey);
    Batch& batch = batchOf(key);
    const bool isLeft = std::ranges::any_of(
        batch.failed, [&files](const std::string& file) { return std::ranges::find(files, file) == files.end(); });
    if (isLeft) {
        return; // that something is missing is more important
    }
    batch.failed.clear();
    show(key, batch, What::nothing, notices::sent(files, phoneForDisplay(home_, phone, peerKey)));
    onNews_();
}

void OutgoingNotices::failed(const BatchId& id, const PeerKey& peerKey, const std::string& phone,
                             const std::vector<std::string>& files, OutboxEvents::Failure::Why why) {
    if (isStopped_) {
        return;
    }
    Batch& batch = batchOf(Key(id, peerKey));
    batch.failed.insert(files.begin(), files.end());
    batch.phone = phone;
    batch.why = why;
    batch.isFailureNew = true;
    onNews_();
}

std::optional<Seconds> OutgoingNotices::look(const std::vector<OutboxView>& views,
                                             const std::vector<TransferView>& transfers) {
    std::optional<Seconds> next;
    if (isStopped_) {
        return next;
    }
    std::set<PeerKey> busy;
    for (const OutboxView& view : views) {
        if (view.state == OutboxView::State::sending) {
            busy.insert(view.peerKey);
        }
    }
    std::set<Key> there;
    for (const OutboxView& view : views) {
        const Key key(view.batch, view.peerKey);
        there.insert(key);
        lookAtBatch(key, batchOf(key), view, busy.contains(view.peerKey), transfers, next);
    }
    for (auto at = batches_.begin(); at != batches_.end();) {
        const auto current = at++;
        auto& [key, batch] = *current;
        if (there.contains(key)) {
            continue;
        }
        if (batch.isFailureNew && mayShow(batch, What::failed, next)) {
            showFailure(key, batch);
        }
        const bool isAwaited = batch.what == What::failed && batch.slot.isShown();
        if (isAwaited) {
            batch.wasFailed = true; // somebody may try it again, and then it says how that goes
        } else if (!batch.isFailureNew) {
            if (batch.what == What::waiting || batch.what == What::sending) {
                batch.slot.close(); // it was taken back
            }
            batches_.erase(current); // what it says stays
        }
    }
    return next;
}

void OutgoingNotices::lookAtBatch(const Key& key, Batch& batch, const OutboxView& view, bool isPhoneBusy,
                                  const std::vector<TransferView>& transfers, std::optional<Seconds>& next) {
    using State = OutboxView::State;
    const Instant now = home_.system.clock.now();
    const bool isFailed = view.state == State::failed;
    if (batch.wasFailed && !isFailed) { // somebody tries it again
        batch.failed.clear();
        batch.isFailureNew = false;
    }
    batch.wasFailed = isFailed;
    if (view.state == State::sending) {
        batch.sendingSince = batch.sendingSince.value_or(now);
    }
    if (isPhoneBusy) {
        batch.lastSending = now;
    }
    if (batch.isFailureNew && mayShow(batch, What::failed, next)) {
        showFailure(key, batch);
    }
    if (!batch.failed.empty() || isFailed) {
        return;
    }
    const Seconds rest = now - batch.lastSending;
    if (view.state != State::sending && (view.state == State::paused || rest > shortRest)) {
        batch.sendingSince.reset();
        batch.job.end();
        if (batch.what == What::sending) {
            batch.slot.close();
            batch.what = What::nothing;
        }
        if (rest < longWait) {
            bringForward(next, longWait - rest);
        } else if (batch.what != What::waiting) {
            show(key, batch, What::waiting, notices::waiting(view, phoneForDisplay(home_, view.phone, view.peerKey)));
        }
    } else if (batch.sendingSince) {
        if (const Seconds age = now - *batch.sendingSince; age < NoticePace::longTransfer) {
            bringForward(next, NoticePace::longTransfer - age);
        } else if (mayShow(batch, What::sending, next)) {
            showProgress(key, batch, view, transfers, next);
        }
        bringForward(next, shortRest + NoticePace::changeInterval); // it may come to rest without a word
    } else {
        bringForward(next, shortRest);
    }
}

void OutgoingNotices::showProgress(const Key& key, Batch& batch, const OutboxView& view,
                                   const std::vector<TransferView>& transfers, std::optional<Seconds>& next) {
    std::vector<TransferView> underWay;
    std::ranges::copy_if(transfers, std::back_inserter(underWay), [&view](const TransferView& transfer) {
        return transfer.direction == TransferView::Direction::out && transfer.batch == view.batch &&
               transfer.peerKey == view.peerKey && !transfer.endedAt;
    });
    platform::Notification notification =
        notices::sending(view, underWay, phoneForDisplay(home_, view.phone, view.peerKey));
    NoticeJob::Figures figures;
    for (const TransferView& transfer : underWay) {
        figures.bytesPerSecond += transfer.bytesPerSecond;
    }
    if (view.files == 1 && underWay.size() == 1) { // of several, nobody knows how large the others are
        figures.bytes = underWay.front().bytes;
    }
    const auto cancel = life_.guarding([this, key] { requests_.dropBatch(key.first, key.second); });
    if (!batch.job.show(board_.jobs(), notification, figures, cancel)) {
        show(key, batch, What::sending, std::move(notification));
    } else if (batch.job.isAsked()) {
        bringForward(next, NoticePace::jobInterval);
    } else {
        if (batch.what != What::sending) {
            batch.slot.close(); // the view says it
        }
        batch.what = What::sending;
        batch.shownAt = home_.system.clock.now();
        bringForward(next, NoticePace::changeInterval);
    }
}

void OutgoingNotices::showFailure(const Key& key, Batch& batch) {
    batch.isFailureNew = false;
    show(key, batch, What::failed,
         notices::notSent({batch.failed.begin(), batch.failed.end()}, phoneForDisplay(home_, batch.phone, key.second),
                          batch.why));
}

/// Not what somebody has closed, and not too often.
bool OutgoingNotices::mayShow(const Batch& batch, What what, std::optional<Seconds>& next) const {
    if (batch.what != what) {
        return true;
    }
    if (what != What::failed && batch.slot.isDismissed()) {
        return false;
    }
    const Seconds since = home_.system.clock.now() - batch.shownAt;
    if (since < NoticePace::changeInterval) {
        bringForward(next, NoticePace::changeInterval - since);
        return false;
    }
    return true;
}

void OutgoingNotices::show(const Key& key, Batch& batch, What what, platform::Notification notification) {
    const bool isChange = batch.slot.isShown() && batch.what == what && what != What::nothing;
    notification.isQuiet = notification.isQuiet || isChange;
    batch.slot.show(std::move(notification), life_.guarding([this, key](const NotificationAnswer& answer) {
        const auto& [id, peerKey] = key;
        if (answer.key == notices::cancelKey || answer.key == notices::dropKey) {
            requests_.dropBatch(id, peerKey);
        } else if (answer.key == notices::retryKey) {
            requests_.retryBatch(id, peerKey);
        } else if (answer.key == platform::Notification::clickKey) {
            desktop_.raiseWindow(answer.token);
        }
    }));
    if (what == What::failed) {
        batch.job.fail("The phone did not get everything."); // the notification says why
    } else {
        batch.job.end();
    }
    batch.what = what;
    batch.shownAt = home_.system.clock.now();
}

void OutgoingNotices::stop() {
    isStopped_ = true;
    for (auto& [key, batch] : batches_) {
        if (batch.what == What::waiting || batch.what == What::sending) {
            batch.slot.close();
        }
    }
    batches_.clear();
    life_.end(); // what stays on the desktop does nothing any more
}

} // namespace orlinth::host
