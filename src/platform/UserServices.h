#pragma once

#include <string>

namespace orlinth::platform {

/// A program that works in the background for a user, under the names by which others start it.
struct UserService {
    std::string busName; ///< its name on the session's bus
    std::string unit;    ///< what the user's service manager calls it
};

/// What has come of asking for a service.
struct ServiceStart {
    enum class Outcome {
        running, ///< it runs now
        unknown, ///< nobody here starts services, or whoever does has none of this name
        failed,  ///< it was asked for and does not run, for `problem`
    };

    Outcome outcome = Outcome::unknown;
    std::string problem = {}; ///< in the words of whoever tried

    friend bool operator==(const ServiceStart&, const ServiceStart&) = default;
};

/// Whoever starts programs for this user that work in the background. No call fails otherwise than by what it returns.
///
/// Threading: any thread. Calls block until the service does its work, or does not: usually well below a second, and
/// less than a minute where nobody answers in time.
class UserServices {
public:
    virtual ~UserServices() = default;
    /// Starts the service now, if it does not run yet.
    [[nodiscard]] virtual ServiceStart start(const UserService& service) = 0;
    /// Has the service manager start it now, and from now on whenever the user logs in.
    [[nodiscard]] virtual ServiceStart enable(const UserService& service) = 0;
};

} // namespace orlinth::platform
