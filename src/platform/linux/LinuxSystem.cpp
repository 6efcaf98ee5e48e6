#include "platform/linux/LinuxSystem.h"

#include "platform/linux/LinuxBusSignals.h"
#include "platform/linux/LinuxClipboard.h"
#include "platform/linux/LinuxClock.h"
#include "platform/linux/LinuxDirectories.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/LinuxFirewall.h"
#include "platform/linux/LinuxFolderWatch.h"
#include "platform/linux/LinuxHttpsClient.h"
#include "platform/linux/LinuxLog.h"
#include "platform/linux/LinuxMachine.h"
#include "platform/linux/LinuxMimeTypes.h"
#include "platform/linux/LinuxNeighbours.h"
#include "platform/linux/LinuxNetwork.h"
#include "platform/linux/LinuxNetworkInterfaces.h"
#include "platform/linux/LinuxNetworkNews.h"
#include "platform/linux/LinuxNotifications.h"
#include "platform/linux/LinuxProbe.h"
#include "platform/linux/LinuxRoutes.h"
#include "platform/linux/LinuxServiceDiscovery.h"
#include "platform/linux/LinuxSleepNews.h"
#include "platform/linux/LinuxUnixSockets.h"
#include "platform/linux/LinuxUserServices.h"
#include "platform/linux/LinuxWorkQueues.h"

#include <cstdlib>

namespace orlinth::platform {
namespace {

const char* processEnvironment(const char* name) {
    return std::getenv(name);
}

} // namespace

struct LinuxSystem::Parts {
    explicit Parts(asio::io_context& context)
        : queues(context),
          network(context),
          https(context),
          notifications(context.get_executor(), processEnvironment),
          busSignals(context, processEnvironment) {}

    LinuxWorkQueues queues;
    LinuxNetwork network;
    LinuxClock clock;
    LinuxFileSystem files;
    LinuxMimeTypes mimeTypes{linuxDataDirectories(processEnvironment)};
    LinuxLog log;
    LinuxHttpsClient https;
    LinuxClipboard clipboard{[] { return currentDesktopSession(processEnvironment); }};
    LinuxNetworkInterfaces interfaces;
    LinuxNetworkNews networkNews;
    LinuxNeighbours neighbours;
    LinuxRoutes routes;
    LinuxProbe probe{clock};
    LinuxFirewall firewall{systemBusEnvironment};
    LinuxMachine machine;
    LinuxServiceDiscovery services;
    LinuxUnixSockets unixSockets;
    LinuxNotifications notifications;
    LinuxBusSignals busSignals;
    LinuxSleepNews sleepNews{systemBusEnvironment};
    LinuxUserServices userServices{processEnvironment};
    LinuxFolderWatcher folders;
    UserDirectories directories = linuxUserDirectories(processEnvironment);
};

LinuxSystem::LinuxSystem(asio::io_context& context) : parts_(std::make_unique<Parts>(context)) {}

LinuxSystem::~LinuxSystem() = default;

System LinuxSystem::system() {
    return {.network = parts_->network,
            .queues = parts_->queues,
            .clock = parts_->clock,
            .files = parts_->files,
            .mimeTypes = parts_->mimeTypes,
            .log = parts_->log,
            .https = parts_->https,
            .clipboard = parts_->clipboard,
            .interfaces = parts_->interfaces,
            .networkNews = parts_->networkNews,
            .neighbours = parts_->neighbours,
            .routes = parts_->routes,
            .probe = parts_->probe,
            .firewall = parts_->firewall,
            .machine = parts_->machine,
            .services = parts_->services,
            .unixSockets = parts_->unixSockets,
            .notifications = parts_->notifications,
            .busSignals = parts_->busSignals,
            .sleepNews = parts_->sleepNews,
            .userServices = parts_->userServices,
            .folders = parts_->folders,
            .directories = parts_->directories};
}

void LinuxSystem::close() {
    parts_->notifications.close();
}

bool LinuxSystem::isResolving() const noexcept {
    return parts_->network.isResolving();
}

} // namespace orlinth::platform
