#include "orlinth/OutboxReporter.h"

#include "base/Text.h"
#include "orlinth/HumanText.h"
#include "orlinth/PeerSelection.h"

#include <utility>

namespace orlinth::host {

namespace {

constexpr std::size_t shortIdCharacters = 8;

Json contextOf(const OutboxReporter::Transfer& transfer) {
    return {{"batch", transfer.batch}, {"file", transfer.file}, {"to", transfer.to}};
}

} // namespace

std::string shortId(const std::string& id) {
    return id.substr(0, shortIdCharacters);
}

std::string countOfFiles(std::size_t count) {
    return std::to_string(count) + (count == 1 ? " file" : " files");
}

void OutboxReporter::progress(const Transfer& transfer, std::int64_t bytesSent, std::int64_t totalBytes) {
    Json fields = contextOf(transfer);
    fields["bytes_sent"] = bytesSent;
    fields["total_bytes"] = totalBytes;
    host_.output.event("outbox_progress", std::move(fields));
}

void OutboxReporter::sent(const Transfer& transfer, const Delivered& delivered) {
    const SentFile& result = delivered.sent;
    Json fields = contextOf(transfer);
    fields["bytes_sent"] = result.bytesSent;
    fields["resumed_from_offset"] = result.resumedFromOffset;
    fields["duration_seconds"] = result.durationSeconds;
    host_.output.event("outbox_sent", std::move(fields));
    std::string line = "sent " + forDisplay(transfer.file) + " to " + forDisplay(transfer.to) + " (" +
                       humanSize(result.bytesSent) + " in " + humanDuration(result.durationSeconds);
    if (result.resumedFromOffset > 0) {
        line += ", went on from " + humanSize(result.resumedFromOffset);
    }
    host_.output.result(line + ")");
    if (!delivered.isConfirmed) {
        host_.output.message(unconfirmedRemark(transfer.to, transfer.file));
    }
}

void OutboxReporter::through(const OutboxState::Phone& to, const std::vector<std::string>& files) {
    if (files.empty()) {
        return;
    }
    std::string body = forDisplay(files.front());
    if (files.size() > 1) {
        body += " and " + std::to_string(files.size() - 1) + " more";
    }
    notify("Sent " + countOfFiles(files.size()) + " to " + shown(to), body);
}

void OutboxReporter::done(const std::string& batch) {
    host_.output.event("outbox_done", {{"batch", batch}});
}

void OutboxReporter::waiting(const std::string& batch, const std::string& to, const std::string& message,
                             double retrySeconds) {
    host_.output.event("outbox_waiting",
                       {{"batch", batch}, {"to", to}, {"message", message}, {"retry_in_seconds", retrySeconds}});
}

void OutboxReporter::waitingLine(const OutboxState::Phone& to, const std::string& message) {
    host_.output.message("waiting for " + shown(to) + ": " + forDisplay(message));
}

void OutboxReporter::waitingNotification(const OutboxState::Phone& to, const std::string& message) {
    notify("Waiting for " + shown(to), forDisplay(message) + ". It is sent as soon as the phone can be reached.");
}

void OutboxReporter::failed(const Transfer& transfer, const std::string& message) {
    Json fields = contextOf(transfer);
    fields["message"] = message;
    const std::string to = phoneForDisplay(host_, transfer.to, transfer.key);
    tellFailure(std::move(fields), message, forDisplay(transfer.file) + " is not sent to " + to + ".");
    notify("Not sent to " + to, forDisplay(transfer.file) + ": " + forDisplay(message));
}

void OutboxReporter::failed(const std::string& batch, const OutboxState::Phone& to, const std::string& message) {
    tellFailure({{"batch", batch}, {"to", to.displayName()}, {"message", message}}, message,
                "Nothing more of batch " + shortId(batch) + " is sent to " + shown(to) + ".");
    notify("Not sent to " + shown(to), forDisplay(message));
}

void OutboxReporter::setAside(const std::string& batch, const std::string& message, const platform::Path& where) {
    const std::string whatToDo = where.filename() == batch
                                     ? "`orlinth outbox retry " + shortId(batch) + "` tries it again."
                                     : "one of its name lies there already, so it is left to you.";
    tellFailure({{"batch", batch}, {"message", message}}, "batch " + shortId(batch) + " was set aside: " + message,
                "It is in " + where.string() + "; " + whatToDo);
}

void OutboxReporter::trouble(const std::string& batch, const std::string& message, const std::string& hint) {
    tellFailure({{"batch", batch}, {"message", message}}, "batch " + shortId(batch) + ": " + message, hint);
}

void OutboxReporter::tellFailure(Json fields, const std::string& line, const std::string& hint) {
    if (host_.output.isJson()) {
        host_.output.message("orlinth: " + line);
        host_.output.message(hint);
        host_.output.event("outbox_failed", std::move(fields));
    } else {
        host_.output.failure(line, hint);
    }
}

std::string OutboxReporter::shown(const OutboxState::Phone& phone) const {
    return phoneForDisplay(host_, phone.displayName(), phone.pubkey);
}

void OutboxReporter::notify(const std::string& title, const std::string& body) {
    if (host_.system.notifications.isAvailable()) {
        host_.system.notifications.show({.title = title, .body = body}, host_.tasks.executor(), {});
    }
}

} // namespace orlinth::host
