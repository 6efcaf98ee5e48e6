#include "OrlinthHost/Service/IncomingNotices.h"

#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Service/NoticePace.h"
#include "OrlinthHost/Service/NoticeText.h"
#include "OrlinthHost/Service/OpenableFile.h"
#include "platform/Blocking.h"

#include <algorithm>
#include <utility>

namespace orlinth::host {

using platform::NotificationAnswer;

IncomingNotices::IncomingNotices(NoticeBoard board, DesktopActions& desktop, NoticeRequests& requests,
                                 std::function<void()> onNews, FolderOf folderOf)
    : board_(std::move(board)),
      home_(board_.home()),
      desktop_(desktop),
      requests_(requests),
      onNews_(std::move(onNews)),
      folderOf_(std::move(folderOf)),
      tasks_(home_.executor) {}

void IncomingNotices::fileReceived(const Receiver::File& file) {
    if (isStopped_) {
        return;
    }
    arrivals_.push_back({.path = std::filesystem::absolute(file.file.savedAt),
                         .bytes = file.file.bytesWritten,
                         .phone = phoneForDisplay(home_, file.from, file.peerKey),
                         .peerKey = file.peerKey,
                         .at = home_.system.clock.now()});
    onNews_();
}

std::optional<Seconds> IncomingNotices::look(const std::vector<TransferView>& transfers) {
    std::optional<Seconds> next;
    if (!isStopped_) {
        settleArrivals(transfers);
        lookAtTransfers(transfers, next);
        lookAtBursts(next);
    }
    return next;
}

void IncomingNotices::stop() {
    settleArrivals({});
    for (auto& [peerKey, burst] : bursts_) {
        if (burst.isChanged) {
            showBurst(burst); // nobody comes to look any more
        }
    }
    for (auto& [number, underWay] : underWay_) {
        underWay.slot.close();
    }
    underWay_.clear();
    isStopped_ = true;
    tasks_.cancelAll();
    life_.end(); // what stays on the desktop does nothing any more
}

/// A file takes the place of the notification of its own progress, unless it joins others.
void IncomingNotices::settleArrivals(const std::vector<TransferView>& transfers) {
    for (const Arrival& arrival : std::exchange(arrivals_, {})) {
        const auto transfer = std::ranges::find_if(transfers, [&arrival](const TransferView& view) {
            return view.direction == TransferView::Direction::in && view.peerKey == arrival.peerKey &&
                   view.path == arrival.path;
        });
        const auto progress = transfer == transfers.end() ? underWay_.end() : underWay_.find(transfer->number);
        auto at = bursts_.find(arrival.peerKey);
        if (at != bursts_.end() && (arrival.at - at->second.lastAt > burstTime || at->second.slot.isDismissed())) {
            bursts_.erase(at);
            at = bursts_.end();
        }
        if (at == bursts_.end()) {
            at = bursts_.emplace(arrival.peerKey, Burst{.slot = NoticeSlot(board_)}).first;
            if (progress != underWay_.end() && progress->second.slot.isShown()) {
                at->second.slot = progress->second.slot;
                underWay_.erase(progress);
            }
        } else if (progress != underWay_.end()) {
            progress->second.slot.close();
            underWay_.erase(progress);
        }
        Burst& burst = at->second;
        burst.phone = arrival.phone;
        burst.folder = arrival.path.parent_path();
        burst.bytes += arrival.bytes;
        ++burst.count;
        burst.lastAt = arrival.at;
        burst.isChanged = true;
        if (burst.files->size() < maxShownFiles) {
            burst.files->push_back(arrival.path);
        }
    }
}

void IncomingNotices::lookAtTransfers(const std::vector<TransferView>& transfers, std::optional<Seconds>& next) {
    const Instant now = home_.system.clock.now();
    std::map<TransferNumber, UnderWay> left = std::exchange(underWay_, {});
    for (const TransferView& transfer : transfers) {
        if (transfer.direction != TransferView::Direction::in || transfer.endedAt) {
            continue;
        }
        if (const Seconds age = now - transfer.beganAt; age < NoticePace::longTransfer) {
            bringForward(next, NoticePace::longTransfer - age);
            continue;
        }
        const auto before = left.find(transfer.number);
        UnderWay& underWay = underWay_
                                 .emplace(transfer.number, before != left.end() ? std::move(before->second)
                                                                                : UnderWay{.slot = NoticeSlot(board_)})
                                 .first->second;
        if (before != left.end()) {
            left.erase(before);
            if (underWay.slot.isDismissed()) {
                continue; // whoever has closed it does not want to see it again
            }
            if (const Seconds since = now - underWay.shownAt; since < NoticePace::changeInterval) {
                bringForward(next, NoticePace::changeInterval - since);
                continue;
            }
        }
        showProgress(underWay, transfer, next);
    }
    for (auto& [number, underWay] : left) {
        endProgress(underWay, number, transfers);
    }
}

void IncomingNotices::endProgress(UnderWay& underWay, TransferNumber number,
                                  const std::vector<TransferView>& transfers) {
    underWay.slot.close();
    const auto transfer = std::ranges::find(transfers, number, &TransferView::number);
    if (transfer != transfers.end() && transfer->state == TransferView::State::failed) {
        underWay.job.fail("The file did not arrive completely.");
    }
    underWay.job.end();
}

void IncomingNotices::showProgress(UnderWay& underWay, const TransferView& transfer, std::optional<Seconds>& next) {
    platform::Notification notification =
        notices::receiving(transfer, phoneForDisplay(home_, transfer.phone, transfer.peerKey));
    const auto cancel = life_.guarding([this, number = transfer.number] { requests_.cancelTransfer(number); });
    if (underWay.job.show(board_.jobs(), notification,
                          {.bytes = transfer.bytes,
                           .bytesPerSecond = transfer.bytesPerSecond,
                           .folder = folderOf_ ? folderOf_(transfer.peerKey) : platform::Path()},
                          cancel)) {
        if (underWay.job.isAsked()) {
            bringForward(next, NoticePace::jobInterval);
        } else {
            underWay.shownAt = home_.system.clock.now();
        }
        return;
    }
    notification.isQuiet = underWay.slot.isShown();
    underWay.slot.show(std::move(notification),
                       life_.guarding([this, number = transfer.number](const NotificationAnswer& answer) {
                           if (answer.key == notices::cancelKey) {
                               requests_.cancelTransfer(number);
                           } else if (answer.key == platform::Notification::clickKey) {
                               desktop_.raiseWindow(answer.token);
                           }
                       }));
    underWay.shownAt = home_.system.clock.now();
}

void IncomingNotices::lookAtBursts(std::optional<Seconds>& next) {
    const Instant now = home_.system.clock.now();
    for (auto at = bursts_.begin(); at != bursts_.end();) {
        const auto current = at++;
        Burst& burst = current->second;
        if (burst.isChanged && burst.count == 1 && !*burst.mayOpen) {
            examine(burst); // and then we are called
            continue;
        }
        if (burst.isChanged) {
            const Seconds since = now - burst.shownAt;
            if (burst.slot.isShown() && burst.count > 1 && since < NoticePace::changeInterval) {
                bringForward(next, NoticePace::changeInterval - since);
                continue;
            }
            showBurst(burst);
        }
        if (const Seconds age = now - burst.lastAt; age > burstTime) {
            bursts_.erase(current);
        } else {
            bringForward(next, burstTime - age + NoticePace::changeInterval);
        }
    }
}

void IncomingNotices::examine(Burst& burst) {
    if (!std::exchange(burst.isExamined, true)) {
        tasks_.add(examineFile(burst.files->front(), burst.mayOpen), [](const std::exception_ptr&) {
            // cut short by the end of the service, behind which nothing is shown
        });
    }
}

Task<> IncomingNotices::examineFile(platform::Path file, std::shared_ptr<std::optional<bool>> mayOpen) {
    const auto look = [&files = home_.system.files, &file] { return mayBeOpened(files, file); };
    const bool may = co_await platform::blocking(home_.system.queues, look);
    *mayOpen = may;
    onNews_();
}

void IncomingNotices::showBurst(Burst& burst) {
    const bool isOne = burst.count == 1;
    platform::Notification notification =
        isOne ? notices::received(burst.files->front(), burst.bytes, burst.phone, burst.mayOpen->value_or(false))
              : notices::receivedMany(burst.count, burst.bytes, burst.folder, burst.phone);
    notification.isQuiet = !isOne && burst.slot.isShown();
    burst.slot.show(std::move(notification),
                    life_.guarding([this, files = burst.files](const NotificationAnswer& answer) {
                        if (answer.key == notices::openKey) {
                            desktop_.open(files->front(), answer.token);
                        } else {
                            desktop_.show(*files, answer.token);
                        }
                    }));
    burst.shownAt = home_.system.clock.now();
    burst.isChanged = false;
}

} // namespace orlinth::host
