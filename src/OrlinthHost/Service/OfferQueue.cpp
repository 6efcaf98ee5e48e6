#include "OrlinthHost/Service/OfferQueue.h"

#include "OrlinthCore/Receiving/ReceivingLimits.h"
#include "base/Text.h"

#include <asio/post.hpp>

#include <algorithm>
#include <utility>

namespace orlinth::host {

/// One offer at its question. An offer that goes without an answer takes the question back, unless a newer one has
/// come to it.
class OfferQueue::Presence {
public:
    Presence(OfferQueue& queue, QuestionRef question, std::uint64_t offer)
        : queue_(queue), question_(std::move(question)), offer_(offer) {
        question_->newest = offer_;
        queue_.news_.changed(); // the offers before are told no
    }
    Presence(const Presence&) = delete;
    Presence& operator=(const Presence&) = delete;
    ~Presence() {
        if (question_->newest == offer_ && !question_->answer) {
            queue_.endWithoutAsker(*question_, OfferAsker::End::phoneGone, false);
        }
    }

private:
    OfferQueue& queue_;
    QuestionRef question_;
    std::uint64_t offer_;
};

OfferQueue::OfferQueue(Home& home, OfferAsker* asker)
    : home_(home), asker_(asker), news_(home.executor), timer_(home.system.clock.makeTimer(home.executor)) {}

Task<bool> OfferQueue::wants(Receiver::Offer offer) {
    const QuestionRef question = questionFor(offer);
    if (!question) {
        co_return false;
    }
    const std::uint64_t number = ++lastOffer_;
    const Presence presence(*this, question, number);
    const auto isDone = [&question, number] { return question->answer || question->newest != number; };
    co_await news_.until(isDone);
    co_return question->newest == number && *question->answer;
}

std::vector<OfferView> OfferQueue::open() const {
    std::vector<OfferView> views;
    for (const auto& [peerKey, line] : waiting_) {
        for (const QuestionRef& question : line) {
            views.push_back(question->view);
        }
    }
    std::ranges::sort(views, {}, &OfferView::number);
    return views;
}

bool OfferQueue::answer(OfferNumber number, bool isAccepted) {
    const QuestionRef question = find(number);
    if (question) {
        endWithoutAsker(*question, OfferAsker::End::answered, isAccepted);
    }
    return question != nullptr;
}

OfferQueue::QuestionRef OfferQueue::find(OfferNumber number) const {
    for (const auto& [peerKey, line] : waiting_) {
        for (const QuestionRef& question : line) {
            if (question->view.number == number) {
                return question;
            }
        }
    }
    return nullptr;
}

/// The one that is there already, or a new one; null if the phone has too many.
OfferQueue::QuestionRef OfferQueue::questionFor(const Receiver::Offer& offer) {
    const auto line = waiting_.find(offer.peerKey);
    if (line != waiting_.end()) {
        for (const QuestionRef& question : line->second) {
            const bool isTheSame = question->transferId == offer.transferId && question->name == offer.name &&
                                   question->view.size == offer.size;
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
    const auto question = std::make_shared<Question>(Question{.view = {.number = OfferNumber{++lastNumber_},
                                                                       .peerKey = offer.peerKey,
                                                                       .phone = offer.from,
                                                                       .name = forDisplay(offer.name),
                                                                       .size = offer.size},
                                                              .name = offer.name,
                                                              .transferId = offer.transferId});
    waiting_[offer.peerKey].push_back(question);
    goOnSoon();
    changed();
    return question;
}

/// Not from within the call that brings the news: that may be the asker's.
void OfferQueue::goOnSoon() {
    asio::post(home_.executor, [this, alive = std::weak_ptr(alive_)] {
        if (!alive.expired()) {
            goOn();
        }
    });
}

/// Asks the first question of the phone whose turn it is, if none is being asked and the rest is over.
void OfferQueue::goOn() {
    if (current_ || turns_.empty()) {
        return;
    }
    const platform::Clock::Instant now = home_.system.clock.now();
    if (now < restUntil_) {
        timer_->arm(restUntil_ - now, [this] { goOn(); });
        return;
    }
    const QuestionRef question = waiting_.at(turns_.front()).front();
    current_ = question;
    question->view.expires =
        home_.system.clock.epochMilliseconds() + std::chrono::duration_cast<std::chrono::milliseconds>(patience);
    timer_->arm(patience, [this, question] { endWithoutAsker(*question, OfferAsker::End::expired, false); });
    auto onAnswer = [this, alive = std::weak_ptr(alive_),
                     weak = std::weak_ptr(question)](std::optional<bool> isAccepted) {
        const QuestionRef answered = weak.lock();
        if (alive.expired() || !answered || answered->answer) {
            return;
        }
        if (isAccepted) {
            settle(*answered, *isAccepted);
        } else {
            answered->isAsked = false;
            declineIfNobodySees(*answered);
        }
    };
    question->isAsked = asker_ != nullptr && asker_->ask(question->view, std::move(onAnswer));
    if (!question->answer && !question->isAsked) {
        declineIfNobodySees(*question);
    }
    changed();
}

/// One that the asker cannot ask.
void OfferQueue::declineIfNobodySees(Question& question) {
    if (onlookers_.use_count() > 1) {
        return;
    }
    if (asker_ != nullptr) {
        asker_->nobodyIsThere();
    }
    settle(question, false);
}

void OfferQueue::endWithoutAsker(Question& question, OfferAsker::End end, bool isAccepted) {
    if (question.isAsked) {
        restUntil_ = home_.system.clock.now() + rest;
        asker_->over(question.view.number, end);
    }
    settle(question, isAccepted);
}

void OfferQueue::settle(Question& question, bool isAccepted) {
    question.answer = isAccepted;
    leaveLine(question);
    news_.changed();
    goOnSoon();
    changed();
}

void OfferQueue::leaveLine(const Question& question) {
    const auto line = waiting_.find(question.view.peerKey);
    const bool hadItsTurn = current_.get() == &question;
    if (hadItsTurn) {
        timer_->disarm();
        current_.reset(); // the offer that waits keeps it
    }
    std::erase_if(line->second, [&question](const QuestionRef& other) { return other.get() == &question; });
    const bool isLast = line->second.empty();
    const PeerKey peerKey = line->first;
    if (isLast || hadItsTurn) {
        std::erase(turns_, peerKey);
    }
    if (isLast) {
        waiting_.erase(line);
    } else if (hadItsTurn) {
        turns_.push_back(peerKey);
    }
}

void OfferQueue::changed() {
    if (onChanged) {
        onChanged();
    }
}

} // namespace orlinth::host
