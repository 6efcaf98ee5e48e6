#include "orlinth/Reporting/ServeReporter.h"

#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Service/LastText.h"
#include "OrlinthHost/Service/LinkText.h"
#include "base/Text.h"
#include "orlinth/Reporting/Hints.h"
#include "orlinth/Reporting/ReceivedFields.h"
#include "orlinth/Reporting/Terminal.h"
#include "platform/ServiceManager.h"

#include <algorithm>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace orlinth::cli {

namespace {

std::string sizeOfText(const std::string& text) {
    return host::humanSize(static_cast<std::int64_t>(text.size())) + " of text";
}

/// What the two kinds of a new name have in common.
template <typename Renamed>
void tellName(Output& output, const char* event, const Renamed& renamed) {
    Json fields{{"name", renamed.name}, {"from", renamed.from}};
    if (renamed.isTakenOver) {
        fields["called"] = renamed.calledHere;
    }
    output.event(event, std::move(fields));
    const std::string from = forDisplay(renamed.from);
    const std::string name = forDisplay(renamed.name);
    if (!renamed.isTakenOver) {
        output.result(from + " wants to be called '" + name + "', and still has its name here");
    } else if (renamed.calledHere == renamed.name) {
        output.result(from + " is now called " + name);
    } else if (renamed.calledHere != renamed.from) { // else it was told before
        output.result(from + " wants to be called '" + name + "', as another phone is; it is now called " +
                      forDisplay(renamed.calledHere));
    }
}

/// For scripts.
const char* wordFor(DownloadRefusal::Reason reason) {
    switch (reason) {
    case DownloadRefusal::Reason::tooLarge:
        return "too_large";
    case DownloadRefusal::Reason::noRoom:
        return "no_room";
    case DownloadRefusal::Reason::tooManyPartials:
        return "too_many_partials";
    }
    return "";
}

/// For people, behind what was declined; "" if somebody was asked.
std::string becauseOf(const std::optional<DownloadRefusal>& refusal) {
    if (!refusal) {
        return "";
    }
    switch (refusal->reason) {
    case DownloadRefusal::Reason::tooLarge:
        return ": it is larger than " + host::humanSize(refusal->limit) + " (`--max-file`)";
    case DownloadRefusal::Reason::noRoom:
        return ": less than " + host::humanSize(refusal->limit) + " would stay free on the disk (`--keep-free`)";
    case DownloadRefusal::Reason::tooManyPartials:
        return ": the phone has " + std::to_string(refusal->limit) +
               " unfinished downloads here. To remove old ones: `orlinth partials --remove-older-than DAYS`";
    }
    return "";
}

void tellUnpair(Output& output, const Receiver::Unpair& unpair) {
    output.event("unpair", {{"from", unpair.from}, {"peer_pubkey", unpair.peerKey.text()}});
    output.result(forDisplay(unpair.from) +
                  (unpair.isForgotten ? " has removed this computer, and is forgotten here"
                                      : " has removed this computer, but is still recorded here. Remove it with "
                                        "`orlinth peers remove`."));
}

void tellDeclined(Output& output, const Receiver::Declined& declined) {
    Json fields = {{"from", declined.from}, {"name", declined.name}};
    if (declined.refusal) {
        fields["reason"] = wordFor(declined.refusal->reason);
        fields["limit"] = declined.refusal->limit;
    }
    output.event("declined", std::move(fields));
    const std::string from = forDisplay(declined.from);
    output.result(declined.name.empty()
                      ? from + " has declined"
                      : "declined " + forDisplay(declined.name) + " from " + from + becauseOf(declined.refusal));
}

/// Whether what was received could not be written, whatever file it was.
bool isOfTheFolder(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const ReceiveError& failure) {
        return failure.which() == ReceiveError::Case::fileWriteFailed;
    } catch (...) {
        return false;
    }
}

/// As a reader counts them, about.
std::size_t charactersOf(std::string_view text) {
    return static_cast<std::size_t>(std::ranges::count_if(
        text, [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U; })); // UTF-8, no continuation
}

} // namespace

ServeReporter::ServeReporter(Host& host, host::DesktopActions& desktop, host::DesktopNotices& notices, Choices choices)
    : host_(host),
      desktop_(desktop),
      notices_(notices),
      choices_(std::move(choices)),
      strangers_(host.system.clock, host.tasks.executor(), limits::linesOfStrangers,
                 [&output = host.output](std::int64_t untold) {
                     output.failure(std::to_string(untold) +
                                    (untold == 1 ? " more connection failed that was of no paired phone"
                                                 : " more connections failed that were of no paired phone"));
                 }),
      farAway_(host.system.clock, host.tasks.executor(), limits::linesOfStrangers,
               [&output = host.output](std::int64_t untold) {
                   output.failure(std::to_string(untold) + (untold == 1 ? " more connection" : " more connections") +
                                  " came from outside your networks");
               }),
      removed_(host.system.clock, host.tasks.executor(), limits::linesOfStrangers,
               [&output = host.output](std::int64_t untold) {
                   output.result("notified removed phones " + std::to_string(untold) +
                                 (untold == 1 ? " more time" : " more times"));
               }) {}

void ServeReporter::portInherited(std::uint16_t port) {
    if (choices_.port && *choices_.port != port) {
        host_.output.message("the service manager has opened port " + std::to_string(port) + "; --port is not used");
    }
    if (choices_.choosesPlaces) {
        host_.output.message("the service manager has opened the port; --listen is not used");
    }
}

void ServeReporter::phonesKnown(std::size_t pairedPhones) {
    if (pairedPhones == 0) {
        host_.output.message("No phone is paired yet. `orlinth pair` pairs one, also while this runs.");
    }
}

void ServeReporter::folderUnusable(const platform::Path& folder, const std::string& problem) {
    host_.output.failure(problem,
                         "Files that go there fail until the folder is writable, or until you choose another one.");
    notices_.cannotSaveIn(folder);
}

void ServeReporter::listening(std::uint16_t port, std::size_t pairedPhones) {
    platform::tellServiceReady();
    platform::tellServiceStatus(pairedPhones);
    host_.output.event("listening", {{"port", port}});
    host_.output.message("listening on port " + std::to_string(port));
}

void ServeReporter::stopping() {
    platform::tellServiceStopping();
}

void ServeReporter::authenticated(const PeerRecord& /*phone*/, std::size_t pairedPhones) {
    platform::tellServiceStatus(pairedPhones);
}

Task<> ServeReporter::finish() {
    strangers_.finish();
    farAway_.finish();
    removed_.finish();
    for (auto& [key, phone] : phones_) {
        phone.limit.finish();
    }
    co_await desktop_.finish();
}

void ServeReporter::fileReceived(const Receiver::File& file) {
    Json fields = receivedFields(file.file);
    fields["from"] = file.from;
    host_.output.event("received", std::move(fields));
    host_.output.result("received " + shortPath(file.file) + " from " +
                        host::phoneForDisplay(host_, file.from, file.peerKey) + " (" + receivedFigures(file.file) +
                        ")");
    if (const std::string remark = remarkOnSize(file.file); !remark.empty()) {
        host_.output.message(remark);
    }
    notices_.fileReceived(file);
}

void ServeReporter::textReceived(const Receiver::Clipboard& clipboard) {
    host_.output.event("clipboard", {{"text", clipboard.text}, {"from", clipboard.from}});
    // A line may end up in a log, where a text, which may be a password, has no business.
    const std::string line = "received " + sizeOfText(clipboard.text) + " from " +
                             host::phoneForDisplay(host_, clipboard.from, clipboard.peerKey);
    const bool writesClipboard = this->writesClipboard();
    if (admitsLine(clipboard.peerKey, clipboard.from)) {
        if (!writesClipboard && isTerminal(STDOUT_FILENO)) {
            host_.output.page(line + ": " + madeVisible(clipboard.text));
        } else {
            host_.output.result(line);
        }
    }
    notifyOfText(clipboard);
}

void ServeReporter::settled(const Receiver::ProcessOutcome& outcome) {
    Output& output = host_.output;
    if (const auto* name = std::get_if<Receiver::SetName>(&outcome)) {
        if (admitsLine(name->peerKey, name->from)) {
            tellName(output, "set_name", *name);
        }
    } else if (const auto* update = std::get_if<Receiver::NameUpdate>(&outcome)) {
        if (admitsLine(update->peerKey, update->from)) {
            tellName(output, "name_update", *update);
        }
    } else if (const auto* unpair = std::get_if<Receiver::Unpair>(&outcome)) {
        // a phone is forgotten once; one that is still recorded can say so again and again
        if (unpair->isForgotten || admitsLine(unpair->peerKey, unpair->from)) {
            tellUnpair(output, *unpair);
            notices_.unpaired(*unpair);
        }
    } else if (const auto* replied = std::get_if<Receiver::UnpairReplied>(&outcome)) {
        if (!removed_.admits()) {
            return;
        }
        output.event("unpair_replied",
                     {{"peer_pubkey", replied->peerKey.text()}, {"remote_endpoint", replied->remoteEndpoint}});
        output.result("notified a removed phone, key " + host::shortKey(replied->peerKey) + ", at " +
                      replied->remoteEndpoint);
    } else if (const auto* declined = std::get_if<Receiver::Declined>(&outcome)) {
        if (admitsLine(declined->peerKey, declined->from)) {
            tellDeclined(output, *declined);
        }
    }
}

void ServeReporter::connectionFailed(const Receiver::Failure& failure) {
    if (isOfTheFolder(failure.error)) {
        notices_.cannotSave(failure.peerKey);
    }
    const bool isTold = failure.from.empty() ? strangers_.admits() : admitsLine(failure.peerKey, failure.from);
    if (!isTold) {
        return;
    }
    Json context{{"remote_endpoint", failure.remoteEndpoint}};
    if (!failure.from.empty()) {
        context["from"] = failure.from;
    }
    host_.output.failure(describe(failure.error), hintForConnection(host_, failure), std::move(context));
}

void ServeReporter::turnedAway(const std::string& remoteEndpoint) {
    if (farAway_.admits()) {
        host_.output.failure("closed a connection from outside your networks",
                             "`--listen-public` lets such connections in.", {{"remote_endpoint", remoteEndpoint}});
    }
}

void ServeReporter::phonesUnreadable(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& trouble) {
        std::string hint = "The phones that were known before are still served.";
        if (const std::string way = hintForServing(host_, trouble); !way.empty()) {
            hint += " " + way;
        }
        host_.output.failure(describe(trouble), hint);
    }
}

void ServeReporter::unfinishedDownloads(const host::PartialsReminder::Reminder& reminder,
                                        const platform::Path& folder) {
    host_.output.event("unfinished_downloads",
                       {{"count", reminder.count}, {"bytes", reminder.bytes}, {"dir", toUtf8(folder.native())}});
    const bool isOne = reminder.count == 1;
    host_.output.message(std::to_string(reminder.count) + (isOne ? " unfinished download" : " unfinished downloads") +
                         " (" + host::humanSize(reminder.bytes) + ") in " + folder.string() +
                         (isOne ? " has" : " have") + " not changed for a week. To see or remove " +
                         (isOne ? "it" : "them") + ": `orlinth partials`");
}

void ServeReporter::controlFailed(const std::string& problem) {
    host_.output.message(problem + "; `orlinth pair` cannot use the service's port");
}

void ServeReporter::portLent() {
    host_.output.message("A pairing has the port; phones can deliver again when it is over.");
}

void ServeReporter::portReturned() {
    host_.output.message("The port is back.");
}

void ServeReporter::portMissing(const std::string& problem) {
    host_.output.message(problem + "; trying again until it works");
}

bool ServeReporter::admitsLine(const PeerKey& peerKey, const std::string& name) {
    auto known = phones_.find(peerKey);
    if (known == phones_.end()) {
        const auto tellMore = [this, peerKey](std::int64_t untold) {
            host_.output.message(forDisplay(phones_.at(peerKey).name) + ": " + std::to_string(untold) +
                                 (untold == 1 ? " more line was" : " more lines were") + " left out");
        };
        host::LineLimit limit(host_.system.clock, host_.tasks.executor(), limits::linesOfOnePhone, tellMore);
        known = phones_.emplace(peerKey, PhoneLines{.name = {}, .limit = std::move(limit)}).first;
    }
    known->second.name = name;
    return known->second.limit.admits();
}

void ServeReporter::notifyOfText(const Receiver::Clipboard& clipboard) {
    const std::size_t bytes = clipboard.text.size();
    host::notices::TextNotice text{.characters = charactersOf(clipboard.text),
                                   .isKept = bytes > 0 && bytes <= host::LastText::maxBytes,
                                   .linkHost = host::hostOfLink(clipboard.text)};
    const host::DesktopNotices::KeptText kept = notices_.keptText();
    if (!writesClipboard()) {
        notices_.textReceived(clipboard.peerKey, clipboard.from, std::move(text), kept);
        return;
    }
    desktop_.copy(clipboard.text, [&notices = notices_, peerKey = clipboard.peerKey, from = clipboard.from,
                                   text = std::move(text), kept](bool isThere) mutable {
        text.isOnClipboard = isThere;
        notices.textReceived(peerKey, from, std::move(text), kept);
    });
}

} // namespace orlinth::cli
