#include "orlinth/Reporting/OutboxReporter.h"

#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "base/Text.h"

#include <utility>

namespace orlinth::cli {

namespace {

constexpr std::size_t shortIdCharacters = 8;

Json contextOf(const OutboxReporter::Transfer& transfer) {
    return {{"batch", transfer.batch}, {"file", transfer.file}, {"to", transfer.to}};
}

} // namespace

std::string shortId(const BatchId& id) {
    return id.text().substr(0, shortIdCharacters);
}

void OutboxReporter::progress(const Transfer& transfer, const Progress& progress) {
    Json fields = contextOf(transfer);
    fields["bytes_sent"] = progress.done;
    fields["total_bytes"] = progress.total;
    host_.output.event("outbox_progress", std::move(fields));
}

void OutboxReporter::sent(const Transfer& transfer, const host::Delivered& delivered) {
    const SentFile& result = delivered.sent;
    Json fields = contextOf(transfer);
    fields["bytes_sent"] = result.bytesSent;
    fields["resumed_from_offset"] = result.resumedFromOffset.bytesBefore();
    fields["duration_seconds"] = result.durationSeconds.count();
    host_.output.event("outbox_sent", std::move(fields));
    std::string line = "sent " + forDisplay(transfer.file) + " to " + forDisplay(transfer.to) + " (" +
                       host::humanSize(result.bytesSent) + " in " + host::humanDuration(result.durationSeconds);
    if (result.resumedFromOffset > ByteOffset()) {
        line += ", went on from " + host::humanSize(result.resumedFromOffset.bytesBefore());
    }
    host_.output.result(line + ")");
    if (!delivered.isConfirmed) {
        host_.output.message(host::unconfirmedRemark(transfer.to, transfer.file));
    }
}

void OutboxReporter::through(const BatchId& batch, const host::OutboxState::Phone& to,
                             const std::vector<std::string>& files) {
    notices_.through(batch, to.peerKey, to.displayName(), files);
}

void OutboxReporter::done(const BatchId& batch) {
    host_.output.event("outbox_done", {{"batch", batch}});
}

void OutboxReporter::waiting(const BatchId& batch, const std::string& to, const std::string& message, Seconds pause) {
    host_.output.event("outbox_waiting",
                       {{"batch", batch}, {"to", to}, {"message", message}, {"retry_in_seconds", pause.count()}});
}

void OutboxReporter::waitingLine(const host::OutboxState::Phone& to, const std::string& message) {
    host_.output.message("waiting for " + shown(to) + ": " + forDisplay(message));
}

void OutboxReporter::failed(const Transfer& transfer, const std::string& message) {
    Json fields = contextOf(transfer);
    fields["message"] = message;
    const std::string to = host::phoneForDisplay(host_, transfer.to, transfer.peerKey);
    tellFailure(std::move(fields), message, forDisplay(transfer.file) + " is not sent to " + to + ".");
    notices_.failed(transfer.batch, transfer.peerKey, transfer.to, transfer.file, message);
}

void OutboxReporter::failed(const BatchId& batch, const host::OutboxState::Phone& to, const std::string& message) {
    tellFailure({{"batch", batch}, {"to", to.displayName()}, {"message", message}}, message,
                "Nothing more of batch " + shortId(batch) + " is sent to " + shown(to) + ".");
    notices_.failed(batch, to.peerKey, to.displayName(), "", message);
}

void OutboxReporter::setAside(const BatchId& batch, const std::string& message, const platform::Path& where) {
    const std::string whatToDo = where.filename() == batch.text()
                                     ? "`orlinth outbox retry " + shortId(batch) + "` tries it again."
                                     : "one of its name lies there already, so it is left to you.";
    tellFailure({{"batch", batch}, {"message", message}}, "batch " + shortId(batch) + " was set aside: " + message,
                "It is in " + where.string() + "; " + whatToDo);
}

void OutboxReporter::notSetAside(const BatchId& batch, const std::string& message, const std::string& problem) {
    tellFailure({{"batch", batch}, {"message", message}}, "batch " + shortId(batch) + ": " + message,
                "It could not be set aside (" + problem + "), and is left where it is.");
}

void OutboxReporter::noOutbox(const std::string& problem) {
    host_.output.failure(problem, "What is shared cannot be sent until that is mended.");
}

void OutboxReporter::notSaved(const std::string& problem) {
    host_.output.message("cannot note what was sent from the outbox: " + problem +
                         "; after a restart some of it may be sent again, or taken for sent");
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

std::string OutboxReporter::shown(const host::OutboxState::Phone& phone) const {
    return host::phoneForDisplay(host_, phone.displayName(), phone.peerKey);
}

} // namespace orlinth::cli
