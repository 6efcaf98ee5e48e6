#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "orlinth/Host.h"
#include "platform/AsyncMutex.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace orlinth::host {

/// Asks the person at this computer whether to take a file that is offered: on the terminal, if standard input is one
/// and ours to read, else by a notification of the desktop. One question at a time; without anybody to ask, the answer
/// is no. All on the thread of `main`.
///
/// A phone that has hung up is noticed only when it is answered. So an offer of the same file by the same phone is the
/// same question, asked once: the newest of the connections gets the answer, and the others a no.
class OfferQuestions {
public:
    /// Seconds until no answer counts as a no.
    static constexpr double patience = 120;

    /// `host` outlives this.
    explicit OfferQuestions(Host& host) : host_(host), turn_(host.tasks.executor()) {}

    /// @throws platform::Cancelled
    [[nodiscard]] Task<bool> wants(Receiver::Offer offer);

private:
    /// What is asked, or waits for its turn.
    struct Question {
        std::string text;
        std::uint64_t newest = 0; ///< the offer that gets the answer
        platform::Clock::Instant end{0};
        std::optional<bool> answer;
    };
    using Questions = std::map<std::string, std::shared_ptr<Question>>;

    [[nodiscard]] Task<> ask(std::shared_ptr<Question> question);
    [[nodiscard]] Task<> askOnTerminal(std::shared_ptr<Question> question);
    [[nodiscard]] Task<> askOnDesktop(std::shared_ptr<Question> question);
    [[nodiscard]] Task<bool> waitFor(std::shared_ptr<Question> question, std::uint64_t offer);
    void giveTime(Question& question) const;
    [[nodiscard]] bool hasTime(const Question& question) const;
    void tellThatNobodyIsThere();

    Host& host_;
    platform::AsyncMutex turn_;
    Questions open_; ///< by their text
    std::uint64_t lastOffer_ = 0;
    bool toldThatNobodyIsThere_ = false;
};

} // namespace orlinth::host
