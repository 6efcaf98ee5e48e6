#pragma once

#include "OrlinthHost/Chores.h"
#include "OrlinthHost/Service/DesktopActions.h"
#include "orlinth/Program/ClipboardWriter.h"
#include "orlinth/Program/Host.h"

#include <functional>
#include <string>
#include <vector>

namespace orlinth::cli {

/// What the service does on the desktop: by the session's bus where that has somebody for it, else by the programs of
/// the desktop. What may take its time is done on a thread of its own. On the thread of `main`.
class ServiceDesktop final : public host::DesktopActions {
public:
    /// `host` outlives this.
    explicit ServiceDesktop(Host& host);
    ServiceDesktop(const ServiceDesktop&) = delete;
    ServiceDesktop& operator=(const ServiceDesktop&) = delete;

    void show(std::vector<platform::Path> files, std::string token) override;
    void open(platform::Path file, std::string token) override;
    void openLink(std::string address, std::string token) override;
    void raiseWindow(std::string token) override;
    void copy(std::string text, std::function<void(bool isThere)> onDone) override;
    [[nodiscard]] Task<> finish() override;

private:
    void add(std::function<void()> chore);

    Host& host_;
    ClipboardWriter clipboard_;
    host::Chores chores_;
    bool isFinished_ = false;
};

} // namespace orlinth::cli
