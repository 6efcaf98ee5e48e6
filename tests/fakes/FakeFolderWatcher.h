#pragma once

#include "platform/FolderWatch.h"
#include "platform/SystemError.h"

#include <asio/post.hpp>

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace orlinth::fakes {

/// Tells of a change when a test says that there was one. One thread. Outlives its watches.
class FakeFolderWatcher final : public platform::FolderWatcher {
public:
    ~FakeFolderWatcher() override;
    [[nodiscard]] std::unique_ptr<platform::FolderWatch> watch(const platform::Path& folder, Executor executor,
                                                               std::function<void()> onChange) override {
        if (errorNumber) {
            throw platform::SystemError::fromErrno(*errorNumber);
        }
        ++begun;
        auto watch = std::make_unique<Watch>(*this, folder, std::move(executor), std::move(onChange));
        watches_.push_back(watch.get());
        return watch;
    }

    /// Tells of every change in its folder.
    [[nodiscard]] std::unique_ptr<platform::FolderWatch> watchFile(const platform::Path& file, Executor executor,
                                                                   std::function<void()> onChange) override {
        return watch(file.parent_path(), std::move(executor), std::move(onChange));
    }

    /// A name in this folder has come or gone.
    void change(const platform::Path& folder) {
        for (const Watch* watch : watches_) {
            if (watch->folder == folder) {
                asio::post(watch->executor, [state = std::weak_ptr(watch->onChange)] {
                    if (const auto onChange = state.lock()) {
                        (*onChange)();
                    }
                });
            }
        }
    }

    /// Whether somebody watches this folder.
    [[nodiscard]] bool isWatched(const platform::Path& folder) const {
        return std::ranges::any_of(watches_, [&folder](const Watch* watch) { return watch->folder == folder; });
    }

    std::optional<int> errorNumber; ///< no folder can be watched, if set
    int begun = 0;                  ///< watches that were begun so far

private:
    struct Watch final : platform::FolderWatch {
        Watch(FakeFolderWatcher& watcher, platform::Path theFolder, Executor theExecutor, std::function<void()> action)
            : owner(watcher),
              folder(std::move(theFolder)),
              executor(std::move(theExecutor)),
              onChange(std::make_shared<std::function<void()>>(std::move(action))) {}
        ~Watch() override { std::erase(owner.watches_, this); }
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

        FakeFolderWatcher& owner;
        platform::Path folder;
        Executor executor;
        std::shared_ptr<std::function<void()>> onChange;
    };

    std::vector<Watch*> watches_;
};

} // namespace orlinth::fakes
