#include "OrlinthHost/Reach/ComputerCheck.h"

#include "OrlinthHost/Phones/AddressMemory.h"
#include "fakes/TestRsaKey.h"
#include "fakes/World.h"

#include <gmock/gmock.h>

#include <cerrno>

namespace orlinth::host {
namespace {

using fakes::FakeNetworkInterfaces;
using platform::FirewallReport;
using platform::HttpError;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using Status = Finding::Status;

class ComputerCheckTest : public testing::Test {
protected:
    ComputerCheckTest() { world.interfaces.addresses = {FakeNetworkInterfaces::ipv4("wlan0", {192, 168, 7, 10})}; }

    [[nodiscard]] Whereabouts here() const { return Whereabouts::look(world.system); }
    [[nodiscard]] AddressMemory memory() { return {world.files, world.clock, world.log, home.dataDirectory()}; }
    void addInterface(const char* name, platform::Ipv4Address address, bool isTunnel = false) {
        world.interfaces.addresses.push_back(FakeNetworkInterfaces::ipv4(name, address));
        world.interfaces.addresses.back().isPointToPoint = isTunnel;
    }
    Finding firewall() {
        const Whereabouts now = here();
        return world.run(checkFirewall(home, homeNetworkOf(now), 28471, {phone}));
    }
    Finding waking(bool asksProject = false) { return world.run(checkWaking(home, {phone}, asksProject)); }
    void putKeyFile() {
        world.files.put("/home/ann/.local/share/Orlinth/firebase-service-account.json",
                        fakes::serviceAccountJson(fakes::TestRsaKey::shared()));
        phone.peer_fcm_token = "push-token";
    }

    fakes::World world;
    Home home{.system = world.system, .executor = world.context.get_executor()};
    PeerRecord phone = world.phoneRecord();
};

// ---- the network

TEST_F(ComputerCheckTest, TakesTheNetworkWithARouterForItsHome) {
    addInterface("docker0", {172, 17, 0, 1});
    addInterface("tun0", {10, 8, 0, 2}, true);
    addInterface("eth0", {10, 1, 4, 9});
    world.routes.gateways["eth0"] = platform::Ipv4Address{10, 1, 4, 1};
    world.routes.gateways["tun0"] = platform::Ipv4Address{10, 8, 0, 1};
    const Whereabouts now = here();
    EXPECT_EQ(homeNetworkOf(now)->interface, "eth0");
    EXPECT_EQ(checkNetwork(home, now).remark, "10.1.4.9 on eth0");
}

TEST_F(ComputerCheckTest, FindsNoNetworkInContainersAlone) {
    world.interfaces.addresses.clear();
    addInterface("docker0", {172, 17, 0, 1});
    const Finding found = checkNetwork(home, here());
    EXPECT_EQ(found.status, Status::problem);
    EXPECT_EQ(found.cause, Cause::noNetwork);
    EXPECT_EQ(firewall().status, Status::notMeasured);
    EXPECT_THAT(world.firewall.asked, IsEmpty());
}

TEST_F(ComputerCheckTest, AcceptsAnyOfItsAddressesAsTheOneThatPhonesKnow) {
    addInterface("eth0", {10, 1, 4, 9});
    memory().tell({.host = HostAddress::parse("10.1.4.9").value(), .port = 28471});
    EXPECT_EQ(checkNetwork(home, here()).status, Status::ok);
    memory().tell({.host = HostAddress::parse("10.1.4.8").value(), .port = 28471});
    const Finding found = checkNetwork(home, here());
    EXPECT_EQ(found.cause, Cause::ownAddress);
    EXPECT_EQ(found.details.address, "10.1.4.8");
    EXPECT_EQ(found.details.addressNow, "192.168.7.10");
}

TEST_F(ComputerCheckTest, DoubtsTheWayToAPhoneOnlyIfItLeavesANetworkOfItsOwn) {
    addInterface("tun0", {10, 8, 0, 2}, true);
    const platform::IpAddress address = platform::Ipv4Address{192, 168, 7, 30};
    const auto isInQuestion = [this] { return isWayInQuestion(home, here(), {phone}); };
    phone.peer_ip = "192.168.7.30";
    EXPECT_FALSE(isInQuestion()) << "there is no way";
    world.routes.putOnLink(address);
    EXPECT_FALSE(isInQuestion());
    world.routes.putOnLink(address, "tun0");
    EXPECT_TRUE(isInQuestion());
    world.routes.errorNumber = ENOBUFS;
    EXPECT_FALSE(isInQuestion());
    world.routes.errorNumber.reset();
    phone.peer_ip = "10.9.9.9"; // which is the tunnel's business
    world.routes.putOnLink(platform::Ipv4Address{10, 9, 9, 9}, "tun0");
    EXPECT_FALSE(isInQuestion());
    phone.peer_ip = "pixel.home";
    EXPECT_FALSE(isInQuestion());
}

// ---- the firewall

TEST_F(ComputerCheckTest, BelievesAFirewallThatSaysNoWhateverCameInBefore) {
    memory().came(phone.peer_pubkey, {.host = HostAddress::parse("192.168.7.30").value()});
    world.machine.started = world.clock.epochMilliseconds() - 1h;
    world.firewall.report = {.verdict = FirewallReport::Verdict::closed, .name = "firewalld", .zone = "public"};
    const Finding found = firewall();
    EXPECT_EQ(found.cause, Cause::firewallIn);
    EXPECT_EQ(found.details.zone, "public");
    EXPECT_FALSE(found.details.isDefaultZone);
    world.firewall.report.isDefaultZone = true;
    EXPECT_TRUE(firewall().details.isDefaultZone);
    world.firewall.asked.pop_back();
    EXPECT_THAT(world.firewall.asked, ElementsAre("wlan0:28471"));
}

TEST_F(ComputerCheckTest, SaysWhetherRulesOfTheFirewallWereRead) {
    world.firewall.report = {.verdict = FirewallReport::Verdict::unknown, .name = "firewalld", .zone = "public"};
    EXPECT_EQ(firewall().cause, Cause::firewallMaybe);
    EXPECT_FALSE(firewall().details.isUnread);
    world.firewall.report.isUnread = true;
    EXPECT_EQ(firewall().cause, Cause::firewallMaybe);
    EXPECT_TRUE(firewall().details.isUnread);
}

TEST_F(ComputerCheckTest, SaysOnWhichDayAPhoneCameIn) {
    memory().came(phone.peer_pubkey, {.host = HostAddress::parse("192.168.7.30").value()});
    world.machine.started = world.clock.epochMilliseconds() - 1h;
    EXPECT_THAT(firewall().remark, StartsWith("Pixel-8 came in at "));
    const auto wait = [](platform::Clock& clock) -> Task<> { co_await clock.sleep(48h); };
    world.run(wait(world.clock));
    EXPECT_THAT(firewall().remark, StartsWith("Pixel-8 came in on 2"));
}

TEST_F(ComputerCheckTest, NamesAFirewallThatLetsPhonesIn) {
    world.firewall.report = {.verdict = FirewallReport::Verdict::open, .name = "firewalld", .zone = "home"};
    EXPECT_EQ(firewall().remark, "firewalld (zone home) lets phones in at port 28471");
    world.firewall.report = {};
    EXPECT_EQ(firewall().remark, "none found");
}

// ---- waking

TEST_F(ComputerCheckTest, SaysNothingOfWakingIfNobodyHasSetItUp) {
    const Finding found = waking();
    EXPECT_EQ(found.status, Status::notMeasured);
    EXPECT_TRUE(found.isAside);
}

TEST_F(ComputerCheckTest, FindsThatPhonesCanBeWoken) {
    putKeyFile();
    EXPECT_EQ(waking().status, Status::ok);
    EXPECT_THAT(world.https.requests, IsEmpty()) << "nobody is asked for that";
}

TEST_F(ComputerCheckTest, FindsWhyPhonesCannotBeWoken) {
    putKeyFile();
    world.machine.clockIsRight = false;
    EXPECT_EQ(waking().cause, Cause::clock);
    world.machine.clockIsRight = std::nullopt;
    EXPECT_EQ(waking().status, Status::ok) << "what is not known is no fault";
    phone.peer_fcm_token.clear();
    const Finding found = waking();
    EXPECT_EQ(found.status, Status::warning);
    EXPECT_EQ(found.cause, Cause::pushNoToken);
    EXPECT_EQ(found.details.phone, "Pixel-8");
}

TEST_F(ComputerCheckTest, AsksThePushProjectIfItShould) {
    putKeyFile();
    world.https.willAnswer(200, R"({"access_token":"ya29","expires_in":3599,"token_type":"Bearer"})");
    EXPECT_EQ(waking(true).status, Status::ok);
    world.https.willAnswer(400, R"({"error":"invalid_grant"})");
    EXPECT_EQ(waking(true).cause, Cause::pushRefused);
    world.https.willFail(HttpError::Kind::cannotConnect, "no way");
    const Finding found = waking(true);
    EXPECT_EQ(found.status, Status::notMeasured);
    EXPECT_EQ(found.remark, "the push service does not answer");
    for (const auto& request : world.https.requests) {
        EXPECT_EQ(request.url, "https://oauth.example/token") << "no push is sent";
    }
}

/// A key is refused for that alone.
TEST_F(ComputerCheckTest, ComparesTheClockWithThatOfThePushProject) {
    putKeyFile();
    const EpochMilliseconds now = world.clock.epochMilliseconds();
    for (const Seconds error : {Seconds(-7min), Seconds(6min)}) {
        const auto date = now - std::chrono::duration_cast<std::chrono::milliseconds>(error);
        world.https.willAnswer(400, R"({"error":"invalid_grant"})", date);
        const Finding refused = waking(true);
        EXPECT_EQ(refused.status, Status::warning);
        EXPECT_EQ(refused.cause, Cause::clock);
        EXPECT_EQ(refused.details.clockError, error);
        world.https.willAnswer(200, R"({"access_token":"ya29","expires_in":3599,"token_type":"Bearer"})", date);
        EXPECT_EQ(waking(true).cause, Cause::clock);
    }
    world.https.willAnswer(400, R"({"error":"invalid_grant"})", now + 5min);
    EXPECT_EQ(waking(true).cause, Cause::pushRefused);
    world.https.willAnswer(200, R"({"access_token":"ya29","expires_in":3599,"token_type":"Bearer"})", now - 5min);
    EXPECT_EQ(waking(true).status, Status::ok);
}

TEST_F(ComputerCheckTest, FindsAKeyFileThatCannotBeUsed) {
    putKeyFile();
    for (const char* const content : {"", "{}", "not JSON"}) {
        world.files.put("/home/ann/.local/share/Orlinth/firebase-service-account.json", content);
        const Finding found = waking();
        EXPECT_EQ(found.status, Status::warning);
        EXPECT_EQ(found.cause, Cause::pushKey) << content;
    }
}

TEST_F(ComputerCheckTest, DoesNotWarnOfAPushProjectThatNobodyHasSetUp) {
    phone.peer_fcm_token = "push-token"; // which the app sends in any case
    const Finding found = waking();
    EXPECT_EQ(found.status, Status::notMeasured);
    EXPECT_EQ(found.remark, "not set up");
    EXPECT_FALSE(found.isUnanswered);
}

TEST_F(ComputerCheckTest, DoesNotBlameTheKeyForTroubleOfThePushProject) {
    putKeyFile();
    for (const int status : {500, 503, 429, 408, 302}) {
        world.https.willAnswer(status, "{}");
        const Finding found = waking(true);
        EXPECT_EQ(found.status, Status::notMeasured) << status;
        EXPECT_EQ(found.remark, "the push service does not answer") << status;
        EXPECT_TRUE(found.isUnanswered) << status;
    }
    world.https.willAnswer(200, "<html>log in to this Wi-Fi</html>");
    EXPECT_EQ(waking(true).status, Status::notMeasured);
    world.https.willAnswer(401, "{}");
    EXPECT_EQ(waking(true).cause, Cause::pushRefused);
}

} // namespace
} // namespace orlinth::host
