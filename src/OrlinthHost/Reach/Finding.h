#pragma once

#include "OrlinthHost/Reach/CauseWords.h"
#include "base/Json.h"
#include "base/StrongText.h"

#include <string>

namespace orlinth::host {

/// What one check of a diagnosis has found.
struct Finding {
    /// What was looked at, in the order in which it is reported.
    enum class Check { computer, service, firewall, downloads, phone, waking, arrival };
    enum class Status {
        ok,
        warning,    ///< it works, but not all of it
        problem,    ///< it does not work
        notMeasured ///< nothing can be said
    };

    Check check = Check::computer;
    Status status = Status::notMeasured;
    Cause cause = Cause::none;      ///< of a warning or a problem
    CauseDetails details = {};      ///< for the words about the cause
    std::string remark = {};        ///< what is shown instead of the words about the cause, if not ""; safe to show
    std::string phone = {};         ///< of a phone: its name
    PeerKey peerKey = {};           ///< of a phone
    bool isAside = false;           ///< of no interest to people while nothing is wrong
    bool isUnanswered = false;      ///< not measured, and nothing that was found explains that
    Json evidence = Json::object(); ///< what was seen, for scripts and those who want to know
    Seconds duration{};
};

/// A name that never changes, for scripts: "computer".
[[nodiscard]] constexpr const char* idOf(Finding::Check check) noexcept {
    switch (check) {
    case Finding::Check::computer:
        return "computer";
    case Finding::Check::service:
        return "service";
    case Finding::Check::firewall:
        return "firewall";
    case Finding::Check::downloads:
        return "downloads";
    case Finding::Check::phone:
        return "phone";
    case Finding::Check::waking:
        return "waking";
    case Finding::Check::arrival:
        return "arrival";
    }
    return "";
}

/// Likewise: "not_measured".
[[nodiscard]] constexpr const char* idOf(Finding::Status status) noexcept {
    switch (status) {
    case Finding::Status::ok:
        return "ok";
    case Finding::Status::warning:
        return "warning";
    case Finding::Status::problem:
        return "problem";
    case Finding::Status::notMeasured:
        return "not_measured";
    }
    return "";
}

} // namespace orlinth::host
