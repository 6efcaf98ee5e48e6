#include "fakes/MemoryNeighbours.h"
#include "fakes/MemoryNetworkNews.h"
#include "fakes/MemoryProbe.h"
#include "fakes/MemoryRoutes.h"
#include "fakes/RunTask.h"
#include "fakes/VirtualClock.h"

#include <gmock/gmock.h>

#include <cerrno>

/// The twins of neighbours, routes and probes keep the promises that the interfaces make.
namespace orlinth::fakes {
namespace {

using platform::IpAddress;
using platform::Neighbour;
using platform::NeighbourEvent;
using platform::NeighbourState;
using platform::ProbeFailure;
using platform::ProbeResult;
using platform::ProbeTimeout;
using platform::Stream;

const IpAddress phone = platform::Ipv4Address{192, 168, 7, 30};
const IpAddress router = platform::Ipv4Address{192, 168, 7, 1};

int codeOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const platform::SystemError& error) {
        return error.code().value();
    }
    return 0;
}

TEST(MemoryNetworkNews, AreToldOnTheExecutorUntilNobodyWatches) {
    asio::io_context context;
    MemoryNetworkNews news;
    int told = 0;
    auto watch = news.watch(context.get_executor(), [&told] { ++told; });
    EXPECT_EQ(news.watchCount(), 1u);
    news.tell();
    EXPECT_EQ(told, 0);
    context.run();
    EXPECT_EQ(told, 1);
    news.tell();
    watch.reset();
    context.restart();
    context.run();
    EXPECT_EQ(told, 1);
    EXPECT_EQ(news.watchCount(), 0u);
    news.watchErrno = EMFILE;
    EXPECT_EQ(codeOf([&] { watch = news.watch(context.get_executor(), [] {}); }), EMFILE);
}

TEST(MemoryNeighbours, TellsOfWhatIsPutRemovedAndReplacedAndNotWithinTheCall) {
    asio::io_context context;
    MemoryNeighbours neighbours;
    std::vector<NeighbourEvent> events;
    auto watch =
        neighbours.watch(context.get_executor(), [&](const NeighbourEvent& event) { events.push_back(event); });
    EXPECT_EQ(neighbours.watchCount(), 1u);
    const Neighbour stale = MemoryNeighbours::entry(phone, NeighbourState::stale);
    const Neighbour failed = MemoryNeighbours::entry(phone, NeighbourState::failed);
    neighbours.put(stale);
    neighbours.put(failed);
    EXPECT_THAT(neighbours.list(), testing::ElementsAre(failed));
    neighbours.remove(stale);
    neighbours.remove(stale); // it is gone already
    neighbours.replaceAll({stale});
    EXPECT_TRUE(events.empty());
    context.run();
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(std::get<platform::NeighbourChanged>(events[0]).now, stale);
    EXPECT_EQ(std::get<platform::NeighbourChanged>(events[1]).now, failed);
    EXPECT_EQ(std::get<platform::NeighbourGone>(events[2]).last, failed);
    EXPECT_THAT(std::get<platform::NeighboursAnew>(events[3]).now, testing::ElementsAre(stale));

    neighbours.put(failed);
    watch.reset();
    context.restart();
    context.run();
    EXPECT_EQ(events.size(), 4u) << "a watch that has ended is told nothing, not even what was under way";
    EXPECT_EQ(neighbours.watchCount(), 0u);
}

TEST(MemoryNeighbours, FailsAsATestSays) {
    asio::io_context context;
    MemoryNeighbours neighbours;
    neighbours.listErrno = ENOBUFS;
    neighbours.watchErrno = EMFILE;
    EXPECT_EQ(codeOf([&] { static_cast<void>(neighbours.list()); }), ENOBUFS);
    EXPECT_EQ(codeOf([&] { static_cast<void>(neighbours.watch(context.get_executor(), {})); }), EMFILE);
}

TEST(MemoryRoutes, LeadWhereATestSays) {
    MemoryRoutes routes;
    routes.putOnLink(phone);
    EXPECT_TRUE(std::get<platform::Route>(routes.to(phone)).isOnLink());
    routes.putVia(phone, router);
    EXPECT_EQ(std::get<platform::Route>(routes.to(phone)).gateway, router);
    EXPECT_FALSE(std::get<platform::Route>(routes.to(phone)).isOnLink());
    routes.putOwn(phone);
    EXPECT_TRUE(std::get<platform::Route>(routes.to(phone)).isThisComputer);
    routes.close(phone, EACCES);
    EXPECT_EQ(std::get<platform::NoRoute>(routes.to(phone)).code.value(), EACCES);
    EXPECT_EQ(std::get<platform::NoRoute>(routes.to(router)).code.value(), ENETUNREACH);
    EXPECT_THAT(routes.asked, testing::ElementsAre(phone, phone, phone, phone, phone, router));
    routes.errorNumber = EMFILE;
    EXPECT_EQ(codeOf([&] { static_cast<void>(routes.to(phone)); }), EMFILE);
}

class MemoryProbeTest : public testing::Test {
protected:
    ProbeResult probed(std::uint16_t port, Seconds limit = 2s) {
        return runVirtual(context, clock, probe.connect(phone, port, limit, context.get_executor()));
    }

    asio::io_context context;
    VirtualClock clock{context};
    MemoryProbe probe{clock};
};

TEST_F(MemoryProbeTest, ConnectsBothEnds) {
    std::unique_ptr<MemoryStream> there;
    probe.accept(phone, 7300, [&](std::unique_ptr<MemoryStream> stream) { there = std::move(stream); }, 20ms);
    ProbeResult result = probed(7300);
    auto& stream = std::get<std::unique_ptr<Stream>>(result);
    ASSERT_TRUE(stream && there);
    EXPECT_NEAR(clock.elapsed(), 0.02, 1e-6);
    EXPECT_EQ(stream->remoteEndpoint(), "192.168.7.30:7300");
    const Bytes sent = toBytes("hello");
    runVirtual(context, clock, stream->writeAll(sent));
    Bytes received(sent.size());
    EXPECT_EQ(runVirtual(context, clock, there->readExact(received)), sent.size());
    EXPECT_EQ(received, sent);
}

TEST_F(MemoryProbeTest, FailsWithTheEvidenceAndAfterTheTimeThatATestSays) {
    const platform::IcmpReport forbidden{.type = 3, .code = 13, .from = router};
    probe.fail(phone, 7300, EHOSTUNREACH, forbidden, 1s);
    const ProbeResult result = probed(7300);
    EXPECT_EQ(std::get<ProbeFailure>(result).code.value(), EHOSTUNREACH);
    EXPECT_EQ(std::get<ProbeFailure>(result).icmp, forbidden);
    EXPECT_NEAR(clock.elapsed(), 1, 1e-6);
    EXPECT_TRUE(std::holds_alternative<ProbeTimeout>(probed(7300, 500ms))) << "it comes later than the limit";
}

TEST_F(MemoryProbeTest, IsSilentAtWhatNobodyHasNamed) {
    EXPECT_TRUE(std::holds_alternative<ProbeTimeout>(probed(7300)));
    EXPECT_NEAR(clock.elapsed(), 2, 1e-6);
    probe.fail(phone, 7300, ECONNREFUSED);
    EXPECT_TRUE(std::holds_alternative<ProbeFailure>(probed(7300)));
    probe.makeSilent(phone, 7300);
    EXPECT_TRUE(std::holds_alternative<ProbeTimeout>(probed(7300)));
    EXPECT_EQ(probe.attempts.size(), 3u);
    EXPECT_EQ(probe.most, 1u);
    EXPECT_EQ(probe.underWay(), 0u);
    probe.errorNumber = EMFILE;
    EXPECT_EQ(codeOf([&] { static_cast<void>(probed(7300)); }), EMFILE);
}

TEST(MemoryProbe, ForbidsDatagramsAsATestSays) {
    asio::io_context context;
    VirtualClock clock(context);
    MemoryProbe probe(clock);
    probe.forbidDatagrams(phone);
    EXPECT_FALSE(probe.maySendDatagram(phone));
    EXPECT_TRUE(probe.maySendDatagram(router));
    EXPECT_EQ(probe.datagrams, 2u);
}

} // namespace
} // namespace orlinth::fakes
