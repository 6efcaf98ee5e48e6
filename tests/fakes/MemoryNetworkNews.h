#pragma once

#include "platform/NetworkNews.h"
#include "platform/SystemError.h"

#include <asio/post.hpp>

#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace orlinth::fakes {

/// News of a network that a test makes. Whoever watches hears of them on its executor, not within the call. One
/// thread. Outlives its watches.
class MemoryNetworkNews final : public platform::NetworkNews {
public:
    ~MemoryNetworkNews() override;
    [[nodiscard]] std::unique_ptr<platform::NetworkWatch> watch(Executor executor,
                                                                std::function<void()> onChange) override {
        if (watchErrno) {
            throw platform::SystemError::fromErrno(*watchErrno);
        }
        auto watch = std::make_unique<Watch>(*this, std::move(executor), std::move(onChange));
        watches_.push_back(watch.get());
        return watch;
    }

    /// Something has changed.
    void tell() {
        for (const Watch* watch : watches_) {
            asio::post(watch->executor, [weak = std::weak_ptr(watch->onChange)] {
                if (const auto onChange = weak.lock()) {
                    (*onChange)();
                }
            });
        }
    }

    [[nodiscard]] std::size_t watchCount() const noexcept { return watches_.size(); }

    std::optional<int> watchErrno; ///< watch() fails with this error, if set

private:
    using Action = std::function<void()>;

    struct Watch final : platform::NetworkWatch {
        Watch(MemoryNetworkNews& news, Executor theExecutor, Action action)
            : owner(news), executor(std::move(theExecutor)), onChange(std::make_shared<Action>(std::move(action))) {}
        ~Watch() override { std::erase(owner.watches_, this); }
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

        MemoryNetworkNews& owner;
        Executor executor;
        std::shared_ptr<Action> onChange;
    };

    std::vector<Watch*> watches_;
};

} // namespace orlinth::fakes
