#include "platform/linux/LinuxSystem.h"

#include "platform/linux/LinuxClock.h"
#include "platform/linux/LinuxDirectories.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/LinuxLog.h"
#include "platform/linux/LinuxMimeTypes.h"
#include "platform/linux/LinuxNetwork.h"

#include <cstdlib>

namespace orlinth::platform {
namespace {

const char* processEnvironment(const char* name) {
    return std::getenv(name);
}

} // namespace

struct LinuxSystem::Parts {
    explicit Parts(asio::io_context& context) : network(context) {}

    LinuxNetwork network;
    LinuxClock clock;
    LinuxFileSystem files;
    LinuxMimeTypes mimeTypes{linuxDataDirectories(processEnvironment)};
    LinuxLog log;
    UserDirectories directories = linuxUserDirectories(processEnvironment);
};

LinuxSystem::LinuxSystem(asio::io_context& context) : parts_(std::make_unique<Parts>(context)) {}

LinuxSystem::~LinuxSystem() = default;

System LinuxSystem::system() {
    return {parts_->network, parts_->clock, parts_->files, parts_->mimeTypes, parts_->log, parts_->directories};
}

bool LinuxSystem::isResolving() const noexcept {
    return parts_->network.isResolving();
}

} // namespace orlinth::platform
