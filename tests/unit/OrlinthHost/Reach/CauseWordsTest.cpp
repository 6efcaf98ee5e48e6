#include "OrlinthHost/Reach/CauseWords.h"

#include "OrlinthHost/HumanText.h"
#include "base/Text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

/// A line of 80 columns, less what stands before the text.
constexpr std::size_t columns = 62;

const CauseDetails everything{.phone = "Pixel-8",
                              .address = "192.168.7.30",
                              .addressNow = "192.168.7.57",
                              .phonesNetwork = "192.168.7.0/24",
                              .ownNetwork = "10.1.4.0/24",
                              .interface = "tun0",
                              .firewall = "firewalld",
                              .zone = "FedoraWorkstation",
                              .program = "syncthing",
                              .folder = "/home/ann/Downloads",
                              .reason = "it is read-only",
                              .port = 28471,
                              .portKnown = 28472,
                              .seenBefore = 40s,
                              .clockError = -7min};

std::vector<Cause> allCauses() {
    std::vector<Cause> causes;
    for (int number = 0; number <= static_cast<int>(lastCause); ++number) {
        causes.push_back(static_cast<Cause>(number));
    }
    return causes;
}

TEST(Cause, HasAnIdOfItsOwn) {
    std::set<std::string_view> ids;
    for (const Cause cause : allCauses()) {
        EXPECT_THAT(std::string(idOf(cause)), MatchesRegex("[a-z]+(_[a-z]+)*"));
        EXPECT_TRUE(ids.insert(idOf(cause)).second) << idOf(cause);
    }
    EXPECT_EQ(ids.size(), 32U);
}

/// Scripts know them.
TEST(Cause, KeepsItsId) {
    std::vector<std::string_view> ids;
    for (const Cause cause : allCauses()) {
        ids.push_back(idOf(cause));
    }
    EXPECT_THAT(ids,
                ElementsAre("none", "unknown", "not_listening", "not_there", "swallowed", "forbidden", "silent",
                            "other_key", "other_device", "not_orlinth", "silent_port", "moved", "other_network",
                            "no_route", "router_says", "vpn_takes_lan", "container_net", "own_outgoing", "isolated",
                            "no_network", "firewall_in", "firewall_maybe", "not_running", "port_taken", "other_port",
                            "own_address", "folder", "disk", "push_no_token", "push_key", "push_refused", "clock"));
}

TEST(CauseWords, SayWhatIsWrong) {
    const auto say = [](Cause cause) { return words(cause, everything); };
    EXPECT_EQ(say(Cause::none), "Pixel-8 is here now.");
    EXPECT_EQ(say(Cause::notListening), "Pixel-8 is on this network, but Orlinth is not open on it.");
    EXPECT_EQ(say(Cause::notThere),
              "Nothing answers at 192.168.7.30. The phone is off, out of Wi-Fi, or has a new address.");
    EXPECT_EQ(say(Cause::swallowed), "Pixel-8 is on this network, but something on it blocks the connection.");
    EXPECT_EQ(say(Cause::forbidden), say(Cause::swallowed));
    EXPECT_EQ(say(Cause::silent), "No answer from Pixel-8. It was here until about 40 s ago, or it blocks everything.");
    EXPECT_EQ(say(Cause::otherKey), "Another device has the address that Pixel-8 had.");
    EXPECT_EQ(say(Cause::moved), "Pixel-8 has moved to 192.168.7.57. This is now recorded.");
    EXPECT_EQ(say(Cause::otherNetwork), "Pixel-8 was last in 192.168.7.0/24. This computer is in 10.1.4.0/24.");
    EXPECT_EQ(say(Cause::noRoute), "This computer has no route to 192.168.7.30, where Pixel-8 was last.");
    EXPECT_EQ(say(Cause::routerSays), "A router on the way to Pixel-8 turns the connection away.");
    EXPECT_EQ(say(Cause::vpnTakesLan), "The VPN on this computer (tun0) takes the way to 192.168.7.0/24.");
    EXPECT_EQ(say(Cause::containerNetwork),
              "A container network on this computer (tun0) takes the way to 192.168.7.0/24.");
    EXPECT_EQ(say(Cause::ownOutgoing), "A firewall on this computer (a VPN's kill switch?) stops what goes out.");
    EXPECT_EQ(say(Cause::isolated), "This Wi-Fi seems to keep its devices apart (guest network?).");
    EXPECT_EQ(say(Cause::noNetwork), "This computer is not connected to any network.");
    EXPECT_EQ(say(Cause::firewallIn),
              "This computer's firewall (firewalld, zone FedoraWorkstation) does not let phones in at port 28471.");
    EXPECT_EQ(say(Cause::firewallMaybe), "This computer's firewall (firewalld) may keep phones out at port 28471. Some "
                                         "of its rules cannot be judged.");
    EXPECT_EQ(words(Cause::firewallMaybe, {.firewall = "firewalld", .isUnread = true}),
              "This computer's firewall (firewalld) may keep phones out at port 28471. Its rules cannot be read.");
    EXPECT_EQ(words(Cause::firewallMaybe, {.firewall = "ufw"}),
              "This computer's firewall (ufw) may keep phones out at port 28471. Its rules cannot be read.");
    EXPECT_EQ(say(Cause::portTaken), "Port 28471 is taken by another program (syncthing).");
    EXPECT_EQ(say(Cause::otherPort), "The service listens at port 28471, but your phones know port 28472.");
    EXPECT_EQ(say(Cause::ownAddress), "Your phones know this computer as 192.168.7.30. It is 192.168.7.57 now, so they "
                                      "cannot send to it.");
    EXPECT_EQ(say(Cause::folder), "Files cannot be stored in /home/ann/Downloads: it is read-only.");
    EXPECT_EQ(say(Cause::clock), "This computer's clock is 7 min slow.");
    EXPECT_EQ(words(Cause::clock, {.clockError = 45s}), "This computer's clock is 45 s fast.");
}

TEST(CauseWords, AreSentencesThatFitIntoATerminal) {
    for (const Cause cause : allCauses()) {
        for (const CauseDetails& details : {everything, CauseDetails()}) {
            const std::string sentence = words(cause, details);
            const Advice help = advice(cause, details);
            EXPECT_THAT(sentence, MatchesRegex("[A-Z].*[.]")) << idOf(cause);
            EXPECT_THAT(sentence, Not(HasSubstr("  "))) << idOf(cause);
            EXPECT_THAT(sentence, Not(HasSubstr("()"))) << idOf(cause);
            if (!help.text.empty()) {
                EXPECT_THAT(help.text, MatchesRegex(help.commands.empty() ? "[A-Z].*[.?]" : "[A-Z].*:")) << idOf(cause);
            }
            for (const std::string& text : {sentence, help.text}) {
                for (const std::string& line : wrapped(text, columns)) {
                    EXPECT_LE(columnsOf(line), columns) << line;
                }
            }
            for (const std::string& command : help.commands) {
                EXPECT_LE(columnsOf(command), 78U) << command;
            }
        }
    }
}

TEST(CauseWords, OfDifferentMeaningAreDifferent) {
    std::set<std::string> sentences;
    for (const Cause cause : allCauses()) {
        sentences.insert(words(cause, everything));
    }
    EXPECT_EQ(sentences.size(), 32U - 1 - 3) << "swallowed and forbidden, and the four of another device, are alike";
}

TEST(CauseWords, ShowNoNameThatMovesTheCursor) {
    for (const Cause cause : allCauses()) {
        const std::string nasty = "a\x1b[2J" + std::string(300, 'x');
        const std::string sentence = words(cause, {.phone = nasty,
                                                   .address = nasty,
                                                   .addressNow = nasty,
                                                   .phonesNetwork = nasty,
                                                   .ownNetwork = nasty,
                                                   .interface = nasty,
                                                   .firewall = nasty,
                                                   .zone = nasty,
                                                   .program = nasty,
                                                   .folder = nasty,
                                                   .reason = nasty});
        EXPECT_EQ(sentence.find('\x1b'), std::string::npos) << idOf(cause);
        EXPECT_LE(columnsOf(sentence), 200U) << idOf(cause);
    }
}

TEST(CauseAdvice, IsOneThingToDo) {
    EXPECT_EQ(advice(Cause::noNetwork, everything).text, "");
    EXPECT_EQ(advice(Cause::moved, everything).text, "");
    EXPECT_EQ(advice(Cause::silent, everything).text, "Try again in a minute.");
    EXPECT_EQ(advice(Cause::otherNetwork, everything).text, "Put both into one Wi-Fi, or use the phone's hotspot.");
    EXPECT_EQ(advice(Cause::otherKey, everything).text, "If the phone was reset, pair it again.");
    EXPECT_THAT(advice(Cause::notListening, everything).text, HasSubstr("cannot be woken"));
    EXPECT_THAT(advice(Cause::notListening, {.hasPushToken = true, .hasPushKey = true}).text,
                HasSubstr("It is woken when you send."));
    EXPECT_THAT(advice(Cause::notListening, {.hasPushToken = true}).text,
                HasSubstr("It cannot be woken: this computer has no key file of a push project."));
    EXPECT_THAT(advice(Cause::notListening, {.hasPushKey = true}).text, HasSubstr("no push token is recorded"));
    EXPECT_THAT(advice(Cause::notRunning, everything).commands, ElementsAre("systemctl --user enable --now orlinth"));
}

TEST(CauseAdvice, NamesTheCommandsOfTheFirewallThatIsThere) {
    EXPECT_THAT(advice(Cause::firewallIn, everything).commands,
                ElementsAre("sudo firewall-cmd --permanent --zone=FedoraWorkstation --add-port=28471/tcp",
                            "sudo firewall-cmd --reload"));
    EXPECT_THAT(advice(Cause::firewallIn, {.firewall = "firewalld", .zone = "public", .isDefaultZone = true}).commands,
                ElementsAre("sudo firewall-cmd --permanent --add-port=28471/tcp", "sudo firewall-cmd --reload"));
    EXPECT_THAT(advice(Cause::firewallMaybe, {.firewall = "ufw", .port = 7000}).commands,
                ElementsAre("sudo ufw allow 7000/tcp"));
    EXPECT_THAT(advice(Cause::firewallMaybe, {.firewall = "nftables"}).commands, IsEmpty());
    for (const char* const zone : {"", "a b", "$(reboot)", "AnOverlongNameOfAZone"}) {
        EXPECT_THAT(advice(Cause::firewallIn, {.firewall = "firewalld", .zone = zone}).commands, IsEmpty()) << zone;
    }
    EXPECT_EQ(advice(Cause::firewallMaybe, {}).text, "Open TCP port 28471 in this computer's firewall.");
}

} // namespace
} // namespace orlinth::host
