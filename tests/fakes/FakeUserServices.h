#pragma once

#include "platform/UserServices.h"

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace orlinth::fakes {

/// Starts services in memory: nobody knows any, until a test says what comes of it. Any thread.
class FakeUserServices final : public platform::UserServices {
public:
    ~FakeUserServices() override;
    [[nodiscard]] platform::ServiceStart start(const platform::UserService& service) override {
        return answer("start " + service.busName + " " + service.unit);
    }
    [[nodiscard]] platform::ServiceStart enable(const platform::UserService& service) override {
        return answer("enable " + service.unit);
    }

    /// What was asked for, in its order.
    [[nodiscard]] std::vector<std::string> asked() const {
        const std::lock_guard guard(lock_);
        return asked_;
    }

    platform::ServiceStart outcome; ///< of every call
    /// What a call does besides. May be empty.
    std::function<void()> onAsked;

private:
    platform::ServiceStart answer(std::string question) {
        const std::lock_guard guard(lock_);
        asked_.push_back(std::move(question));
        if (onAsked) {
            onAsked();
        }
        return outcome;
    }

    mutable std::mutex lock_;
    std::vector<std::string> asked_;
};

} // namespace orlinth::fakes
