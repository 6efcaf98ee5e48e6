#include "orlinth/Reporting/DoctorReporter.h"

#include "OrlinthHost/HumanText.h"
#include "base/Text.h"
#include "orlinth/Reporting/Terminal.h"

#include <array>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <sstream>
#include <string_view>
#include <unistd.h>

namespace orlinth::cli {

namespace {

using host::Finding;
using Status = Finding::Status;
using host::Cause;

/// A line is 80 columns: two of the mark, a label, and the text.
constexpr std::size_t labelColumns = 15;
constexpr std::size_t indent = 18;
constexpr std::size_t textColumns = 80 - indent;

std::string labelOf(const Finding& finding) {
    switch (finding.check) {
    case Finding::Check::computer:
        return "This computer";
    case Finding::Check::service:
        return "Service";
    case Finding::Check::firewall:
        return "Firewall";
    case Finding::Check::downloads:
        return "Downloads";
    case Finding::Check::waking:
        return "Waking";
    case Finding::Check::arrival:
        return "Receiving";
    case Finding::Check::phone:
        break;
    }
    return forDisplay(finding.phone, labelColumns);
}

/// Whether the remark says it, and not the words about the cause.
bool saysRemark(const Finding& finding) {
    return finding.cause == Cause::none || !finding.remark.empty();
}

std::string messageOf(const Finding& finding) {
    return saysRemark(finding) ? finding.remark : host::words(finding.cause, finding.details);
}

host::Advice adviceOf(const Finding& finding) {
    return saysRemark(finding) ? host::Advice() : host::advice(finding.cause, finding.details);
}

/// The sentence as it goes on from the label: without the subject that the label names, and one sentence without its
/// full stop.
std::string behindLabel(const Finding& finding) {
    std::string text = messageOf(finding);
    if (saysRemark(finding)) {
        return text;
    }
    std::string subject = finding.check == Finding::Check::computer ? "This computer" : "";
    if (finding.check == Finding::Check::phone) {
        subject = forDisplay(finding.details.phone, 40); // as the words have it
    }
    if (!subject.empty() && text.starts_with(subject + " ")) {
        text.erase(0, subject.size() + 1);
        text.erase(0, text.starts_with("is ") ? 3 : 0);
    } else if (finding.cause != Cause::pushNoToken) { // which begins with a name
        text.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(text.front())));
    }
    const bool isOneSentence = text.find(". ") == std::string::npos;
    if (isOneSentence && text.ends_with('.')) {
        text.pop_back();
    }
    return text;
}

/// A command in lines that a shell takes for one. Commands have no blank inside a word.
std::vector<std::string> brokenForShell(const std::string& command, std::size_t columns) {
    std::vector<std::string> lines{""};
    std::istringstream words(command);
    for (std::string word; words >> word;) {
        constexpr std::size_t roomForBreak = 2; // " \"
        const bool isFirst = lines.back().find_first_not_of(' ') == std::string::npos;
        if (!isFirst && lines.back().size() + 1 + word.size() + roomForBreak > columns && command.size() > columns) {
            lines.back() += " \\";
            lines.push_back("    " + word);
        } else {
            lines.back() += (isFirst ? "" : " ") + word;
        }
    }
    return lines;
}

std::string shortEvidence(const Finding& finding) {
    std::string text;
    for (const auto& [key, value] : finding.evidence.items()) {
        const std::string shown = value.is_string() ? value.get<std::string>() : value.dump();
        if (!shown.empty()) {
            text += (text.empty() ? "" : ", ") + key + " " + shown;
        }
    }
    const auto milliseconds = std::chrono::round<std::chrono::milliseconds>(finding.duration).count();
    return text + (text.empty() ? "" : "; ") + std::to_string(milliseconds) + " ms";
}

/// To milliseconds.
double roundedSeconds(Seconds time) {
    constexpr double millisecondsOfASecond = 1000;
    return std::round(time.count() * millisecondsOfASecond) / millisecondsOfASecond;
}

std::string plural(std::size_t count, const char* what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

/// Which phones are out of reach.
std::string absenceOf(const host::Diagnosis& diagnosis) {
    if (diagnosis.absent.size() == 1 && !diagnosis.isWayTaken) {
        return forDisplay(diagnosis.absent.front()) + " cannot be reached now.";
    }
    if (diagnosis.absent.size() == diagnosis.phones) {
        return "No phone can be reached.";
    }
    return std::to_string(diagnosis.absent.size()) + " of " + std::to_string(diagnosis.phones) +
           " phones cannot be reached now.";
}

/// What has no problem.
std::string conclusionWithoutProblems(const host::Diagnosis& diagnosis) {
    const std::string warnings = plural(diagnosis.warnings, "warning");
    if (diagnosis.unanswered > 0) {
        return diagnosis.warnings == 0 ? "" : warnings + ".";
    }
    return diagnosis.warnings == 0 ? "Everything works." : "It works, with " + warnings + ".";
}

std::string conclusionWithProblems(const host::Diagnosis& diagnosis) {
    std::string text = plural(diagnosis.problems, "problem") + ".";
    const bool cannotReceive = diagnosis.canReceive == false;
    if (!diagnosis.absent.empty()) {
        text += " " + absenceOf(diagnosis);
        text += cannotReceive ? " Receiving does not work either." : "";
    } else if (cannotReceive) {
        text += diagnosis.canSend == true ? " Sending works, receiving does not." : " Receiving does not work.";
    }
    return text;
}

std::string conclusionOf(const host::Diagnosis& diagnosis) {
    const bool isFlawless = diagnosis.problems == 0 && diagnosis.absent.empty();
    std::string text = isFlawless ? conclusionWithoutProblems(diagnosis) : conclusionWithProblems(diagnosis);
    if (diagnosis.unanswered > 0) {
        text += (text.empty() ? "" : " ") + plural(diagnosis.unanswered, "check") + " gave no answer.";
    }
    return text;
}

bool isUtf8Locale() {
    for (const char* const name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char* const value = std::getenv(name);
        if (value != nullptr && *value != '\0') {
            const std::string locale = lowerCased(value);
            return locale.find("utf-8") != std::string::npos || locale.find("utf8") != std::string::npos;
        }
    }
    return false;
}

} // namespace

DoctorReporter::Style DoctorReporter::styleOfTerminal() {
    const bool isShown = isTerminal(STDOUT_FILENO);
    return {.isUtf8 = isShown && isUtf8Locale(), .hasColour = isShown && wantsColour()};
}

std::string DoctorReporter::mark(Status status) const {
    struct Mark {
        const char* utf8;
        const char* ascii;
        const char* colour;
    };
    constexpr std::array<Mark, 4> marks{{{"✓", "ok", "32"}, {"!", "!", "33"}, {"✗", "x", "31"}, {"·", "-", "2"}}};
    const Mark& mark = marks.at(static_cast<std::size_t>(status));
    const std::string sign = style_.isUtf8 ? mark.utf8 : mark.ascii;
    const std::string shown = style_.hasColour ? std::string("\033[") + mark.colour + "m" + sign + "\033[0m" : sign;
    return shown + (style_.isUtf8 || sign.size() == 2 ? "" : " ");
}

void DoctorReporter::found(const Finding& finding) {
    const host::Advice advice = adviceOf(finding);
    Json fields;
    fields["id"] = host::idOf(finding.check);
    fields["status"] = host::idOf(finding.status);
    fields["cause"] = host::idOf(finding.cause);
    fields["message"] = messageOf(finding);
    fields["advice"] = advice.text;
    fields["commands"] = advice.commands;
    fields["evidence"] = finding.evidence;
    fields["duration_seconds"] = roundedSeconds(finding.duration);
    if (finding.check == Finding::Check::phone) {
        fields["to"] = finding.phone;
        fields["peer_pubkey"] = finding.peerKey;
    }
    output_.event("check", std::move(fields));
    const bool isDull =
        finding.status == Status::ok || (finding.status == Status::notMeasured && !finding.isUnanswered);
    if (!finding.isAside || !isDull || style_.isVerbose) {
        showItem(finding.status, labelOf(finding), behindLabel(finding), advice,
                 style_.isVerbose ? shortEvidence(finding) : "");
    }
}

void DoctorReporter::showItem(Status status, const std::string& label, const std::string& text,
                              const host::Advice& advice, const std::string& evidence) {
    const std::string blanks(indent, ' ');
    std::string page;
    const auto add = [&](const std::string& paragraph) {
        for (const std::string& line : host::wrapped(paragraph, textColumns)) {
            page += (page.empty() ? "" : "\n" + blanks) + forDisplay(line, textColumns);
        }
    };
    add(text);
    add(advice.text);
    for (const std::string& command : advice.commands) {
        for (const std::string& line : brokenForShell(command, textColumns)) {
            page += "\n" + blanks + line;
        }
    }
    add(evidence);
    const std::string head = mark(status) + " " + host::padded(label, style_.isUtf8 ? labelColumns + 1 : labelColumns);
    output_.page(head + page);
}

void DoctorReporter::listening(Seconds time) {
    Json fields;
    fields["seconds"] = time.count();
    output_.event("listening", std::move(fields));
    output_.message("Send something from the phone to this computer now. Waiting for " + timeInWords(time) + ".");
}

void DoctorReporter::concluded(const host::Diagnosis& diagnosis) {
    Json fields;
    fields["problems"] = diagnosis.problems;
    const auto asJson = [](std::optional<bool> answer) { return answer ? Json(*answer) : Json(nullptr); };
    fields["can_send"] = asJson(diagnosis.canSend);
    fields["can_receive"] = asJson(diagnosis.canReceive);
    output_.event("complete", std::move(fields));
    output_.result(conclusionOf(diagnosis));
}

} // namespace orlinth::cli
