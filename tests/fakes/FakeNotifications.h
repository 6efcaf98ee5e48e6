#pragma once

#include "platform/Notifications.h"

#include <asio/post.hpp>

#include <algorithm>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace orlinth::fakes {

/// A desktop that keeps what it is asked to show, and answers as a test says.
class FakeNotifications final : public platform::Notifications {
public:
    ~FakeNotifications() override;
    struct Shown {
        platform::Notification notification;
        Executor executor;
        OnAnswer onAnswer;
        bool isThere = true; ///< neither closed nor replaced, nor answered for good
    };

    [[nodiscard]] bool isAvailable() override { return available; }

    void show(platform::Notification notification, Executor executor, OnAnswer onAnswer) override {
        for (Shown& before : shown) {
            if (notification.tag != 0 && before.isThere && before.notification.tag == notification.tag) {
                before.isThere = false;
                before.onAnswer = nullptr;
            }
        }
        shown.push_back({std::move(notification), std::move(executor), std::move(onAnswer)});
        if (!available || failsToShow) {
            refuse(shown.size() - 1);
        }
    }

    void withdraw(std::uint64_t tag) override {
        withdrawn.push_back(tag);
        for (std::size_t i = 0; i < shown.size(); ++i) {
            if (tag != 0 && shown[i].notification.tag == tag) {
                answer(i, "");
            }
        }
    }

    /// The user presses a button of one of `shown`, or closes it (""). Of one that is gone nothing comes.
    void answer(std::size_t index, const std::string& key, const std::string& token = "") {
        Shown& one = shown.at(index);
        OnAnswer onAnswer = one.onAnswer;
        if (key.empty() || !one.notification.isResident) {
            one.onAnswer = nullptr;
            one.isThere = false;
        }
        if (onAnswer) {
            asio::post(one.executor, [onAnswer = std::move(onAnswer),
                                      answer = platform::NotificationAnswer{key, token}] { onAnswer(answer); });
        }
    }

    /// What is said of one of `shown` that never got onto the screen.
    void refuse(std::size_t index) {
        Shown& one = shown.at(index);
        one.isThere = false;
        if (OnAnswer onAnswer = std::exchange(one.onAnswer, nullptr)) {
            asio::post(one.executor, [onAnswer = std::move(onAnswer)] { onAnswer({.wasShown = false}); });
        }
    }

    /// What is on the screen: the places in `shown`.
    [[nodiscard]] std::vector<std::size_t> there() const {
        std::vector<std::size_t> found;
        for (std::size_t i = 0; i < shown.size(); ++i) {
            if (shown[i].isThere) {
                found.push_back(i);
            }
        }
        return found;
    }

    bool available = true;
    bool failsToShow = false; ///< though it seems to be available
    std::vector<Shown> shown;
    std::vector<std::uint64_t> withdrawn; ///< tags
};

} // namespace orlinth::fakes
