#pragma once

#include "OrlinthHost/Service/OfferAsker.h"
#include "orlinth/Program/Host.h"
#include "platform/TaskGroup.h"
#include "platform/linux/DescriptorWait.h"

#include <memory>
#include <optional>
#include <string>

namespace orlinth::cli {

/// Asks the person at this computer whether to take a file that is offered: on the terminal, if standard input is one
/// and ours to read, else by a notification of the desktop. host::OfferQueue says what is asked and when. All on the
/// thread of `main`.
class OfferQuestions final : public host::OfferAsker {
public:
    /// `host` outlives this.
    explicit OfferQuestions(Host& host) : host_(host), typing_(host.tasks.executor()) {}
    OfferQuestions(const OfferQuestions&) = delete;
    OfferQuestions& operator=(const OfferQuestions&) = delete;
    ~OfferQuestions() override = default;

    [[nodiscard]] bool ask(const host::OfferView& offer, Answer answer) override;
    void over(host::OfferNumber number, End end) override;
    void nobodyIsThere() override;

private:
    /// Where the question was asked that was asked last.
    struct Asked {
        host::OfferNumber number{};
        /// What waits for a line on the terminal; nothing: the desktop has it.
        std::optional<platform::TaskGroup::Id> typing = {};
    };

    void askOnTerminal(host::OfferNumber number, const std::string& text, const Answer& answer);
    void askOnDesktop(host::OfferNumber number, platform::Notification question, Answer answer);
    /// Refers to nothing of this object: it may end a little later.
    [[nodiscard]] static Task<> awaitLine(Host& host, std::unique_ptr<platform::DescriptorWatch> typing, Answer answer);
    static void declineWithoutTerminal(Host& host, const Answer& answer, const std::string& trouble);

    Host& host_;
    platform::TaskGroup typing_;
    std::optional<Asked> asked_;
    bool toldThatNobodyIsThere_ = false;
};

} // namespace orlinth::cli
