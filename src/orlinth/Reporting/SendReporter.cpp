#include "orlinth/Reporting/SendReporter.h"

#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "base/Text.h"
#include "orlinth/Reporting/Hints.h"

#include <algorithm>
#include <utility>

namespace orlinth::cli {

void SendOverview::expect(std::size_t files, std::int64_t bytes) {
    files_ = files;
    bytes_ = bytes;
}

void SendOverview::begin() {
    if (!begun_) {
        begun_ = true;
        output_.bar().stay();
        output_.bar().begin(name(), {.done = held_, .total = bytes_});
    }
}

void SendOverview::skip(std::int64_t bytes) {
    begin();
    held_ += bytes;
    output_.bar().skip(bytes);
    output_.bar().update({.done = held_, .total = bytes_});
}

void SendOverview::add(std::int64_t bytes) {
    begin();
    held_ += bytes;
    output_.bar().update({.done = held_, .total = bytes_});
}

void SendOverview::takeBack(std::int64_t bytes) {
    held_ -= bytes;
    output_.bar().update({.done = held_, .total = bytes_});
}

void SendOverview::end(std::int64_t unsent) {
    ++ended_;
    bytes_ = std::max(held_, bytes_ - unsent);
    if (begun_ && ended_ < files_) {
        output_.bar().rename(name());
        output_.bar().update({.done = held_, .total = bytes_});
    }
}

std::string SendOverview::name() const {
    return std::to_string(ended_) + " of " + std::to_string(files_) + " files";
}

SendReporter::Report& SendReporter::reportOf(const Transfer& transfer) {
    return reports_.try_emplace(transfer.number, Report{.name = transfer.path}).first->second;
}

void SendReporter::expected(std::size_t transfers, std::int64_t bytes) {
    overview_.expect(transfers, bytes);
}

void SendReporter::began(const Transfer& transfer, const std::string& name, std::int64_t size,
                         const std::string& mime) {
    Report& report = reportOf(transfer);
    report.name = name;
    if (std::exchange(report.isAnnounced, true)) {
        return;
    }
    Json fields = context(transfer);
    fields["name"] = name;
    fields["size"] = size;
    fields["mime"] = mime;
    output_.event("file", std::move(fields));
    if (!overview_.isMany()) {
        output_.message("sending " + forDisplay(name) + " (" + host::humanSize(size) + ") to " +
                        forDisplay(transfer.phone.peer_hostname));
    }
}

void SendReporter::connected(const Transfer& transfer) {
    reportOf(transfer).isAtFarewell = false;
    output_.event("connected", context(transfer));
}

void SendReporter::moved(const Transfer& transfer) {
    Json fields = context(transfer);
    fields["address"] = transfer.phone.peer_ip;
    output_.event("moved", std::move(fields));
    output_.message(forDisplay(transfer.phone.peer_hostname) + " has moved to " + forDisplay(transfer.phone.peer_ip));
}

void SendReporter::waking(const Transfer& transfer) {
    output_.event("waking", context(transfer));
    output_.message("waking " + forDisplay(transfer.phone.peer_hostname));
}

void SendReporter::authenticated(const Transfer& transfer) {
    output_.event("handshake", context(transfer));
}

void SendReporter::progress(const Transfer& transfer, const Progress& progress) {
    Report& report = reportOf(transfer);
    emitProgress(transfer, report, progress);
    drawProgress(report, progress);
    report.isBegun = true;
    report.reached = progress.done;
}

void SendReporter::endSent(const Transfer& transfer) {
    reportOf(transfer).isAtFarewell = true;
}

void SendReporter::again(const Transfer& transfer) {
    output_.message(forDisplay(transfer.phone.peer_hostname) + " broke the connection at the end of " +
                    forDisplay(reportOf(transfer).name) + "; sending the file again");
}

/// The next attempt tells what the phone has by then.
void SendReporter::putBack(const Transfer& transfer) {
    Report& report = reportOf(transfer);
    if (overview_.isMany() && report.isBegun) {
        overview_.takeBack(report.held);
    }
    report = {.name = report.name, .isAnnounced = report.isAnnounced, .reached = report.reached};
}

std::string SendReporter::howFar(const Transfer& transfer) {
    const Report& report = reportOf(transfer);
    const std::string name = forDisplay(report.name);
    const std::string to = " was sent to " + forDisplay(transfer.phone.peer_hostname);
    if (report.isAtFarewell) {
        return name + to + ", which has not confirmed it";
    }
    const bool hasBegun = report.isBegun || report.reached > 0;
    if (!hasBegun || transfer.size <= 0) {
        return name + " was not sent to " + forDisplay(transfer.phone.peer_hostname);
    }
    constexpr double whole = 100;
    const double share = static_cast<double>(report.reached) / static_cast<double>(transfer.size);
    const int percent = static_cast<int>(whole * std::clamp(share, 0.0, 1.0));
    return std::to_string(percent) + " % of " + name + to;
}

void SendReporter::drawProgress(Report& report, const Progress& progress) {
    const bool isResume = !report.isBegun && progress.done > 0;
    if (overview_.isMany()) {
        if (isResume) {
            overview_.skip(progress.done);
        } else {
            overview_.add(progress.done - report.held);
        }
        report.held = progress.done;
        return;
    }
    if (isResume) {
        output_.message("going on from " + host::humanSize(progress.done));
    }
    if (report.isBegun) {
        output_.bar().update(progress);
    } else {
        output_.bar().begin(forDisplay(report.name), progress);
    }
}

/// At the start, at the end, and ten times a second: a script that reads slowly must not slow the transfer down.
void SendReporter::emitProgress(const Transfer& transfer, Report& report, const Progress& progress) {
    constexpr Seconds interval = 100ms;
    const platform::Clock::Instant now = clock_.now();
    if (report.isBegun && progress.done != progress.total && now - report.lastEventAt < interval) {
        return;
    }
    report.lastEventAt = now;
    Json fields = context(transfer);
    fields["bytes_sent"] = progress.done;
    fields["total_bytes"] = progress.total;
    output_.event("progress", std::move(fields));
}

void SendReporter::delivered(const Transfer& transfer, const host::Delivered& delivered) {
    const Report report = reportOf(transfer);
    const std::string& phone = transfer.phone.peer_hostname;
    const SentFile& sent = delivered.sent;
    overview_.end(transfer.size - report.held);
    Json fields = context(transfer);
    fields["bytes_sent"] = sent.bytesSent;
    fields["advertised_size"] = sent.advertisedSize;
    fields["resumed_from_offset"] = sent.resumedFromOffset.bytesBefore();
    fields["duration_seconds"] = sent.durationSeconds.count();
    output_.event("complete", std::move(fields));
    const std::int64_t now = sent.bytesSent - sent.resumedFromOffset.bytesBefore();
    std::string line = "sent " + forDisplay(report.name) + " to " + forDisplay(phone) + ": " +
                       host::humanSize(sent.bytesSent) + " in " + host::humanDuration(sent.durationSeconds);
    if (sent.durationSeconds > 0s && now > 0) {
        line += ", " + host::humanRate(static_cast<double>(now) / sent.durationSeconds.count());
    }
    output_.result(line);
    if (sent.bytesSent != sent.advertisedSize) {
        output_.message(forDisplay(report.name) + (sent.bytesSent > sent.advertisedSize ? " grew" : " shrank") +
                        " while it was sent: " + std::to_string(sent.bytesSent) + " bytes instead of " +
                        std::to_string(sent.advertisedSize) + ". Send it again if that was not meant.");
    }
    if (!delivered.isConfirmed) {
        output_.message(host::unconfirmedRemark(phone, report.name));
    }
    reports_.erase(transfer.number);
}

void SendReporter::failed(const Transfer& transfer, const host::EndedAttempt& attempt, bool isInDoubt) {
    const Report report = reportOf(transfer);
    overview_.end(transfer.size - report.held);
    const std::string where = host::nameAndAddress(transfer.phone);
    const std::string what = forDisplay(report.name) + (isInDoubt ? " may or may not be on " : " was not sent to ") +
                             forDisplay(transfer.phone.peer_hostname) + ".";
    try {
        std::rethrow_exception(attempt.error);
    } catch (const std::exception& error) {
        const std::string hint =
            host::isNotTaken(attempt) ? hintForNotTaken(where) : hintForSending(home_, error, transfer.phone);
        output_.failure(describe(error), hint.empty() ? what : what + " " + hint, context(transfer));
    }
    reports_.erase(transfer.number);
}

void SendReporter::tellInterrupted(const std::string& signal, const host::SendRun::Interruption& interruption) {
    const std::size_t notBegun = interruption.notBegun;
    const std::string alsoNotBegun =
        notBegun == 0 ? ""
                      : " " + std::to_string(notBegun) + (notBegun == 1 ? " file was" : " files were") + " not begun.";
    const std::vector<Transfer>& cutShort = interruption.cutShort;
    if (cutShort.empty()) {
        output_.failure(signal, notBegun == 0 ? "Everything had been sent." : alsoNotBegun.substr(1));
        return;
    }
    const Transfer& last = cutShort.back();
    if (cutShort.size() == 1) {
        output_.failure(signal, howFar(last) + "; send it again and it goes on there." + alsoNotBegun, context(last));
        return;
    }
    for (const Transfer& transfer : cutShort) {
        output_.message(howFar(transfer) + ".");
        if (transfer.number != last.number) {
            Json fields = context(transfer);
            fields["message"] = signal;
            output_.event("error", std::move(fields));
        }
    }
    output_.failure(signal, "Send them again and they go on there." + alsoNotBegun, context(last));
}

} // namespace orlinth::cli
