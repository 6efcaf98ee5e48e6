#pragma once

#include "orlinth/Program/Host.h"

#include <string>

namespace orlinth::cli {

/// The question whether both screens show the same confirmation code. Nothing else stands between a pairing and
/// somebody who answers in the phone's place, so that only a yes typed after the question counts.
class Confirmation {
public:
    /// Where the answer comes from: standard input, or the terminal itself where that was used up otherwise. With
    /// `isGiven`, nobody is asked. @throws host::HostError if there is nobody to ask
    Confirmation(Host& host, bool isGiven, bool standardInputIsUsedUp);
    ~Confirmation();
    Confirmation(const Confirmation&) = delete;
    Confirmation& operator=(const Confirmation&) = delete;

    /// Asks about the one of this name, on standard error; returns if the answer is yes. An end of input is a no.
    /// @throws host::HostError for a no; Interrupted
    void require(const std::string& name);

private:
    [[nodiscard]] bool asksForYes(const std::string& question);

    Host& host_;
    bool isGiven_;
    int descriptor_;
};

} // namespace orlinth::cli
