#pragma once

#include "platform/Neighbours.h"
#include "platform/SystemError.h"

#include <asio/post.hpp>

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace orlinth::fakes {

/// A neighbour table that a test fills. Whoever watches it hears of each change on its executor, not within the call
/// that makes it. One thread. Outlives its watches.
class MemoryNeighbours final : public platform::Neighbours {
public:
    ~MemoryNeighbours() override;
    [[nodiscard]] std::vector<platform::Neighbour> list() const override {
        throwIfBroken(listErrno);
        return entries_;
    }
    [[nodiscard]] std::unique_ptr<platform::NeighbourWatch>
    watch(Executor executor, std::function<void(const platform::NeighbourEvent&)> onEvent) override {
        throwIfBroken(watchErrno);
        auto watch = std::make_unique<Watch>(*this, std::move(executor), std::move(onEvent));
        watches_.push_back(watch.get());
        return watch;
    }

    /// An entry of an interface that is the second of its computer, as its only one besides loopback mostly is.
    [[nodiscard]] static platform::Neighbour entry(platform::IpAddress address, platform::NeighbourState state,
                                                   Bytes hardware = {}, std::string interface = "wlan0") {
        return {.address = std::move(address),
                .interfaceIndex = 2,
                .interface = std::move(interface),
                .hardware = std::move(hardware),
                .state = state,
                .confirmedAge = std::nullopt};
    }

    /// Adds an entry, or replaces the one of its address and interface.
    void put(const platform::Neighbour& entry) {
        if (const auto place = find(entry); place != entries_.end()) {
            *place = entry;
        } else {
            entries_.push_back(entry);
        }
        tell(platform::NeighbourChanged{.now = entry});
    }
    /// Nothing if there is no entry of this address and interface.
    void remove(const platform::Neighbour& entry) {
        if (const auto place = find(entry); place != entries_.end()) {
            const platform::Neighbour last = *place;
            entries_.erase(place);
            tell(platform::NeighbourGone{.last = last});
        }
    }
    /// All at once, so that whoever watches has lost the changes.
    void replaceAll(std::vector<platform::Neighbour> entries) {
        entries_ = std::move(entries);
        tell(platform::NeighboursAnew{.now = entries_});
    }

    [[nodiscard]] std::size_t watchCount() const noexcept { return watches_.size(); }

    std::optional<int> listErrno;  ///< list() fails with this error, if set
    std::optional<int> watchErrno; ///< watch() fails with this error, if set

private:
    using Action = std::function<void(const platform::NeighbourEvent&)>;

    struct Watch final : platform::NeighbourWatch {
        Watch(MemoryNeighbours& neighbours, Executor theExecutor, Action action)
            : owner(neighbours),
              executor(std::move(theExecutor)),
              onEvent(std::make_shared<Action>(std::move(action))) {}
        ~Watch() override { std::erase(owner.watches_, this); }
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

        MemoryNeighbours& owner;
        Executor executor;
        std::shared_ptr<Action> onEvent;
    };

    static void throwIfBroken(const std::optional<int>& number) {
        if (number) {
            throw platform::SystemError::fromErrno(*number);
        }
    }

    [[nodiscard]] std::vector<platform::Neighbour>::iterator find(const platform::Neighbour& entry) {
        return std::ranges::find_if(entries_, [&entry](const platform::Neighbour& other) {
            return other.address == entry.address && other.interfaceIndex == entry.interfaceIndex;
        });
    }

    void tell(const platform::NeighbourEvent& event) {
        for (const Watch* watch : watches_) {
            asio::post(watch->executor, [weak = std::weak_ptr(watch->onEvent), event] {
                if (const auto onEvent = weak.lock()) {
                    (*onEvent)(event);
                }
            });
        }
    }

    std::vector<platform::Neighbour> entries_;
    std::vector<Watch*> watches_;
};

} // namespace orlinth::fakes
