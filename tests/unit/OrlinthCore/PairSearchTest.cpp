#include "OrlinthCore/Pairing/PairSearch.h"

#include "OrlinthCore/Pairing/PairAdvertiser.h"
#include "OrlinthCore/Pairing/PairCode.h"
#include "fakes/CancelMidway.h"
#include "fakes/WorkshopPayload.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace orlinth {
namespace {

using fakes::World;
using Case = PairSearchError::Case;

const std::string code = "0427";
const std::string computerKey = "UkZDNzc0OCBzYXlzIHRoYXQga2V5cyBhcmUgMzIgYi4=";
const std::string otherKey = "QW5vdGhlciBjb21wdXRlciwgd2l0aCBpdHMgb3duIGsu";
constexpr Seconds oneLook = 3s;

PairingPayload payload(const std::string& key = computerKey) {
    return fakes::workshopPayload(key, "c2Vjcmv0");
}

platform::ServiceRecord service(const std::string& key = computerKey, const std::string& announced = code) {
    return {.name = "Orlinth-pair-0a1b2c",
            .type = PairCode::serviceType,
            .domain = "local.",
            .port = 7300,
            .txt = {{"v", "1"},
                    {"c", PairCode::hash(announced, key)},
                    {"pk", key},
                    {"ip", "192.168.1.23"},
                    {"sn", "192.168.1.0/24"},
                    {"hn", "workshop"},
                    {"mac", "3c:22:fb:01:02:0a"},
                    {"sec", "c2Vjcmv0"},
                    {"t", "mac"}}};
}

platform::ServiceRecord without(const std::string& key) {
    platform::ServiceRecord record = service();
    std::erase_if(record.txt, [&key](const auto& entry) { return entry.first == key; });
    return record;
}

platform::ServiceRecord with(const std::string& key, const std::string& value) {
    platform::ServiceRecord record = service();
    for (auto& [name, text] : record.txt) {
        if (name == key) {
            text = value;
        }
    }
    return record;
}

TEST(PayloadOfService, HasEveryValueOfTheRecord) {
    EXPECT_EQ(payloadOfService(service(), code), payload());
}

TEST(PayloadOfService, HasTheServicesPort) {
    platform::ServiceRecord record = service();
    record.port = 65535;
    EXPECT_EQ(payloadOfService(record, code).value().peer_port, 65535);
}

TEST(PayloadOfService, DoesNotDependOnTheOrderOfTheKeys) {
    platform::ServiceRecord record = service();
    std::ranges::reverse(record.txt);
    EXPECT_EQ(payloadOfService(record, code), payload());
}

TEST(PayloadOfService, TakesTheFirstOfTwoValuesOfOneKey) {
    platform::ServiceRecord record = service();
    record.txt.emplace_back("ip", "192.168.1.99");
    record.txt.emplace_back("pk", otherKey);
    EXPECT_EQ(payloadOfService(record, code), payload());
}

TEST(PayloadOfService, IsNothingForARecordOfAnotherVersionOrNone) {
    for (const char* const version : {"", "0", "2", "10", "1 ", "one"}) {
        EXPECT_EQ(payloadOfService(with("v", version), code), std::nullopt) << version;
    }
    EXPECT_EQ(payloadOfService(without("v"), code), std::nullopt);
}

TEST(PayloadOfService, IsNothingWhereTheHashIsMissingOrAnother) {
    EXPECT_EQ(payloadOfService(without("c"), code), std::nullopt);
    const std::string hash = PairCode::hash(code, computerKey);
    for (const std::string& wrong :
         {std::string(), hash.substr(1), hash + "0", PairCode::hash(code, otherKey), std::string(16, '0'), code}) {
        EXPECT_EQ(payloadOfService(with("c", wrong), code), std::nullopt) << wrong;
    }
}

TEST(PayloadOfService, IsNothingWhereTheKeyIsMissingOrAnother) {
    EXPECT_EQ(payloadOfService(without("pk"), code), std::nullopt);
    EXPECT_EQ(payloadOfService(with("pk", otherKey), code), std::nullopt);
}

TEST(PayloadOfService, IsNothingForAnyOtherCode) {
    for (const char* const other : {"", "427", "0428", "9427", "04270", " 0427"}) {
        EXPECT_EQ(payloadOfService(service(), other), std::nullopt) << other;
    }
}

TEST(PayloadOfService, IsNothingForARecordWithoutAnyKey) {
    platform::ServiceRecord record = service();
    record.txt.clear();
    EXPECT_EQ(payloadOfService(record, code), std::nullopt);
    EXPECT_EQ(payloadOfService(record, ""), std::nullopt);
}

TEST(PayloadOfService, LeavesEmptyWhatTheRecordDoesNotHave) {
    const auto emptied = [](std::string PairingPayload::* field) {
        PairingPayload expected = payload();
        (expected.*field).clear();
        return expected;
    };
    EXPECT_EQ(payloadOfService(without("ip"), code), emptied(&PairingPayload::peer_ip));
    EXPECT_EQ(payloadOfService(without("sn"), code), emptied(&PairingPayload::peer_subnet));
    EXPECT_EQ(payloadOfService(without("hn"), code), emptied(&PairingPayload::peer_hostname));
    EXPECT_EQ(payloadOfService(without("mac"), code), emptied(&PairingPayload::peer_mac));
    EXPECT_EQ(payloadOfService(without("sec"), code), emptied(&PairingPayload::pairing_secret));
    EXPECT_EQ(payloadOfService(without("t"), code), payload());
}

TEST(PayloadOfService, IsThePayloadThatPairModeAnnounces) {
    World world;
    const PairAdvertiser advertiser(world.services, world.log, payload(), code, world.context.get_executor());
    EXPECT_EQ(payloadOfService(advertiser.service(), code), payload());
}

class PairSearch : public testing::Test {
protected:
    Task<PairingPayload> find(Seconds timeout = 30s) {
        return findPairingComputer(world.services, world.clock, code, timeout);
    }
    void expectFailure(Seconds timeout, Case which, const std::string& text) {
        const auto error = world.failure<PairSearchError>(find(timeout));
        EXPECT_EQ(error.which(), which);
        EXPECT_EQ(error.description(), text);
    }
    /// Announces another service after some seconds.
    static Task<> publishAt(World& world, Seconds time, platform::ServiceRecord record) {
        co_await world.clock.sleep(time);
        world.services.services.push_back(std::move(record));
    }
    static Task<> withdrawAt(World& world, Seconds time) {
        co_await world.clock.sleep(time);
        world.services.services.clear();
    }
    static Task<> breakAt(World& world, Seconds time) {
        co_await world.clock.sleep(time);
        world.services.failure = "Daemon not running";
    }

    World world;
};

TEST_F(PairSearch, FindsTheComputerThatAnnouncesTheCode) {
    world.services.services = {service()};
    EXPECT_EQ(world.run(find()), payload());
    EXPECT_EQ(world.clock.elapsed(), oneLook.count());
}

TEST_F(PairSearch, FindsTheComputerAmongOthers) {
    platform::ServiceRecord otherType = service(otherKey);
    otherType.type = "_ipp._tcp.";
    platform::ServiceRecord otherVersion = service(otherKey);
    otherVersion.txt.front().second = "2";
    world.services.services = {service(otherKey, "0428"), otherType, service(), otherVersion};
    EXPECT_EQ(world.run(find()), payload());
}

TEST_F(PairSearch, TakesOneComputerThatIsSeenTwiceForOne) {
    platform::ServiceRecord again = service();
    again.name += " #2";
    world.services.services = {service(), again, service()};
    EXPECT_EQ(world.run(find()), payload());
}

TEST_F(PairSearch, RefusesToChooseBetweenTwoComputersWithTheSameCode) {
    world.services.services = {service(), service(otherKey)};
    expectFailure(30s, Case::ambiguous, "several computers on this network answer to this code");
    EXPECT_EQ(world.clock.elapsed(), oneLook.count());
}

TEST_F(PairSearch, RefusesToChooseBetweenTwoAddressesOfOneKey) {
    world.services.services = {service(), with("ip", "192.168.1.66")};
    expectFailure(30s, Case::ambiguous, "several computers on this network answer to this code");
}

TEST_F(PairSearch, RefusesToChooseBetweenTwoSecretsOfOneKey) {
    world.services.services = {service(), with("sec", "YW5vdGhlcg==")};
    expectFailure(30s, Case::ambiguous, "several computers on this network answer to this code");
}

TEST_F(PairSearch, SeesASecondComputerThatComesDuringTheLook) {
    world.services.services = {service()};
    world.alongside(publishAt(world, 2s, service(otherKey)));
    EXPECT_EQ(world.failure<PairSearchError>(find()).which(), Case::ambiguous);
}

TEST_F(PairSearch, WaitsForAComputerThatComesLater) {
    world.alongside(publishAt(world, 10s, service()));
    EXPECT_EQ(world.run(find()), payload());
    EXPECT_EQ(world.clock.elapsed(), 12) << "the end of the look in which it came";
}

TEST_F(PairSearch, FindsAComputerThatComesInTheLastLook) {
    world.alongside(publishAt(world, 29s, service()));
    EXPECT_EQ(world.run(find(30s)), payload());
    EXPECT_EQ(world.clock.elapsed(), 30);
}

TEST_F(PairSearch, GivesUpAtTheEndOfTheLookInWhichTheTimeEnds) {
    const std::string text = "no computer with this code is in pair mode on this network";
    world.services.services = {service(otherKey, "0428")};
    expectFailure(30s, Case::notFound, text);
    EXPECT_EQ(world.clock.elapsed(), 30);
    expectFailure(10s, Case::notFound, text);
    EXPECT_EQ(world.clock.elapsed(), 30 + 12);
    expectFailure(0s, Case::notFound, text);
    EXPECT_EQ(world.clock.elapsed(), 30 + 12 + oneLook.count()) << "it looks once in any case";
}

TEST_F(PairSearch, FindsNothingOnANetworkWithoutAnybody) {
    expectFailure(3s, Case::notFound, "no computer with this code is in pair mode on this network");
    EXPECT_EQ(world.clock.elapsed(), 3);
}

TEST_F(PairSearch, FindsNoComputerThatHasGoneBeforeTheLookEnds) {
    world.services.services = {service()};
    world.alongside(withdrawAt(world, 1s));
    EXPECT_EQ(world.failure<PairSearchError>(find(6s)).which(), Case::notFound);
    EXPECT_EQ(world.clock.elapsed(), 6);
}

TEST_F(PairSearch, ReportsThatNobodyCanBeAsked) {
    world.services.failure = "Daemon not running";
    expectFailure(30s, Case::unavailable, "cannot look for computers on the network: Daemon not running");
    EXPECT_EQ(world.clock.elapsed(), 0);
}

TEST_F(PairSearch, ReportsThatNobodyCanBeAskedAnyMore) {
    world.alongside(breakAt(world, 4s));
    expectFailure(30s, Case::unavailable, "cannot look for computers on the network: Daemon not running");
    EXPECT_EQ(world.clock.elapsed(), 6);
}

TEST_F(PairSearch, PassesACancellationThrough) {
    const std::exception_ptr error = fakes::cancelMidway(
        world.context, [](Task<PairingPayload> search) -> Task<> { co_await std::move(search); }(find()));
    EXPECT_TRUE(fakes::isCancelled(error)) << (error ? describe(error) : "it ended well");
    EXPECT_EQ(world.clock.pendingAlarms(), 0U);
}

} // namespace
} // namespace orlinth
