#pragma once

#include "platform/Notifications.h"

#include <asio/post.hpp>

#include <stdexcept>
#include <utility>
#include <vector>

namespace orlinth::fakes {

/// A desktop that keeps what it is asked to show, and answers as a test says.
class FakeNotifications final : public platform::Notifications {
public:
    struct Shown {
        platform::Notification notification;
        Executor executor;
        std::function<void(const std::string&)> onAnswer;
    };

    [[nodiscard]] bool isAvailable() override { return available; }

    void show(platform::Notification notification, Executor executor,
              std::function<void(const std::string&)> onAnswer) override {
        shown.push_back({std::move(notification), std::move(executor), std::move(onAnswer)});
        if (!available) {
            answer(shown.size() - 1, "");
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

    /// The user presses a button of one of `shown`, or closes it (""). Once each.
    void answer(std::size_t index, const std::string& key) {
        auto onAnswer = std::exchange(shown.at(index).onAnswer, nullptr);
        if (onAnswer) {
            asio::post(shown.at(index).executor, [onAnswer = std::move(onAnswer), key] { onAnswer(key); });
        }
    }

    bool available = true;
    std::vector<Shown> shown;
    std::vector<std::uint64_t> withdrawn; ///< tags
};

} // namespace orlinth::fakes
