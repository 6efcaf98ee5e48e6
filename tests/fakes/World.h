#pragma once

#include "OrlinthCore/Peers/PeerRecord.h"
#include "fakes/FakeBusSignals.h"
#include "fakes/FakeClipboard.h"
#include "fakes/FakeFolderWatcher.h"
#include "fakes/FakeHttpsClient.h"
#include "fakes/FakeMachine.h"
#include "fakes/FakeMimeTypes.h"
#include "fakes/FakeNetworkInterfaces.h"
#include "fakes/FakeNotifications.h"
#include "fakes/FakeServiceDiscovery.h"
#include "fakes/FakeSleepNews.h"
#include "fakes/FakeUserServices.h"
#include "fakes/MemoryFileSystem.h"
#include "fakes/MemoryNeighbours.h"
#include "fakes/MemoryNetwork.h"
#include "fakes/MemoryNetworkNews.h"
#include "fakes/MemoryProbe.h"
#include "fakes/MemoryRoutes.h"
#include "fakes/MemoryUnixSockets.h"
#include "fakes/MemoryWorkQueues.h"
#include "fakes/RecordingLog.h"
#include "fakes/ScriptedPeer.h"
#include "fakes/VirtualClock.h"
#include "platform/System.h"

#include <stdexcept>

namespace orlinth::fakes {

/// A whole computer in memory, with time that moves by itself to wherever something happens next, and a phone's key.
struct World {
    World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;
    /// Nothing may be left behind: no task that waits, no alarm that would ring.
    ~World();

    asio::io_context context;
    VirtualClock clock{context};
    MemoryNetwork network{context};
    MemoryWorkQueues queues{context};
    MemoryFileSystem files;
    FakeMimeTypes mimeTypes;
    RecordingLog log;
    FakeHttpsClient https;
    FakeClipboard clipboard;
    FakeNetworkInterfaces interfaces;
    MemoryNetworkNews networkNews;
    MemoryNeighbours neighbours;
    MemoryRoutes routes;
    MemoryProbe probe{clock};
    FakeFirewall firewall{clock};
    FakeMachine machine;
    FakeServiceDiscovery services{clock};
    MemoryUnixSockets unixSockets{context};
    FakeNotifications notifications;
    FakeBusSignals busSignals;
    FakeSleepNews sleepNews;
    FakeUserServices userServices;
    FakeFolderWatcher folders;
    /// This computer, with another disk in it, which outlives what is given it.
    [[nodiscard]] platform::System systemOn(platform::FileSystem& disk);
    platform::System system = systemOn(files);
    platform::PrivateKey computerKey = platform::PrivateKey::generate();
    platform::PrivateKey phoneKey = platform::PrivateKey::generate();
    static constexpr std::uint16_t phonePort = 7000;

    [[nodiscard]] PeerRecord phoneRecord() const;

    /// Lets another task run beside those that follow; what escapes from it fails the test.
    void alongside(Task<> task);

    template <typename T>
    T run(Task<T> task) {
        return runVirtual(context, clock, std::move(task));
    }

    /// Runs a task that must throw an `E`, and returns that.
    template <typename E, typename T>
    E failure(Task<T> task) {
        try {
            static_cast<void>(runVirtual(context, clock, std::move(task)));
        } catch (const E& error) {
            return error;
        }
        throw std::logic_error("nothing was thrown");
    }

    int companionsRunning = 0;
};

} // namespace orlinth::fakes
