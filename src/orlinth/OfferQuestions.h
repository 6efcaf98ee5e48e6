#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "orlinth/Host.h"
#include "platform/AsyncMutex.h"

namespace orlinth::host {

/// Asks the person at this computer whether to take a file that is offered: on the terminal, if standard input is one
/// and ours to read, else by a notification of the desktop. One question at a time; without anybody to ask, the answer
/// is no. All on the thread of `main`.
class OfferQuestions {
public:
    /// Seconds until no answer counts as a no.
    static constexpr double patience = 120;

    /// `host` outlives this.
    explicit OfferQuestions(Host& host) : host_(host), turn_(host.tasks.executor()) {}

    /// @throws platform::Cancelled
    [[nodiscard]] Task<bool> wants(Receiver::Offer offer);

private:
    [[nodiscard]] Task<bool> askOnTerminal(std::string question);
    [[nodiscard]] Task<bool> askOnDesktop(std::string question);
    void tellThatNobodyIsThere();

    Host& host_;
    platform::AsyncMutex turn_;
    bool toldThatNobodyIsThere_ = false;
};

} // namespace orlinth::host
