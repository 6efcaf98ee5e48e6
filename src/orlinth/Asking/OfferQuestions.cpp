#include "orlinth/Asking/OfferQuestions.h"

#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Service/NoticeText.h"
#include "OrlinthHost/Service/OfferQueue.h"
#include "base/Text.h"
#include "orlinth/Asking/Answer.h"
#include "orlinth/Reporting/Terminal.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <sys/epoll.h>
#include <termios.h>
#include <unistd.h>
#include <utility>

namespace orlinth::cli {

namespace {

/// Standard input is a terminal, and this program, not one that was started after it, is the one that reads there.
bool isTerminalOurs() {
    return isTerminal(STDIN_FILENO) && tcgetpgrp(STDIN_FILENO) == getpgrp();
}

/// The line that was typed, if one was; anything but a line, such as the end of the input, is an empty one.
std::optional<std::string> typedLine() {
    pollfd ready{STDIN_FILENO, POLLIN, 0};
    if (!isTerminalOurs() || poll(&ready, 1, 0) <= 0) {
        return std::nullopt;
    }
    std::array<char, cli::Answer::longest> text{};
    const ssize_t count = read(STDIN_FILENO, text.data(), text.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
        return std::nullopt;
    }
    return std::string(text.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
}

constexpr const char* acceptKey = "accept";
constexpr const char* declineKey = "decline";

/// By which the desktop finds the notification again.
std::uint64_t tagOf(host::OfferNumber number) {
    return static_cast<std::uint64_t>(number);
}

} // namespace

bool OfferQuestions::ask(const host::OfferView& offer, Answer answer) {
    const std::string phone = host::phoneForDisplay(host_, offer.phone, offer.peerKey);
    const std::string size = host::humanSize(offer.size);
    if (isTerminalOurs()) {
        askOnTerminal(offer.number, phone + " wants to send " + forDisplay(offer.name) + " (" + size + "). Take it?",
                      answer);
        return true;
    }
    if (host_.system.notifications.isAvailable()) {
        askOnDesktop(
            offer.number,
            {.title = host::notices::shortName(phone) + " wants to send " + host::notices::shortName(offer.name),
             .body = size},
            std::move(answer));
        return true;
    }
    return false;
}

/// Waits for what is typed from now on, not for what is there to read: that may be for another program, which has the
/// terminal for a while, and whose terminal it is changes without a word to us.
void OfferQuestions::askOnTerminal(host::OfferNumber number, const std::string& text, const Answer& answer) {
    std::unique_ptr<platform::DescriptorWatch> typing;
    static_cast<void>(tcflush(STDIN_FILENO, TCIFLUSH)); // what was typed before was no answer to this
    writeToStandardError(text + " [y/N] ");
    try {
        typing = std::make_unique<platform::DescriptorWatch>(host_.tasks.executor(), STDIN_FILENO, EPOLLIN | EPOLLET);
    } catch (const platform::SystemError& error) {
        declineWithoutTerminal(host_, answer, error.description());
        return;
    }
    asked_ = {.number = number,
              .typing = typing_.add(awaitLine(host_, std::move(typing), answer), [](const std::exception_ptr&) {
                  // it has said what there was to say
              })};
}

Task<> OfferQuestions::awaitLine(Host& host, std::unique_ptr<platform::DescriptorWatch> typing, Answer answer) {
    std::optional<std::string> line = typedLine();
    std::string trouble;
    while (!line && trouble.empty()) {
        try {
            co_await typing->wait();
            line = typedLine();
        } catch (const platform::SystemError& error) {
            trouble = error.description();
        }
    }
    if (line) {
        answer(cli::Answer::isYes(*line));
    } else {
        declineWithoutTerminal(host, answer, trouble);
    }
}

void OfferQuestions::declineWithoutTerminal(Host& host, const Answer& answer, const std::string& trouble) {
    writeToStandardError("\n");
    host.output.failure("cannot wait for an answer on the terminal, so the file is declined: " + trouble);
    answer(false);
}

/// Without anything that a click on the notification itself would do, which might be taken for an answer.
void OfferQuestions::askOnDesktop(host::OfferNumber number, platform::Notification question, Answer answer) {
    question.actions = {{acceptKey, "Accept"}, {declineKey, "Decline"}};
    question.isUrgent = true;
    question.shownFor = host::OfferQueue::patience;
    question.tag = tagOf(number);
    question.category = "transfer";
    question.isResident = true; // a click beside the buttons does not close it, which would be an answer
    auto onPressed = [&desktop = host_.system.notifications, number,
                      answer = std::move(answer)](const platform::NotificationAnswer& pressed) {
        const std::string& key = pressed.key;
        if (key.empty()) {
            answer(pressed.wasShown ? std::optional(false) : std::nullopt);
        } else if (key == acceptKey || key == declineKey) { // else it is a click beside the buttons
            desktop.withdraw(tagOf(number));
            answer(key == acceptKey);
        }
    };
    host_.system.notifications.show(std::move(question), host_.tasks.executor(), std::move(onPressed));
    asked_ = {.number = number};
}

void OfferQuestions::over(host::OfferNumber number, End end) {
    if (!asked_ || asked_->number != number) {
        return;
    }
    const Asked asked = *std::exchange(asked_, std::nullopt);
    if (!asked.typing) {
        host_.system.notifications.withdraw(tagOf(number));
        return;
    }
    typing_.cancel(*asked.typing);
    writeToStandardError("\n");
    switch (end) {
    case End::answered:
        host_.output.message("The question was answered elsewhere.");
        break;
    case End::expired:
        host_.output.message("No answer in two minutes; the file was declined.");
        break;
    case End::phoneGone:
        host_.output.message("The phone is gone; there is nothing to answer any more.");
        break;
    }
}

void OfferQuestions::nobodyIsThere() {
    if (!std::exchange(toldThatNobodyIsThere_, true)) {
        host_.output.failure("there is nobody to ask whether to take files, so they are declined",
                             "`--accept ask` needs a terminal or a desktop; `--accept always` takes every file.");
    }
}

} // namespace orlinth::cli
