#pragma once

#include "base/Progress.h"
#include "platform/FileSystem.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace orlinth::platform {

/// Something that takes long, and how far it is.
struct Job {
    std::string title;
    int percent = 0;
    Progress bytes = {};             ///< nothing of 0 while that is not known
    std::int64_t bytesPerSecond = 0; ///< 0 while that is not known
    Path folder = {};                ///< where it goes; "" if it goes elsewhere
};

/// One job on the desktop. Destroying it takes it away, as done.
///
/// Threading: as JobViews.
class JobView {
public:
    enum class State {
        asked, ///< nobody has answered yet
        shown,
        refused ///< nobody shows it, or not any more
    };

    virtual ~JobView() = default;
    [[nodiscard]] virtual State state() const noexcept = 0;
    /// Shows this from now on.
    virtual void update(const Job& job) = 0;
    /// It has failed, and whoever looks is told so in these words. The last call.
    virtual void fail(const std::string& why) = 0;
};

/// Where a desktop shows what takes long, besides its notifications. Calls never throw, and return at once.
///
/// Threading: the thread that runs the host's context. Outlives its views.
class JobViews {
public:
    virtual ~JobViews() = default;
    /// Asks for a view. `onCancel` is called when somebody wants the job to end, perhaps several times; it may destroy
    /// the view.
    [[nodiscard]] virtual std::unique_ptr<JobView> show(Job job, std::function<void()> onCancel) = 0;
};

} // namespace orlinth::platform
