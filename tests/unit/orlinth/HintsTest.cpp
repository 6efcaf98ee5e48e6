#include "orlinth/Reporting/Hints.h"

#include "OrlinthCore/Sending/FcmWake.h"
#include "OrlinthCore/Sending/SendError.h"
#include "fakes/World.h"
#include "platform/HttpsClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orlinth::cli {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using Reason = SendError::Reason;

/// The advice about a failure whose text is in a language of its own.
std::string hintFor(Reason reason, const std::exception_ptr& cause = nullptr) {
    return hintForSending(SendError::network("Zeitüberschreitung", reason, cause), "Pixel");
}

std::exception_ptr because(Reason reason) {
    return std::make_exception_ptr(SendError::network("Kein Weg", reason));
}

template <typename E>
std::string pushHint(E error) {
    return hintForPush(std::make_exception_ptr(std::move(error)));
}

TEST(Hints, OfAConnectionFollowTheReasonAndNotTheText) {
    for (const Reason reason : {Reason::timedOut, Reason::refused, Reason::hostUnreachable}) {
        EXPECT_THAT(hintFor(reason), StartsWith("Is Pixel awake"));
    }
    EXPECT_THAT(hintFor(Reason::networkUnreachable), StartsWith("Is this computer on the same network as Pixel"));
    EXPECT_THAT(hintFor(Reason::unknownName), HasSubstr("`orlinth peers`"));
    EXPECT_THAT(hintForSending(SendError::network("connection timed out, refused, unreachable"), "Pixel"),
                HasSubstr("`orlinth peers`"));
}

/// What a person reads of a phone at 192.168.7.30 that was not reached for this reason.
class HintsOfThisComputer : public testing::Test {
protected:
    HintsOfThisComputer() {
        world.interfaces.addresses = {fakes::FakeNetworkInterfaces::ipv4("wlan0", {192, 168, 7, 10})};
        world.routes.putOnLink(address);
        phone.peer_ip = "192.168.7.30";
    }
    [[nodiscard]] std::string hint(Reason reason) {
        return hintForSending(home, SendError::network("Zeitüberschreitung", reason), phone);
    }
    void putNeighbour(platform::NeighbourState state, Bytes hardware) {
        platform::Neighbour entry = fakes::MemoryNeighbours::entry(address, state, std::move(hardware));
        entry.confirmedAge = 40s;
        world.neighbours.put(entry);
    }

    const platform::IpAddress address = platform::Ipv4Address{192, 168, 7, 30};
    fakes::World world;
    host::Home home{.system = world.system, .executor = world.context.get_executor()};
    PeerRecord phone = world.phoneRecord();
};

TEST_F(HintsOfThisComputer, SayWhyAPhoneWasNotReached) {
    EXPECT_THAT(hint(Reason::refused), StartsWith("Pixel-8 is on this network, but Orlinth is not open on it. Open "));
    EXPECT_THAT(hint(Reason::hostUnreachable), StartsWith("Nothing answers at 192.168.7.30. "));
    putNeighbour(platform::NeighbourState::reachable, {std::byte{2}, {}, {}, {}, {}, std::byte{7}});
    EXPECT_THAT(hint(Reason::timedOut), StartsWith("No answer from Pixel-8. It was here until about 40 s ago, or "));
    world.interfaces.addresses.push_back(fakes::FakeNetworkInterfaces::ipv4("tun0", {10, 8, 0, 2}));
    world.interfaces.addresses.back().isPointToPoint = true;
    world.routes.putOnLink(address, "tun0");
    EXPECT_THAT(hint(Reason::timedOut), StartsWith("The VPN on this computer (tun0) takes the way to "));
    world.interfaces.addresses.clear();
    EXPECT_THAT(hint(Reason::networkUnreachable), StartsWith("This computer is not connected to any network. `"));
    EXPECT_TRUE(world.probe.attempts.empty()) << "nothing is sent for it";
    EXPECT_EQ(world.probe.datagrams, 0U);
}

TEST_F(HintsOfThisComputer, PromiseNoPushThatWasOfNoUse) {
    phone.peer_fcm_token = "push-token";
    EXPECT_EQ(hint(Reason::refused),
              "Pixel-8 is on this network, but Orlinth is not open on it. Open the app there once "
              "and allow it to run in the background (battery settings). `orlinth doctor Pixel-8` "
              "looks further.");
}

TEST_F(HintsOfThisComputer, AskWhereNothingIsKnown) {
    EXPECT_EQ(hint(Reason::timedOut), "Is Pixel-8 (192.168.7.30:7000) awake, on this network, and ready to receive? "
                                      "`orlinth doctor Pixel-8` looks further.");
    EXPECT_EQ(hint(Reason::unknownName),
              hintForSending(SendError::network("x", Reason::unknownName), "Pixel-8 (192.168.7.30:7000)"));
}

TEST_F(HintsOfThisComputer, NameTheCommandAsItCanBeTyped) {
    const auto command = [this](const char* name) {
        phone.peer_hostname = name;
        const std::string text = hint(Reason::refused);
        return text.substr(text.find('`'));
    };
    EXPECT_EQ(command("Pixel-8"), "`orlinth doctor Pixel-8` looks further.");
    EXPECT_EQ(command("Ann's phone"), "`orlinth doctor` looks further.");
    EXPECT_EQ(command("Pixel 8"), "`orlinth doctor 'Pixel 8'` looks further.");
    EXPECT_EQ(command("$(reboot)"), "`orlinth doctor '$(reboot)'` looks further.");
    EXPECT_EQ(command("-x"), "`orlinth doctor` looks further.");
    EXPECT_EQ(command("a\nb"), "`orlinth doctor` looks further.");
    EXPECT_EQ(command(""), "`orlinth doctor` looks further.");
}

TEST(Hints, OfADeadlineSayWhatWasWaitedFor) {
    EXPECT_THAT(hintFor(Reason::timedOut, because(Reason::networkUnreachable)), StartsWith("Is this computer on"));
    EXPECT_THAT(hintFor(Reason::timedOut, because(Reason::refused)), StartsWith("Is Pixel awake"));
    EXPECT_THAT(hintFor(Reason::timedOut, because(Reason::unknownName)), HasSubstr("`orlinth peers`"));
}

TEST(Hints, OfAFailedPushFollowItsError) {
    using Error = FcmWake::Error;
    const std::string missing = pushHint(Error::serviceAccountMissing("/home/ann/key.json"));
    EXPECT_THAT(missing, HasSubstr("belongs at /home/ann/key.json. "));
    for (const std::string& hint : {pushHint(Error::serviceAccountMalformed("x")),
                                    pushHint(Error::privateKeyImport("x")), pushHint(Error::sign("x"))}) {
        EXPECT_THAT(hint, HasSubstr("is damaged"));
    }
    EXPECT_THAT(pushHint(Error::oauthHTTP(400, "FCM HTTP 404")), HasSubstr("does not accept the key file"));
    EXPECT_THAT(pushHint(Error::fcmHTTP(404, "x")), HasSubstr("Pair the phone again"));
    EXPECT_THAT(pushHint(Error::fcmHTTP(400, "x")), HasSubstr("Pair the phone again"));
    EXPECT_THAT(pushHint(Error::fcmHTTP(403, "OAuth2 HTTP")), HasSubstr("refuses to send"));
    EXPECT_THAT(pushHint(Error::transport("FCM HTTP 404")), HasSubstr("on the internet"));
    EXPECT_THAT(pushHint(platform::HttpError(platform::HttpError::Kind::timedOut, "x")), HasSubstr("on the internet"));
    EXPECT_THAT(hintForPush(nullptr), HasSubstr("on the internet"));
    EXPECT_EQ(hintFor(Reason::pushFailed, std::make_exception_ptr(Error::serviceAccountMissing("/home/ann/key.json"))),
              "Pixel seems to sleep, and could not be woken. " + missing);
}

TEST(Hints, OfAPortFollowWhatIsInTheWay) {
    using host::PortError;
    using Case = PortError::Case;
    const auto hint = [](Case which) { return hintForPort(PortError(which, 28471, "listener start failed: x")); };
    EXPECT_THAT(hint(Case::inheritedUnusable), HasSubstr("one ListenStream= and Accept=no"));
    EXPECT_THAT(hint(Case::noSuchPlace), HasSubstr("addresses and interfaces of this computer"));
    EXPECT_THAT(hint(Case::placesExcludeEachOther), HasSubstr("exclude each other"));
    EXPECT_THAT(hint(Case::usedByService), StartsWith("The Orlinth service is using port 28471 "));
    EXPECT_THAT(hint(Case::usedByOther), StartsWith("Another program is using port 28471; "));
    EXPECT_THAT(hint(Case::forbidden), StartsWith("This account may not open port 28471; "));
    EXPECT_EQ("", hint(Case::other));
}

} // namespace
} // namespace orlinth::cli
