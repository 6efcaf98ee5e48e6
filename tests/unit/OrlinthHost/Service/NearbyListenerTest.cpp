#include "OrlinthHost/Service/NearbyListener.h"

#include "fakes/ReceiverWorld.h"

#include <gmock/gmock.h>

namespace orlinth::host {
namespace {

using fakes::ScriptedListener;

TEST(NearbyListener, LetsInWhoIsNearAndClosesTheConnectionsOfOthers) {
    fakes::World world;
    const Executor executor = world.context.get_executor();
    const auto door = std::make_shared<ScriptedListener::Door>(executor);
    std::vector<std::string> farAway;
    NearbyListener listener(std::make_unique<ScriptedListener>(door), world.interfaces,
                            [&farAway](const std::string& endpoint) { farAway.push_back(endpoint); });
    std::vector<std::unique_ptr<fakes::MemoryStream>> callers;
    for (const char* endpoint : {"8.8.8.8:1", "[2001:db8::1]:2", "[::ffff:8.8.4.4]:3", "192.168.1.9:4"}) {
        auto ends = fakes::connectedStreams(executor, {}, {}, endpoint);
        callers.push_back(std::move(ends.first));
        door->push(std::move(ends.second));
    }
    const std::unique_ptr<platform::Stream> accepted = world.run(listener.accept(executor));
    EXPECT_EQ("192.168.1.9:4", accepted->remoteEndpoint());
    EXPECT_THAT(farAway, testing::ElementsAre("8.8.8.8:1", "[2001:db8::1]:2", "[::ffff:8.8.4.4]:3"));
    EXPECT_TRUE(callers[0]->hasEnded() && callers[1]->hasEnded() && callers[2]->hasEnded());
    EXPECT_FALSE(callers[3]->hasEnded());
    EXPECT_EQ(7100, listener.port());
    listener.close();
    EXPECT_TRUE(door->closed);
}

} // namespace
} // namespace orlinth::host
