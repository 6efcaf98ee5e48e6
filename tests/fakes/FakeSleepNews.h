#pragma once

#include "platform/SleepNews.h"

#include <asio/post.hpp>

#include <memory>
#include <utility>
#include <vector>

namespace orlinth::fakes {

/// A computer that wakes up when a test says so. Whoever watches hears of it on its executor, not within the call. One
/// thread. Outlives its watches.
class FakeSleepNews final : public platform::SleepNews {
public:
    ~FakeSleepNews() override;
    [[nodiscard]] std::unique_ptr<platform::SleepWatch> watch(Executor executor,
                                                              std::function<void()> onWake) override {
        auto watch = std::make_unique<Watch>(*this, std::move(executor), std::move(onWake));
        watches_.push_back(watch.get());
        return watch;
    }

    void wake() {
        for (const Watch* watch : watches_) {
            asio::post(watch->executor, [weak = std::weak_ptr(watch->onWake)] {
                if (const auto onWake = weak.lock()) {
                    (*onWake)();
                }
            });
        }
    }

    [[nodiscard]] std::size_t watchCount() const noexcept { return watches_.size(); }

private:
    using Action = std::function<void()>;

    struct Watch final : platform::SleepWatch {
        Watch(FakeSleepNews& news, Executor theExecutor, Action action)
            : owner(news), executor(std::move(theExecutor)), onWake(std::make_shared<Action>(std::move(action))) {}
        ~Watch() override { std::erase(owner.watches_, this); }
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

        FakeSleepNews& owner;
        Executor executor;
        std::shared_ptr<Action> onWake;
    };

    std::vector<Watch*> watches_;
};

} // namespace orlinth::fakes
