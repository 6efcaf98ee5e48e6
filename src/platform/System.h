#pragma once

#include "platform/BusSignals.h"
#include "platform/Clipboard.h"
#include "platform/Clock.h"
#include "platform/Directories.h"
#include "platform/FileSystem.h"
#include "platform/Firewall.h"
#include "platform/FolderWatch.h"
#include "platform/HttpsClient.h"
#include "platform/Log.h"
#include "platform/Machine.h"
#include "platform/MimeTypes.h"
#include "platform/Neighbours.h"
#include "platform/Network.h"
#include "platform/NetworkInterfaces.h"
#include "platform/NetworkNews.h"
#include "platform/Notifications.h"
#include "platform/Probe.h"
#include "platform/Routes.h"
#include "platform/ServiceDiscovery.h"
#include "platform/SleepNews.h"
#include "platform/Storage.h"
#include "platform/UnixSockets.h"
#include "platform/UserServices.h"
#include "platform/WorkQueues.h"

namespace orlinth::platform {

/// Everything the core asks of the computer it runs on, chosen once in `main` (or by a test) and passed down: whole to
/// what puts others together, in pieces to these.
///
/// Owns nothing: what it refers to outlives every operation that was given it.
struct System {
    Network& network;
    WorkQueues& queues;
    Clock& clock;
    FileSystem& files;
    MimeTypes& mimeTypes;
    Log& log;
    HttpsClient& https;
    Clipboard& clipboard;
    NetworkInterfaces& interfaces;
    NetworkNews& networkNews;
    Neighbours& neighbours;
    Routes& routes;
    Probe& probe;
    Firewall& firewall;
    Machine& machine;
    ServiceDiscovery& services;
    UnixSockets& unixSockets;
    Notifications& notifications;
    BusSignals& busSignals;
    SleepNews& sleepNews;
    UserServices& userServices;
    FolderWatcher& folders;
    UserDirectories directories;

    /// For those that keep files.
    [[nodiscard]] Storage storage() const {
        return {.files = files, .folders = folders, .clock = clock, .log = log, .directories = directories};
    }
};

} // namespace orlinth::platform
