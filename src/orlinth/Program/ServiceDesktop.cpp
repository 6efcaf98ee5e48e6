#include "orlinth/Program/ServiceDesktop.h"

#include "OrlinthHost/Service/OpenableFile.h"
#include "orlinth/Program/DesktopOpener.h"
#include "platform/linux/SessionCalls.h"

#include <cstdlib>
#include <utility>

namespace orlinth::cli {

namespace {

const char* environmentVariable(const char* name) {
    return std::getenv(name);
}

void showFiles(const std::vector<platform::Path>& files, const std::string& token, platform::Log& log) {
    if (!platform::showInFileManager(environmentVariable, files, token)) {
        openOnDesktop(files.front().parent_path(), log, token);
    }
}

} // namespace

ServiceDesktop::ServiceDesktop(Host& host)
    : host_(host), clipboard_(host), chores_(host.system.queues, "orlinth.serve.opening") {}

void ServiceDesktop::show(std::vector<platform::Path> files, std::string token) {
    add([files = std::move(files), token = std::move(token), &log = host_.system.log] {
        showFiles(files, token, log);
    });
}

/// Looked at once more: somebody may have changed it since the notification was shown.
void ServiceDesktop::open(platform::Path file, std::string token) {
    add([file = std::move(file), token = std::move(token), &files = host_.system.files, &log = host_.system.log] {
        if (host::mayBeOpened(files, file)) {
            openOnDesktop(file, log, token);
        } else {
            showFiles({file}, token, log);
        }
    });
}

void ServiceDesktop::openLink(std::string address, std::string token) {
    add([address = std::move(address), token = std::move(token), &log = host_.system.log] {
        openLinkOnDesktop(address, log, token);
    });
}

/// Where it is not installed, nothing happens.
void ServiceDesktop::raiseWindow(std::string token) {
    add([token = std::move(token)] { static_cast<void>(platform::activateApplication(environmentVariable, token)); });
}

void ServiceDesktop::copy(std::string text, std::function<void(bool isThere)> onDone) {
    if (!isFinished_) {
        clipboard_.write(std::move(text), std::move(onDone));
    }
}

Task<> ServiceDesktop::finish() {
    isFinished_ = true;
    co_await clipboard_.finish();
    co_await chores_.finish();
}

void ServiceDesktop::add(std::function<void()> chore) {
    if (!isFinished_) {
        chores_.add(std::move(chore));
    }
}

} // namespace orlinth::cli
