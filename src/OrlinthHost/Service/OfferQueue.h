#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Service/OfferAsker.h"
#include "OrlinthHost/Service/OfferView.h"
#include "platform/Condition.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::host {

/// The files that phones offer and that somebody has to accept, as questions: whose turn it is, how long there is for
/// an answer, and who gets it.
///
///     waits its turn ──▶ is asked ──▶ over: answered, expired, or its phone has hung up
///
/// The OfferAsker asks one question at a time. Faces of the service show all of them and may answer any; the first
/// answer counts. If its turn comes and there is neither somebody to ask nor a face that shows it, the answer is no;
/// and so if the asker finds out later that it cannot ask.
///
/// Each phone, which is a key and not a name, has one question that is next and limits::questionsWaiting behind it;
/// more of its offers are declined. The phones take turns. An offer whose task is cancelled, because its phone has hung
/// up, takes its question with it. The same transfer offered again by the same phone is the same question, asked once
/// and with no more time: the newest of the connections gets the answer, and the others a no.
///
/// Threading: everything on the home's executor. Outlives the tasks of wants().
class OfferQueue {
public:
    /// The time until no answer counts as a no, from when the question is asked.
    static constexpr Seconds patience = 2min;
    /// The time between a question that the asker did not answer and the next one: an answer that is on its way must
    /// not be taken for one to that.
    static constexpr Seconds rest = 2s;

    /// `home` outlives this, and so does `asker`, which may be null.
    OfferQueue(Home& home, OfferAsker* asker);
    OfferQueue(const OfferQueue&) = delete;
    OfferQueue& operator=(const OfferQueue&) = delete;

    /// Whether to take this file. @throws platform::Cancelled
    [[nodiscard]] Task<bool> wants(Receiver::Offer offer);

    /// The open questions, in the order of their numbers.
    [[nodiscard]] std::vector<OfferView> open() const;
    /// Answers a question, also one that waits its turn. Returns whether it was open.
    [[nodiscard]] bool answer(OfferNumber number, bool isAccepted);
    /// As long as the result lives, there is somebody who sees the questions and can answer them.
    [[nodiscard]] std::shared_ptr<const void> onlooker() const { return onlookers_; }

    /// Called when open() has changed. May be empty. Must not throw.
    std::function<void()> onChanged;

private:
    struct Question {
        OfferView view;
        std::string name; ///< of the file, whole
        TransferId transferId;
        std::uint64_t newest = 0; ///< the offer that gets the answer
        bool isAsked = false;     ///< by the asker
        std::optional<bool> answer = {};
    };
    using QuestionRef = std::shared_ptr<Question>;
    class Presence;

    [[nodiscard]] QuestionRef questionFor(const Receiver::Offer& offer);
    [[nodiscard]] QuestionRef find(OfferNumber number) const;
    void goOnSoon();
    void goOn();
    void declineIfNobodySees(Question& question);
    void settle(Question& question, bool isAccepted);
    void endWithoutAsker(Question& question, OfferAsker::End end, bool isAccepted);
    void leaveLine(const Question& question);
    void changed();

    Home& home_;
    OfferAsker* const asker_;
    platform::Condition news_;
    std::unique_ptr<platform::Timer> timer_;             ///< for the end of the question, or of the rest before one
    std::map<PeerKey, std::deque<QuestionRef>> waiting_; ///< by phone, none empty; the one that is asked too
    std::deque<PeerKey> turns_;                          ///< those phones, whose turn is next first
    QuestionRef current_;
    platform::Clock::Instant restUntil_{};
    std::uint64_t lastOffer_ = 0;
    std::uint64_t lastNumber_ = 0;
    /// Shared with the onlookers, of whom nothing is known but their number.
    std::shared_ptr<const int> onlookers_ = std::make_shared<const int>(0);
    /// Shared with whoever may call back when this is gone.
    std::shared_ptr<const int> alive_ = std::make_shared<const int>(0);
};

} // namespace orlinth::host
