#include "orlinth/OfferQuestions.h"

#include "base/Text.h"
#include "orlinth/HumanText.h"
#include "orlinth/PeerSelection.h"
#include "orlinth/Terminal.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <termios.h>
#include <unistd.h>
#include <utility>

namespace orlinth::host {

namespace {

/// How often we look whether there is an answer: a person does not notice.
constexpr double lookSeconds = 0.1;

constexpr std::size_t longestAnswer = 1024;

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
    std::array<char, longestAnswer> text{};
    const ssize_t count = read(STDIN_FILENO, text.data(), text.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
        return std::nullopt;
    }
    return std::string(text.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
}

bool isYes(const std::string& line) {
    const std::string answer = lowerCased(trimmed(line));
    return answer == "y" || answer == "yes";
}

constexpr const char* acceptKey = "accept";
constexpr const char* declineKey = "decline";

} // namespace

Task<bool> OfferQuestions::wants(Receiver::Offer offer) {
    const std::string text = phoneForDisplay(host_, offer.from, offer.peerPubkey) + " wants to send " +
                             forDisplay(offer.name) + " (" + humanSize(offer.size) + "). Take it?";
    const std::uint64_t number = ++lastOffer_;
    std::shared_ptr<Question>& place = open_[text];
    if (place) {
        const std::shared_ptr<Question> asked = place;
        asked->newest = number;
        giveTime(*asked);
        co_return co_await waitFor(asked, number);
    }
    place = std::make_shared<Question>();
    const std::shared_ptr<Question> question = place;
    question->text = text;
    question->newest = number;
    std::exception_ptr failure;
    try {
        co_await ask(question);
    } catch (...) {
        failure = std::current_exception();
    }
    open_.erase(text);
    question->answer = question->answer.value_or(false);
    if (failure) {
        std::rethrow_exception(failure);
    }
    co_return question->newest == number && *question->answer;
}

/// For an offer whose question another one asks.
Task<bool> OfferQuestions::waitFor(std::shared_ptr<Question> question, std::uint64_t offer) {
    while (!question->answer && question->newest == offer) {
        co_await host_.system.clock.sleep(lookSeconds);
    }
    co_return question->newest == offer && *question->answer;
}

Task<> OfferQuestions::ask(std::shared_ptr<Question> question) {
    const platform::AsyncMutex::Guard guard = co_await turn_.lock();
    giveTime(*question);
    if (isTerminalOurs()) {
        co_await askOnTerminal(question);
    } else if (host_.system.notifications.isAvailable()) {
        co_await askOnDesktop(question);
    } else {
        tellThatNobodyIsThere();
    }
}

void OfferQuestions::giveTime(Question& question) const {
    question.end = host_.system.clock.now() + platform::Clock::Instant(patience);
}

bool OfferQuestions::hasTime(const Question& question) const {
    return host_.system.clock.now() < question.end;
}

Task<> OfferQuestions::askOnTerminal(std::shared_ptr<Question> question) {
    static_cast<void>(tcflush(STDIN_FILENO, TCIFLUSH)); // what was typed before was no answer to this
    writeToStandardError(question->text + " [y/N] ");
    while (hasTime(*question)) {
        if (const std::optional<std::string> line = typedLine()) {
            question->answer = isYes(*line);
            co_return;
        }
        co_await host_.system.clock.sleep(lookSeconds);
    }
    writeToStandardError("\n");
    host_.output.message("No answer in two minutes; the file was declined.");
}

Task<> OfferQuestions::askOnDesktop(std::shared_ptr<Question> question) {
    platform::Notification notification{.title = "Orlinth",
                                        .body = question->text,
                                        .actions = {{acceptKey, "Accept"}, {declineKey, "Decline"}},
                                        .isUrgent = true,
                                        .seconds = patience};
    // shared: the desktop may answer when nobody waits any more
    const auto answer = std::make_shared<std::optional<std::string>>();
    host_.system.notifications.show(std::move(notification), host_.tasks.executor(),
                                    [answer](const std::string& key) { *answer = key; });
    while (!*answer && hasTime(*question)) {
        co_await host_.system.clock.sleep(lookSeconds);
    }
    question->answer = *answer == acceptKey;
}

void OfferQuestions::tellThatNobodyIsThere() {
    if (!std::exchange(toldThatNobodyIsThere_, true)) {
        host_.output.failure("there is nobody to ask whether to take files, so they are declined",
                             "`--accept ask` needs a terminal or a desktop; `--accept always` takes every file.");
    }
}

} // namespace orlinth::host
