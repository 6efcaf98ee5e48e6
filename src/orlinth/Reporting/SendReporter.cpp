#include "orlinth/Reporting/SendReporter.h"

#include "OrlinthHost/HumanText.h"
#include "base/Text.h"

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
        output_.bar().begin(name(), held_, bytes_);
    }
}

void SendOverview::skip(std::int64_t bytes) {
    begin();
    held_ += bytes;
    output_.bar().skip(bytes);
    output_.bar().update(held_, bytes_);
}

void SendOverview::add(std::int64_t bytes) {
    begin();
    held_ += bytes;
    output_.bar().update(held_, bytes_);
}

void SendOverview::end(std::int64_t unsent) {
    ++ended_;
    bytes_ = std::max(held_, bytes_ - unsent);
    if (begun_ && ended_ < files_) {
        output_.bar().rename(name());
        output_.bar().update(held_, bytes_);
    }
}

std::string SendOverview::name() const {
    return std::to_string(ended_) + " of " + std::to_string(files_) + " files";
}

void SendReporter::onFile(const std::string& name, std::int64_t size, const std::string& mime) {
    name_ = name;
    if (std::exchange(what_.isAnnounced, true)) {
        return;
    }
    Json fields = context();
    fields["name"] = name;
    fields["size"] = size;
    fields["mime"] = mime;
    output_.event("file", std::move(fields));
    if (!overview_.isMany()) {
        output_.message("sending " + forDisplay(name) + " (" + host::humanSize(size) + ") to " + forDisplay(what_.to));
    }
}

void SendReporter::onConnected() {
    hasConnected_ = true;
    reach_ = {};
    isAtFarewell_ = false;
    handshake_.begin();
    output_.event("connected", context());
}

void SendReporter::onWaking() {
    output_.event("waking", context());
    output_.message("waking " + forDisplay(what_.to));
}

void SendReporter::onHandshakeComplete() {
    handshake_.end();
    reach_.hasProvedKey = true;
    output_.event("handshake", context());
}

void SendReporter::onProgress(std::int64_t bytesSent, std::int64_t totalBytes) {
    tellProgress(bytesSent, totalBytes);
    showProgress(bytesSent, totalBytes);
    begun_ = true;
    reach_.hasBegun = true;
    reached_ = bytesSent;
}

void SendReporter::onComplete(const SentFile&) {
    isAtFarewell_ = true;
}

void SendReporter::tellAgain() {
    output_.message(forDisplay(what_.to) + " broke the connection at the end of " + forDisplay(name_) +
                    "; sending the file again");
}

std::string SendReporter::howFar() const {
    if (isAtFarewell_) {
        return forDisplay(name_) + " was sent to " + forDisplay(what_.to) + ", which has not confirmed it";
    }
    if (!begun_ || what_.size <= 0) {
        return forDisplay(name_) + " was not sent to " + forDisplay(what_.to);
    }
    constexpr double whole = 100;
    const double share = static_cast<double>(reached_) / static_cast<double>(what_.size);
    const int percent = static_cast<int>(whole * std::clamp(share, 0.0, 1.0));
    return std::to_string(percent) + " % of " + forDisplay(name_) + " was sent to " + forDisplay(what_.to);
}

void SendReporter::showProgress(std::int64_t bytesSent, std::int64_t totalBytes) {
    const bool isResume = !begun_ && bytesSent > 0;
    if (overview_.isMany()) {
        if (isResume) {
            overview_.skip(bytesSent);
        } else {
            overview_.add(bytesSent - held_);
        }
        held_ = bytesSent;
        return;
    }
    if (isResume) {
        output_.message("going on from " + host::humanSize(bytesSent));
    }
    if (begun_) {
        output_.bar().update(bytesSent, totalBytes);
    } else {
        output_.bar().begin(forDisplay(name_), bytesSent, totalBytes);
    }
}

/// At the start, at the end, and ten times a second: a script that reads slowly must not slow the transfer down.
void SendReporter::tellProgress(std::int64_t bytesSent, std::int64_t totalBytes) {
    constexpr double secondsBetween = 0.1;
    const platform::Clock::Instant now = clock_.now();
    if (begun_ && bytesSent != totalBytes && (now - lastTold_).count() < secondsBetween) {
        return;
    }
    lastTold_ = now;
    Json fields = context();
    fields["bytes_sent"] = bytesSent;
    fields["total_bytes"] = totalBytes;
    output_.event("progress", std::move(fields));
}

void SendReporter::tellComplete(const host::Delivered& delivered) {
    const SentFile& sent = delivered.sent;
    overview_.end(what_.size - held_);
    Json fields = context();
    fields["bytes_sent"] = sent.bytesSent;
    fields["advertised_size"] = sent.advertisedSize;
    fields["resumed_from_offset"] = sent.resumedFromOffset;
    fields["duration_seconds"] = sent.durationSeconds;
    output_.event("complete", std::move(fields));
    const std::int64_t now = sent.bytesSent - sent.resumedFromOffset;
    std::string line =
        "sent " + forDisplay(name_) + " to " + forDisplay(what_.to) + ": " + host::humanSize(sent.bytesSent);
    line += " in " + host::humanDuration(sent.durationSeconds);
    if (sent.durationSeconds > 0 && now > 0) {
        line += ", " + host::humanRate(static_cast<double>(now) / sent.durationSeconds);
    }
    output_.result(line);
    if (sent.bytesSent != sent.advertisedSize) {
        output_.message(forDisplay(name_) + (sent.bytesSent > sent.advertisedSize ? " grew" : " shrank") +
                        " while it was sent: " + std::to_string(sent.bytesSent) + " bytes instead of " +
                        std::to_string(sent.advertisedSize) + ". Send it again if that was not meant.");
    }
    if (!delivered.isConfirmed) {
        output_.message(host::unconfirmedRemark(what_.to, name_));
    }
}

void SendReporter::tellFailure(const std::string& text, const std::string& hint, bool isInDoubt) {
    overview_.end(what_.size - held_);
    const std::string what =
        forDisplay(name_) + (isInDoubt ? " may or may not be on " : " was not sent to ") + forDisplay(what_.to) + ".";
    output_.failure(text, hint.empty() ? what : what + " " + hint, context());
}

void SendReporter::tellFailureLine(const std::string& text, const std::string& line) {
    output_.failure(text, line, context());
}

void SendReporter::tellFailureToScripts(const std::string& text) {
    Json fields = context();
    fields["message"] = text;
    output_.event("error", std::move(fields));
}

} // namespace orlinth::cli
