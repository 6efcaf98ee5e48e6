#include "orlinth/Reporting/StatusText.h"

#include "OrlinthHost/HumanText.h"
#include "base/Overloaded.h"
#include "base/Text.h"
#include "orlinth/Reporting/OutboxReporter.h"

#include <algorithm>

namespace orlinth::cli {

namespace {

/// Wide enough for most names of phones.
constexpr std::size_t phoneColumns = 20;

std::string percentOf(const Progress& bytes) {
    const double share = bytes.total > 0
                             ? std::clamp(static_cast<double>(bytes.done) / static_cast<double>(bytes.total), 0.0, 1.0)
                             : 1.0;
    return std::to_string(static_cast<int>(share * 100)) + "%";
}

} // namespace

void StatusText::take(const host::ServiceNews& news) {
    std::visit(Overloaded{[this](const host::ServiceView& service) { service_ = service; },
                          [this](const host::PhoneView& phone) {
                              const auto at = std::ranges::find(phones_, phone.presence.peerKey,
                                                                [](const auto& one) { return one.presence.peerKey; });
                              if (at == phones_.end()) {
                                  phones_.push_back(phone);
                              } else {
                                  *at = phone;
                              }
                          },
                          [this](const host::TransferView& transfer) { transfers_[transfer.number] = transfer; },
                          [this](const host::OutboxView& batch) { batches_[{batch.batch, batch.peerKey}] = batch; },
                          [this](const host::OfferView& offer) { offers_[offer.number] = offer; },
                          [this](const host::OfferGoneLine& gone) { offers_.erase(gone.number); },
                          [this](const host::TransferGoneLine& gone) { transfers_.erase(gone.number); },
                          [this](const host::BatchGoneLine& gone) { batches_.erase({gone.batch, gone.peerKey}); },
                          [this](const host::PhoneGoneLine& gone) {
                              std::erase_if(phones_,
                                            [&gone](const auto& one) { return one.presence.peerKey == gone.peerKey; });
                          },
                          // what is not shown
                          [](const host::HistoryLine&) {}, [](const host::SettingLine&) {},
                          [](const host::SettingGoneLine&) {}, [](const host::CurrentLine&) {}},
               news);
}

std::vector<std::string> StatusText::lines(EpochMilliseconds now, std::size_t columns) const {
    std::vector<std::string> lines{serviceLine()};
    if (phones_.empty()) {
        lines.emplace_back("No phone is paired yet. `orlinth pair` pairs one.");
    } else {
        lines.emplace_back("Phones:");
    }
    for (const host::PhoneView& phone : phones_) {
        lines.push_back(phoneLine(phone, now));
    }
    if (!offers_.empty()) {
        lines.emplace_back("To be accepted:");
    }
    for (const auto& [number, offer] : offers_) {
        lines.push_back(offerLine(offer, now));
    }
    if (!transfers_.empty()) {
        lines.emplace_back("Transfers:");
    }
    for (const auto& [number, transfer] : transfers_) {
        lines.push_back("  " + std::to_string(static_cast<std::uint64_t>(number)) + "  " + nameOf(transfer) + "  " +
                        stateOf(transfer));
    }
    const bool isAnythingWaiting = !batches_.empty();
    if (isAnythingWaiting) {
        lines.emplace_back("Outbox:");
    }
    for (const auto& [key, batch] : batches_) {
        lines.push_back(batchLine(batch, now));
    }
    if (transfers_.empty() && offers_.empty() && !isAnythingWaiting) {
        lines.emplace_back("Nothing is under way, and nothing waits.");
    }
    for (std::string& line : lines) {
        line = host::fitted(line, columns);
    }
    return lines;
}

std::string StatusText::serviceLine() const {
    using State = host::ServiceView::State;
    const host::ServiceView service = service_.value_or(host::ServiceView{});
    const std::string port = std::to_string(service.port);
    switch (service.state) {
    case State::listening:
        return "Receives at port " + port + ", into " + forDisplay(service.downloads.string()) + "." +
               (service.problem.empty() ? "" : " Problem: " + forDisplay(service.problem) + ".");
    case State::lent:
        return "A pairing uses port " + port + " just now.";
    case State::notListening:
        return "Does not receive: " + forDisplay(service.problem) + ". That is tried again every second.";
    case State::stopping:
        return "The service is ending.";
    case State::starting:
        break;
    }
    return "The service is starting.";
}

std::string StatusText::phoneLine(const host::PhoneView& phone, EpochMilliseconds now) {
    std::string how;
    switch (phone.presence.state) {
    case host::PresenceState::here:
        how = "here now";
        break;
    case host::PresenceState::asleep:
        how = phone.presence.canWake ? "asleep, will be woken" : "asleep, and cannot be woken";
        break;
    case host::PresenceState::away:
    case host::PresenceState::unknown:
        how = phone.presence.seen ? "last here " + host::humanSince(*phone.presence.seen, now) : "never seen here";
        break;
    }
    return "  " + host::padded(forDisplay(phone.name), phoneColumns) + "  " + how;
}

std::string StatusText::nameOf(const host::TransferView& transfer) {
    const bool isIncoming = transfer.direction == host::TransferView::Direction::in;
    return forDisplay(transfer.name) + (isIncoming ? " from " : " to ") + forDisplay(transfer.phone);
}

std::string StatusText::stateOf(const host::TransferView& transfer) {
    using State = host::TransferView::State;
    switch (transfer.state) {
    case State::active:
        break;
    case State::finishing:
        return "finishing";
    case State::done:
        return "done, " + host::humanSize(transfer.bytes.total);
    case State::failed:
        return transfer.problem.empty() ? "failed" : "failed: " + forDisplay(transfer.problem);
    case State::cancelled:
        return "cancelled";
    }
    std::string text = percentOf(transfer.bytes);
    if (transfer.bytesPerSecond > 0) {
        const auto rate = static_cast<double>(transfer.bytesPerSecond);
        const std::int64_t left = std::max<std::int64_t>(0, transfer.bytes.total - transfer.bytes.done);
        text += "  " + host::humanRate(rate) + "  " + host::humanDuration(Seconds(static_cast<double>(left) / rate)) +
                " left";
    }
    return text;
}

std::string StatusText::offerLine(const host::OfferView& offer, EpochMilliseconds now) {
    std::string line = "  " + std::to_string(static_cast<std::uint64_t>(offer.number)) + "  " + forDisplay(offer.name) +
                       " (" + host::humanSize(offer.size) + ") from " + forDisplay(offer.phone);
    if (offer.expires) {
        line += ", " + host::humanDuration(std::max(Seconds(0), Seconds(*offer.expires - now))) + " left to answer";
    }
    return line;
}

std::string StatusText::batchLine(const host::OutboxView& batch, EpochMilliseconds now) {
    using State = host::OutboxView::State;
    std::string line = "  " + shortId(batch.batch) + "  " + std::to_string(batch.filesDone) + " of " +
                       host::countOfFiles(batch.files) + " sent to " + forDisplay(batch.phone);
    switch (batch.state) {
    case State::sending:
        return line + ", more are on their way";
    case State::failed:
        return line + ", the others cannot be sent";
    case State::waiting:
    case State::paused:
        break;
    }
    if (batch.nextAttempt) {
        const Seconds left = std::max(Seconds(0), Seconds(*batch.nextAttempt - now));
        line += ", next attempt in " + host::humanDuration(left);
    } else {
        line += ", waiting";
    }
    return batch.problem.empty() ? line : line + ": " + forDisplay(batch.problem);
}

} // namespace orlinth::cli
