#include "orlinth/Asking/OfferQuestions.h"

#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "base/Text.h"
#include "orlinth/Asking/Answer.h"
#include "orlinth/Reporting/Terminal.h"
#include "platform/Cancelled.h"
#include "platform/SystemError.h"

#include <asio/experimental/awaitable_operators.hpp>

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
    std::array<char, Answer::longest> text{};
    const ssize_t count = read(STDIN_FILENO, text.data(), text.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
        return std::nullopt;
    }
    return std::string(text.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
}

constexpr const char* acceptKey = "accept";
constexpr const char* declineKey = "decline";

} // namespace

/// One offer at its question. An offer that goes without an answer takes the question back, unless a newer one has
/// come to it.
class OfferQuestions::Presence {
public:
    Presence(OfferQuestions& questions, QuestionRef question, std::uint64_t offer)
        : questions_(questions), question_(std::move(question)), offer_(offer) {
        question_->newest = offer_;
        questions_.news_->changed(); // the offers before are told no
    }
    Presence(const Presence&) = delete;
    Presence& operator=(const Presence&) = delete;
    ~Presence() {
        if (question_->newest == offer_ && !question_->answer) {
            questions_.takeBack(*question_);
        }
    }

private:
    OfferQuestions& questions_;
    QuestionRef question_;
    std::uint64_t offer_;
};

/// While it lives, one offer looks for the answer to the question.
class OfferQuestions::Attendance {
public:
    Attendance(OfferQuestions& questions, QuestionRef question)
        : questions_(questions), question_(std::move(question)) {
        question_->isAttended = true;
    }
    Attendance(const Attendance&) = delete;
    Attendance& operator=(const Attendance&) = delete;
    ~Attendance() {
        question_->isAttended = false;
        questions_.news_->changed();
    }

private:
    OfferQuestions& questions_;
    QuestionRef question_;
};

OfferQuestions::OfferQuestions(Host& host)
    : host_(host), news_(std::make_shared<platform::Condition>(host.tasks.executor())) {}

Task<bool> OfferQuestions::wants(Receiver::Offer offer) {
    const QuestionRef question = questionFor(offer);
    if (!question) {
        co_return false;
    }
    const std::uint64_t number = ++lastOffer_;
    const Presence presence(*this, question, number);
    const auto isDone = [&question, number] { return question->answer || question->newest != number; };
    const auto mayGoOn = [this, &question, &isDone] {
        return isDone() || !current_ || (current_ == question && !question->isAttended);
    };
    while (!isDone()) {
        chooseNext();
        if (current_ == question && !question->isAttended) {
            co_await attend(question, number);
        } else {
            co_await news_->until(mayGoOn);
        }
    }
    co_return question->newest == number && *question->answer;
}

/// The one that is there already, or a new one; null if the phone has too many.
OfferQuestions::QuestionRef OfferQuestions::questionFor(const Receiver::Offer& offer) {
    const auto line = waiting_.find(offer.peerKey);
    if (line != waiting_.end()) {
        for (const QuestionRef& question : line->second) {
            const bool isTheSame = question->transferId == offer.transferId && question->name == offer.name &&
                                   question->size == offer.size;
            if (isTheSame) {
                return question;
            }
        }
        if (line->second.size() > limits::questionsWaiting) {
            return nullptr;
        }
    } else {
        turns_.push_back(offer.peerKey);
    }
    const auto question = std::make_shared<Question>(
        Question{.peerKey = offer.peerKey,
                 .transferId = offer.transferId,
                 .name = offer.name,
                 .size = offer.size,
                 .text = host::phoneForDisplay(host_, offer.from, offer.peerKey) + " wants to send " +
                         forDisplay(offer.name) + " (" + host::humanSize(offer.size) + "). Take it?",
                 .tag = ++lastTag_});
    waiting_[offer.peerKey].push_back(question);
    return question;
}

/// The first question of the phone whose turn it is, if none is being asked.
void OfferQuestions::chooseNext() {
    if (!current_ && !turns_.empty()) {
        current_ = waiting_.at(turns_.front()).front();
        giveTime(*current_);
        news_->changed();
    }
}

/// Until there is an answer, or a newer offer has come to the question.
Task<> OfferQuestions::attend(QuestionRef question, std::uint64_t offer) {
    const Attendance attendance(*this, question);
    const auto isDone = [&question, offer] { return question->answer || question->newest != offer; };
    const auto isNews = [&question, &isDone] { return isDone() || *question->pressed; };
    std::optional<platform::DescriptorWatch> typing;
    while (!isDone()) {
        if (question->asked == Asked::notYet && host_.system.clock.now() >= restUntil_) {
            ask(*question);
        }
        if (question->asked == Asked::onTerminal && !typing) {
            watchTerminal(*question, typing);
        }
        if (question->asked != Asked::notYet && !question->answer) {
            lookForAnswer(*question);
        }
        if (!question->answer) {
            Task<bool> news = news_->until(isNews, host_.system.clock, timeToNextLook(*question));
            if (typing) {
                using namespace asio::experimental::awaitable_operators;
                std::string trouble;
                Task<> typed = untilTyped(*typing, trouble);
                co_await (std::move(typed) || std::move(news));
                if (!trouble.empty()) {
                    declineWithoutTerminal(*question, trouble);
                }
            } else {
                static_cast<void>(co_await std::move(news));
            }
        }
    }
}

/// Waits for what is typed from now on, not for what is there to read: that may be for another program, which has the
/// terminal for a while, and whose terminal it is changes without a word to us.
void OfferQuestions::watchTerminal(Question& question, std::optional<platform::DescriptorWatch>& typing) {
    try {
        typing.emplace(host_.tasks.executor(), STDIN_FILENO, EPOLLIN | EPOLLET);
    } catch (const platform::SystemError& error) {
        declineWithoutTerminal(question, error.description());
    }
}

/// Returns also if the wait is cancelled, which the next one of the task reports: of two waits that both fail, who
/// waits for either would hear of neither's reason.
Task<> OfferQuestions::untilTyped(platform::DescriptorWatch& typing, std::string& trouble) {
    try {
        co_await typing.wait();
    } catch (const platform::SystemError& error) {
        trouble = error.description();
    } catch (const platform::Cancelled&) {
    }
}

void OfferQuestions::declineWithoutTerminal(Question& question, const std::string& trouble) {
    writeToStandardError("\n");
    host_.output.failure("cannot wait for an answer on the terminal, so the file is declined: " + trouble);
    settle(question, false);
}

void OfferQuestions::ask(Question& question) {
    giveTime(question);
    if (isTerminalOurs()) {
        question.asked = Asked::onTerminal;
        static_cast<void>(tcflush(STDIN_FILENO, TCIFLUSH)); // what was typed before was no answer to this
        writeToStandardError(question.text + " [y/N] ");
    } else if (host_.system.notifications.isAvailable()) {
        question.asked = Asked::onDesktop;
        platform::Notification notification{.title = "Orlinth",
                                            .body = question.text,
                                            .actions = {{acceptKey, "Accept"}, {declineKey, "Decline"}},
                                            .isUrgent = true,
                                            .shownFor = patience,
                                            .tag = question.tag};
        const auto onPressed = [pressed = question.pressed, weak = std::weak_ptr(news_)](const std::string& key) {
            *pressed = key;
            if (const std::shared_ptr<platform::Condition> news = weak.lock()) {
                news->changed();
            }
        };
        host_.system.notifications.show(std::move(notification), host_.tasks.executor(), onPressed);
    } else {
        tellThatNobodyIsThere();
        settle(question, false);
    }
}

void OfferQuestions::lookForAnswer(Question& question) {
    if (question.asked == Asked::onTerminal) {
        if (const std::optional<std::string> line = typedLine()) {
            settle(question, Answer::isYes(*line));
        } else if (!hasTime(question)) {
            writeToStandardError("\n");
            host_.output.message("No answer in two minutes; the file was declined.");
            restUntil_ = host_.system.clock.now() + rest; // a late answer is to no other
            settle(question, false);
        }
    } else if (*question.pressed || !hasTime(question)) {
        settle(question, *question.pressed == acceptKey);
    }
}

void OfferQuestions::settle(Question& question, bool isWanted) {
    question.answer = isWanted;
    leaveLine(question);
}

/// Nobody wants the answer any more.
void OfferQuestions::takeBack(Question& question) {
    question.answer = false;
    if (question.asked == Asked::onTerminal) {
        writeToStandardError("\n");
        host_.output.message("The phone is gone; there is nothing to answer any more.");
    } else if (question.asked == Asked::onDesktop) {
        host_.system.notifications.withdraw(question.tag);
    }
    if (question.asked != Asked::notYet) {
        restUntil_ = host_.system.clock.now() + rest;
    }
    leaveLine(question);
}

void OfferQuestions::leaveLine(const Question& question) {
    const auto line = waiting_.find(question.peerKey);
    std::erase_if(line->second, [&question](const QuestionRef& other) { return other.get() == &question; });
    const bool isLast = line->second.empty();
    const bool hadItsTurn = current_.get() == &question;
    if (isLast || hadItsTurn) {
        std::erase(turns_, question.peerKey);
    }
    if (isLast) {
        waiting_.erase(line);
    } else if (hadItsTurn) {
        turns_.push_back(question.peerKey);
    }
    if (hadItsTurn) {
        current_.reset();
    }
    news_->changed();
}

void OfferQuestions::giveTime(Question& question) const {
    question.end = host_.system.clock.now() + patience;
}

bool OfferQuestions::hasTime(const Question& question) const {
    return host_.system.clock.now() < question.end;
}

/// When there is something to do if nobody answers: to ask, as the rest is over, or to give up.
Seconds OfferQuestions::timeToNextLook(const Question& question) const {
    const platform::Clock::Instant next = question.asked == Asked::notYet ? restUntil_ : question.end;
    return next - host_.system.clock.now();
}

void OfferQuestions::tellThatNobodyIsThere() {
    if (!std::exchange(toldThatNobodyIsThere_, true)) {
        host_.output.failure("there is nobody to ask whether to take files, so they are declined",
                             "`--accept ask` needs a terminal or a desktop; `--accept always` takes every file.");
    }
}

} // namespace orlinth::cli
