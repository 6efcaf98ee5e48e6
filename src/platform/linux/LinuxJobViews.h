#pragma once

#include "platform/JobViews.h"
#include "platform/Task.h"
#include "platform/linux/SessionBus.h"

#include <memory>

namespace orlinth::platform {

/// The job views of KDE Plasma, by the session's bus: org.kde.JobViewServer (interface org.kde.JobViewServerV2), and
/// for each job an object with org.kde.JobViewV3. Elsewhere every view is refused. Nobody is started for them.
///
/// Only the connection that shows a view is believed that it is to be cancelled. Titles are made fit for people here
/// (forDisplay()).
///
/// Threading: the executor's one thread. The connection to the bus begins with the first job and keeps the executor
/// running until this goes.
class LinuxJobViews final : public JobViews {
public:
    LinuxJobViews(const Executor& executor, BusEnvironment environment);
    ~LinuxJobViews() override;
    LinuxJobViews(const LinuxJobViews&) = delete;
    LinuxJobViews& operator=(const LinuxJobViews&) = delete;

    [[nodiscard]] std::unique_ptr<JobView> show(Job job, std::function<void()> onCancel) override;

private:
    struct Worker;
    class View;
    std::shared_ptr<Worker> worker_;
};

} // namespace orlinth::platform
