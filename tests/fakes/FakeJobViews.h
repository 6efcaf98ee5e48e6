#pragma once

#include "platform/JobViews.h"

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace orlinth::fakes {

/// A desktop that shows jobs, or not, as a test says.
class FakeJobViews final : public platform::JobViews {
public:
    ~FakeJobViews() override;
    struct Shown {
        platform::JobView::State state;
        std::vector<platform::Job> jobs; ///< one after the other
        std::function<void()> onCancel;
        bool isEnded = false;
        std::string failure = {};
    };

    /// What a new view is at first.
    platform::JobView::State first = platform::JobView::State::shown;
    std::vector<std::shared_ptr<Shown>> all;

    [[nodiscard]] std::unique_ptr<platform::JobView> show(platform::Job job, std::function<void()> onCancel) override {
        all.push_back(
            std::make_shared<Shown>(Shown{.state = first, .jobs = {std::move(job)}, .onCancel = std::move(onCancel)}));
        return std::make_unique<View>(all.back());
    }

private:
    class View final : public platform::JobView {
    public:
        explicit View(std::shared_ptr<Shown> shown) : shown_(std::move(shown)) {}
        ~View() override { shown_->isEnded = true; }
        View(const View&) = delete;
        View& operator=(const View&) = delete;
        [[nodiscard]] State state() const noexcept override { return shown_->state; }
        void update(const platform::Job& job) override { shown_->jobs.push_back(job); }
        void fail(const std::string& why) override { shown_->failure = why; }

    private:
        std::shared_ptr<Shown> shown_;
    };
};

} // namespace orlinth::fakes
