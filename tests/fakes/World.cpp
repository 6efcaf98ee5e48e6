#include "fakes/World.h"

#include "platform/Spawn.h"

#include <gtest/gtest.h>

namespace orlinth::fakes {

World::World() = default;

World::~World() {
    runUntilIdle(context, clock);
    EXPECT_EQ(companionsRunning, 0) << "a task is left behind";
    EXPECT_EQ(clock.pendingAlarms(), 0U);
}

platform::System World::systemOn(platform::FileSystem& disk) {
    return {.network = network,
            .queues = queues,
            .clock = clock,
            .files = disk,
            .mimeTypes = mimeTypes,
            .log = log,
            .https = https,
            .clipboard = clipboard,
            .interfaces = interfaces,
            .networkNews = networkNews,
            .neighbours = neighbours,
            .routes = routes,
            .probe = probe,
            .firewall = firewall,
            .machine = machine,
            .services = services,
            .unixSockets = unixSockets,
            .notifications = notifications,
            .busSignals = busSignals,
            .sleepNews = sleepNews,
            .userServices = userServices,
            .folders = folders,
            .directories = {
                .data = "/home/ann/.local/share", .config = "/home/ann/.config", .downloads = "/home/ann/Downloads"}};
}

PeerRecord World::phoneRecord() const {
    PeerRecord record;
    record.peer_pubkey = phoneKey.publicKey().peerKey();
    record.peer_ip = "203.0.113.2";
    record.peer_port = phonePort;
    record.peer_hostname = "Pixel-8";
    return record;
}

void World::alongside(Task<> task) {
    ++companionsRunning;
    platform::spawn(context.get_executor(), std::move(task), [this](const std::exception_ptr& error) {
        --companionsRunning;
        EXPECT_FALSE(error) << describe(error);
    });
}

} // namespace orlinth::fakes
