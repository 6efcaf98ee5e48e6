#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "orlinth/Program/Host.h"
#include "platform/Condition.h"
#include "platform/linux/DescriptorWait.h"

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace orlinth::cli {

/// Asks the person at this computer whether to take a file that is offered: on the terminal, if standard input is one
/// and ours to read, else by a notification of the desktop. One question at a time; without anybody to ask, the answer
/// is no. All on the thread of `main`.
///
/// Each phone, which is a key and not a name, has one question that is next and limits::questionsWaiting behind it;
/// more of its offers are declined. The phones take turns. An offer whose task is cancelled, because its phone has hung
/// up, takes its question with it. The same transfer offered again by the same phone is the same question, asked once
/// and with no more time: the newest of the connections gets the answer, and the others a no.
class OfferQuestions {
public:
    /// The time until no answer counts as a no.
    static constexpr Seconds patience = 2min;
    /// The time between a question that was taken back and the next one: an answer that is on its way must not be taken
    /// for one to that.
    static constexpr Seconds rest = 2s;

    /// `host` outlives this.
    explicit OfferQuestions(Host& host);
    OfferQuestions(const OfferQuestions&) = delete;
    OfferQuestions& operator=(const OfferQuestions&) = delete;

    /// @throws platform::Cancelled
    [[nodiscard]] Task<bool> wants(Receiver::Offer offer);

private:
    /// Where a question was asked.
    enum class Asked { notYet, onTerminal, onDesktop };

    /// What is asked, or waits for its turn.
    struct Question {
        PeerKey peerKey;
        TransferId transferId;
        std::string name; ///< of the file
        std::int64_t size;
        std::string text;
        std::uint64_t tag;        ///< of its notification
        std::uint64_t newest = 0; ///< the offer that gets the answer
        Asked asked = Asked::notYet;
        bool isAttended = false; ///< one of its offers looks for the answer
        platform::Clock::Instant end{};
        std::optional<bool> answer = {};
        /// Shared: the desktop may answer when nobody waits any more.
        std::shared_ptr<std::optional<std::string>> pressed = std::make_shared<std::optional<std::string>>();
    };
    using QuestionRef = std::shared_ptr<Question>;
    class Presence;
    class Attendance;

    [[nodiscard]] QuestionRef questionFor(const Receiver::Offer& offer);
    [[nodiscard]] Task<> attend(QuestionRef question, std::uint64_t offer);
    void chooseNext();
    void ask(Question& question);
    void watchTerminal(Question& question, std::optional<platform::DescriptorWatch>& typing);
    [[nodiscard]] static Task<> untilTyped(platform::DescriptorWatch& typing, std::string& trouble);
    void declineWithoutTerminal(Question& question, const std::string& trouble);
    void lookForAnswer(Question& question);
    void settle(Question& question, bool isWanted);
    void takeBack(Question& question);
    void leaveLine(const Question& question);
    void giveTime(Question& question) const;
    [[nodiscard]] bool hasTime(const Question& question) const;
    [[nodiscard]] Seconds timeToNextLook(const Question& question) const;
    void tellThatNobodyIsThere();

    Host& host_;
    std::shared_ptr<platform::Condition> news_;          ///< shared: the desktop may answer when this is gone
    std::map<PeerKey, std::deque<QuestionRef>> waiting_; ///< by phone, none empty; the one that is asked too
    std::deque<PeerKey> turns_;                          ///< those phones, whose turn is next first
    QuestionRef current_;
    platform::Clock::Instant restUntil_{};
    std::uint64_t lastOffer_ = 0;
    std::uint64_t lastTag_ = 0;
    bool toldThatNobodyIsThere_ = false;
};

} // namespace orlinth::cli
