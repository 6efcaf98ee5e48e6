#pragma once

#include "platform/BusSignals.h"

#include <asio/post.hpp>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace orlinth::fakes {

/// A session's bus within one process. One call at a time, from any thread. Outlives its subscriptions.
class FakeBusSignals final : public platform::BusSignals {
public:
    ~FakeBusSignals() override;
    void post(const std::string& name) noexcept override {
        posted.push_back(name);
        if (!hasBus) {
            return;
        }
        for (const Subscription* subscription : subscriptions_) {
            if (subscription->name == name) {
                asio::post(subscription->executor, [state = std::weak_ptr(subscription->onSignal)] {
                    if (const auto onSignal = state.lock()) {
                        (*onSignal)();
                    }
                });
            }
        }
    }

    [[nodiscard]] std::unique_ptr<platform::SignalSubscription> listen(const std::string& name, Executor executor,
                                                                       std::function<void()> onSignal) override {
        auto subscription = std::make_unique<Subscription>(*this, name, std::move(executor), std::move(onSignal));
        subscriptions_.push_back(subscription.get());
        return subscription;
    }

    /// How many listen.
    [[nodiscard]] std::size_t listeners() const { return subscriptions_.size(); }

    bool hasBus = true;              ///< without one nobody hears anything
    std::vector<std::string> posted; ///< heard or not

private:
    struct Subscription final : platform::SignalSubscription {
        Subscription(FakeBusSignals& signals, std::string theName, Executor theExecutor, std::function<void()> action)
            : owner(signals),
              name(std::move(theName)),
              executor(std::move(theExecutor)),
              onSignal(std::make_shared<std::function<void()>>(std::move(action))) {}
        ~Subscription() override { std::erase(owner.subscriptions_, this); }
        Subscription(const Subscription&) = delete;
        Subscription& operator=(const Subscription&) = delete;

        FakeBusSignals& owner;
        std::string name;
        Executor executor;
        std::shared_ptr<std::function<void()>> onSignal;
    };

    std::vector<Subscription*> subscriptions_;
};

} // namespace orlinth::fakes
