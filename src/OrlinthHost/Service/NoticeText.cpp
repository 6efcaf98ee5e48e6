#include "OrlinthHost/Service/NoticeText.h"

#include "OrlinthHost/HumanText.h"
#include "base/Text.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace orlinth::host::notices {

namespace {

using platform::Notification;

/// A click that brings the application to the front.
Notification withWindow(Notification notification) {
    notification.clickLabel = "Open Orlinth";
    notification.isClickForWindow = true;
    return notification;
}

double shareOf(std::int64_t done, std::int64_t total) {
    return total > 0 ? std::clamp(static_cast<double>(done) / static_cast<double>(total), 0.0, 1.0) : 1.0;
}

int percentOf(double share) {
    return static_cast<int>(share * 100);
}

std::string folderName(const platform::Path& folder) {
    const std::string name = folder.filename().string();
    return shortName(name.empty() ? folder.string() : name);
}

/// Whole seconds, so that it does not flicker.
std::string timeText(double seconds) {
    const double whole = std::ceil(std::min(seconds, 1e9));
    return whole < 60 ? std::to_string(static_cast<int>(whole)) + " s" : humanDuration(Seconds(whole));
}

/// For somebody who knows nothing of connections; with what to do about it.
const char* plainReason(OutboxEvents::Failure::Why why) {
    using Why = OutboxEvents::Failure::Why;
    switch (why) {
    case Why::declined:
        return "The phone declined it. Try again, and accept it on the phone.";
    case Why::unreadable:
        return "It cannot be read any more. Share it again.";
    case Why::inDoubt:
        return "The connection broke at the very end. Check on the phone whether it is there.";
    case Why::removed:
        return "The phone has removed this computer. Pair it again, then try again.";
    case Why::notPaired:
        return "The phone is not paired any more. Pair it again, then try again.";
    }
    return "";
}

} // namespace

std::string shortName(const std::string& name) {
    return forDisplay(name, maxNameColumns);
}

std::string progressText(std::int64_t done, std::int64_t total, std::int64_t perSecond) {
    std::string text = std::to_string(percentOf(shareOf(done, total))) + " %";
    if (perSecond > 0 && total > done) {
        text += " · " + timeText(static_cast<double>(total - done) / static_cast<double>(perSecond)) + " left";
    }
    return text;
}

Notification receiving(const TransferView& transfer, const std::string& phone) {
    const Progress& bytes = transfer.bytes;
    return withWindow({.title = "Receiving " + shortName(transfer.name) + " from " + shortName(phone),
                       .body = progressText(bytes.done, bytes.total, transfer.bytesPerSecond),
                       .actions = {{cancelKey, "Cancel"}},
                       .category = "transfer",
                       .percent = percentOf(shareOf(bytes.done, bytes.total)),
                       .isResident = true});
}

Notification received(const platform::Path& file, std::int64_t bytes, const std::string& phone, bool mayOpen) {
    Notification notification{.title = shortName(file.filename().string()) + " from " + shortName(phone),
                              .body = humanSize(bytes) + " in " + folderName(file.parent_path()),
                              .clickLabel = "Show in folder",
                              .category = "transfer.complete"};
    if (mayOpen) {
        notification.actions.emplace_back(openKey, "Open");
    }
    notification.actions.emplace_back(showKey, "Show in folder");
    return notification;
}

Notification receivedMany(std::size_t files, std::int64_t bytes, const platform::Path& folder,
                          const std::string& phone) {
    return {.title = countOfFiles(files) + " from " + shortName(phone),
            .body = folderName(folder) + ", " + humanSize(bytes),
            .actions = {{showKey, "Show in folder"}},
            .clickLabel = "Show in folder",
            .category = "transfer.complete"};
}

Notification sending(const OutboxView& batch, const std::vector<TransferView>& underWay, const std::string& phone) {
    Progress bytes;
    std::int64_t perSecond = 0;
    double files = static_cast<double>(batch.filesDone);
    for (const TransferView& transfer : underWay) {
        bytes.done += transfer.bytes.done;
        bytes.total += transfer.bytes.total;
        perSecond += transfer.bytesPerSecond;
        files += shareOf(transfer.bytes.done, transfer.bytes.total);
    }
    const bool isOne = batch.files == 1 && underWay.size() == 1;
    const double share = isOne ? shareOf(bytes.done, bytes.total)
                               : std::min(1.0, files / static_cast<double>(std::max<std::size_t>(1, batch.files)));
    std::string what;
    std::string how;
    if (isOne) {
        what = shortName(underWay.front().name);
        how = progressText(bytes.done, bytes.total, perSecond);
    } else {
        what = std::to_string(batch.filesDone) + " of " + countOfFiles(batch.files);
        how = std::to_string(percentOf(share)) + " %";
        if (perSecond > 0) { // how long the others take is not known
            how += " · " + humanRate(static_cast<double>(perSecond));
        }
    }
    return withWindow({.title = "Sending " + what + " to " + shortName(phone),
                       .body = std::move(how),
                       .actions = {{cancelKey, "Cancel"}},
                       .category = "transfer",
                       .percent = percentOf(share),
                       .isResident = true});
}

Notification sent(const std::vector<std::string>& files, const std::string& phone) {
    const std::string what = files.size() == 1 ? shortName(files.front()) : countOfFiles(files.size());
    return withWindow({.title = "Sent " + what + " to " + shortName(phone),
                       .body = "",
                       .category = "transfer.complete",
                       .isTransient = true});
}

Notification waiting(const OutboxView& batch, const std::string& phone) {
    const std::size_t left = batch.files - std::min(batch.files, batch.filesDone);
    return withWindow({.title = "Waiting for " + shortName(phone),
                       .body = "It gets " + countOfFiles(left) + " as soon as it is here.",
                       .actions = {{retryKey, "Try now"}, {dropKey, "Drop"}},
                       .category = "transfer",
                       .isQuiet = true});
}

Notification notSent(const std::vector<std::string>& files, const std::string& phone, OutboxEvents::Failure::Why why) {
    const std::string what = files.size() == 1 ? shortName(files.front()) : countOfFiles(files.size());
    return withWindow({.title = "Could not send " + what + " to " + shortName(phone),
                       .body = plainReason(why),
                       .actions = {{retryKey, "Try again"}, {dropKey, "Drop"}},
                       .category = "transfer.error"});
}

Notification text(const TextNotice& text, const std::string& phone) {
    Notification notification =
        withWindow({.title = "Text from " + shortName(phone),
                    .body = std::to_string(text.characters) + (text.characters == 1 ? " character" : " characters") +
                            (text.isOnClipboard ? ", on the clipboard" : ", not on the clipboard"),
                    .category = "im.received",
                    .isTransient = true});
    if (!text.isOnClipboard && text.isKept) {
        notification.actions.emplace_back(copyKey, "Copy");
    }
    if (text.linkHost && text.isKept) {
        notification.actions.emplace_back(openLinkKey, "Open " + *text.linkHost);
    }
    return notification;
}

Notification paired(const std::string& phone) {
    return withWindow({.title = shortName(phone) + " is paired", .body = "", .category = "device.added"});
}

Notification unpaired(const std::string& phone, bool isForgotten) {
    return withWindow(
        {.title = shortName(phone) + " has removed this computer",
         .body = isForgotten ? "" : "It is still listed on this computer. Remove it there if you no longer need it.",
         .category = "device.removed"});
}

Notification portTrouble(std::uint16_t port) {
    return withWindow({.title = "Orlinth cannot receive",
                       .body = "Port " + std::to_string(port) +
                               " cannot be opened. Another program may have it. Orlinth tries again every second.",
                       .isUrgent = true,
                       .category = "device.error"});
}

Notification folderTrouble(const platform::Path& folder) {
    return withWindow({.title = "Orlinth cannot receive",
                       .body = "Files cannot be saved in " + shortName(folder.string()) +
                               ". Check that it can be written to, and that the disk is not full.",
                       .isUrgent = true,
                       .category = "device.error"});
}

} // namespace orlinth::host::notices
