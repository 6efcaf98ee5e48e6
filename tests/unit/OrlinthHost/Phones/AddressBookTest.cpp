#include "OrlinthHost/Phones/AddressBook.h"

#include "platform/Crypto.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Days = std::chrono::days;

const EpochMilliseconds now = fromEpochMilliseconds(1731686400000);
const PeerKey pixel("hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo=");
const NetworkId home = *NetworkId::parse("9f86d081884c7d65");
const NetworkId work = *NetworkId::parse("60303ae22b998861");
const MacAddress mac = *MacAddress::parse("3e:5a:b4:01:02:03");

PeerKey keyOf(std::uint8_t number) {
    Bytes bytes(platform::PublicKey::size);
    bytes[0] = std::byte{number};
    return platform::PublicKey::fromBytes(bytes)->peerKey();
}

HostAddress host(const std::string& literal, const std::string& interface = "wlan0") {
    return HostAddress::parse(literal, interface).value();
}

Meeting at(const std::string& literal, std::optional<NetworkId> network = home) {
    return {.host = host(literal), .mac = mac, .network = std::move(network)};
}

std::vector<std::string> textsOf(const std::vector<KnownAddress>& addresses) {
    std::vector<std::string> texts;
    for (const KnownAddress& address : addresses) {
        texts.push_back(address.host.text());
    }
    return texts;
}

Surroundings onlyOnLink(const std::vector<std::string>& hosts, std::vector<NetworkId> networks = {}) {
    return {.networks = std::move(networks), .isOnLink = [hosts](const HostAddress& one) {
                return std::ranges::find(hosts, one.text()) != hosts.end();
            }};
}

Surroundings everywhere() {
    return {.networks = {}, .isOnLink = [](const HostAddress&) { return true; }};
}

class AddressBookTest : public testing::Test {
protected:
    void reached(const std::string& literal, EpochMilliseconds when, std::optional<NetworkId> network = home) {
        EXPECT_TRUE(book.reached(pixel, at(literal, std::move(network)), when)) << literal;
    }
    void came(const std::string& literal, EpochMilliseconds when) {
        EXPECT_TRUE(book.came(pixel, at(literal), when)) << literal;
    }
    void fail(const std::string& literal, int times) {
        for (int i = 0; i < times; ++i) {
            EXPECT_TRUE(book.failed(pixel, host(literal), home));
        }
    }
    [[nodiscard]] std::vector<std::string> known(EpochMilliseconds when = now) const {
        return textsOf(book.addressesOf(pixel, when));
    }

    AddressBook book;
};

// --- addresses ---

TEST(HostAddress, HasOneSpelling) {
    EXPECT_EQ(HostAddress::parse("2001:0DB8:0:0:0:0:0:1")->text(), "2001:db8::1");
    for (const auto& [text, spelling] : std::vector<std::pair<const char*, const char*>>{
             {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"}, // one group of zeros stays
             {"0:2:3:4:5:6:7:8", "0:2:3:4:5:6:7:8"},
             {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"}, // the first of two runs
             {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},       // the longer one
             {"2001:DB8:0:0:0:0:0:0", "2001:db8::"},
             {"0:0:0:0:0:0:0:2", "::2"},
             {"0:0:3:4:5:6:7:8", "::3:4:5:6:7:8"},
             {"2001:0db8:00aa:000b:cccc:dddd:eeee:ffff", "2001:db8:aa:b:cccc:dddd:eeee:ffff"}}) {
        EXPECT_EQ(HostAddress::parse(text)->text(), spelling);
        EXPECT_EQ(HostAddress::parse(spelling)->text(), spelling);
    }
    EXPECT_EQ(HostAddress::parse("::ffff:192.168.7.57"), HostAddress::parse("192.168.7.57"));
    EXPECT_EQ(HostAddress::parse("fe80::1%wlan0"), HostAddress::parse("fe80::1", "wlan0"));
    EXPECT_EQ(HostAddress::parse("fe80::1%wlan0")->literal(), "fe80::1%wlan0");
    EXPECT_EQ(HostAddress::parse("192.168.7.57", "wlan0")->literal(), "192.168.7.57");
    EXPECT_EQ(HostAddress::parse("2001:db8::1", "wlan0")->literal(), "2001:db8::1");
}

TEST(HostAddress, IsOfOneOtherHost) {
    for (const char* text : {"",
                             "pixel.lan",
                             "192.168.7",
                             "192.168.7.57:40112",
                             "0.0.0.0",
                             "0.1.2.3",
                             "127.0.0.1",
                             "127.9.9.9",
                             "224.0.0.251",
                             "239.1.1.1",
                             "240.0.0.1",
                             "255.255.255.255",
                             "::",
                             "::1",
                             "ff02::fb",
                             "::ffff:127.0.0.1",
                             "fe80::1",
                             "fe80::1%",
                             "fe80::1%a/b",
                             "[fe80::1%wlan0]"}) {
        EXPECT_EQ(HostAddress::parse(text), std::nullopt) << text;
    }
    EXPECT_EQ(HostAddress::parse("192.168.7.57", "no/interface"), std::nullopt);
    EXPECT_EQ(HostAddress::parse("192.168.7.57", std::string("wlan0\0x", 7)), std::nullopt);
    EXPECT_EQ(HostAddress::parse("192.168.7.57", "an-interface-too-long"), std::nullopt);
    EXPECT_TRUE(HostAddress::parse("169.254.1.2"));
}

TEST(HostAddress, IsTheSameByAnotherInterfaceUnlessItIsLinkLocal) {
    EXPECT_TRUE(host("192.168.7.57", "wlan0").isSameAs(host("192.168.7.57", "eth0")));
    EXPECT_FALSE(host("fe80::1", "wlan0").isSameAs(host("fe80::1", "eth0")));
}

// --- the file ---

TEST_F(AddressBookTest, WritesTheExampleAndReadsIt) {
    EXPECT_TRUE(book.reached(pixel, {.host = host("fe80::3c5a:b4ff:fe01:203")}, now));
    EXPECT_TRUE(book.failed(pixel, host("fe80::3c5a:b4ff:fe01:203"), std::nullopt));
    reached("192.168.7.57", now);
    EXPECT_TRUE(book.came(pixel, {.host = host("192.168.7.57"), .network = home}, now + 60s));
    EXPECT_TRUE(book.tell({.host = host("192.168.7.10", "eth0"), .port = 28471}));
    EXPECT_TRUE(book.claimSweep(home, now));
    EXPECT_EQ(book.encode(), R"({
  "phones" : {
    "hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo=" : [
      {
        "address" : "192.168.7.57",
        "came_epoch_ms" : 1731686460000,
        "failures" : 0,
        "mac" : "3e:5a:b4:01:02:03",
        "network" : "9f86d081884c7d65",
        "reached_epoch_ms" : 1731686400000,
        "zone" : "wlan0"
      },
      {
        "address" : "fe80::3c5a:b4ff:fe01:203",
        "came_epoch_ms" : 0,
        "failures" : 1,
        "mac" : "",
        "network" : "",
        "reached_epoch_ms" : 1731686400000,
        "zone" : "wlan0"
      }
    ]
  },
  "swept" : {
    "9f86d081884c7d65" : 1731686400000
  },
  "told_ip" : "192.168.7.10",
  "told_port" : 28471
})");
    EXPECT_EQ(AddressBook::decode(asBytes(book.encode())), book);
}

TEST_F(AddressBookTest, IsNoneWithoutAnObject) {
    for (const char* text : {"", "{", "[]", "1", "\"phones\"", "null", "{\"phones\":{}"}) {
        EXPECT_THROW(static_cast<void>(AddressBook::decode(asBytes(text))), JsonError) << text;
    }
    const std::string tooLong = "{" + std::string(AddressBook::maxFileBytes, ' ') + "}";
    EXPECT_THROW(static_cast<void>(AddressBook::decode(asBytes(tooLong))), JsonError);
    std::string tooMany = "{\"other\":[1";
    for (int i = 0; i < 20000; ++i) {
        tooMany += ",1";
    }
    EXPECT_THROW(static_cast<void>(AddressBook::decode(asBytes(tooMany + "]}"))), JsonError);
}

TEST_F(AddressBookTest, LeavesOutWhatMakesNoSense) {
    const std::string good = R"({"address":"192.168.7.57","reached_epoch_ms":1731686400000})";
    const std::string text = R"({"phones":{"no key":[)" + good + R"(],")" + keyOf(1).text() + R"(":7,")" +
                             keyOf(2).text() + R"(":[],")" + pixel.text() + R"(":[1,null,{},
        {"address":"192.168.7.58"},
        {"address":"192.168.7.58","reached_epoch_ms":-5},
        {"address":"192.168.7.58","reached_epoch_ms":18446744073709551615},
        {"address":"192.168.7.58","reached_epoch_ms":"1731686400000"},
        {"address":"127.0.0.1","reached_epoch_ms":1731686400000},
        {"address":"fe80::1","reached_epoch_ms":1731686400000},
        {"address":7,"reached_epoch_ms":1731686400000},)" +
                             good + "," + good + R"(,
        {"address":"192.168.7.59","zone":"a/b","came_epoch_ms":1731686400000},
        {"address":"192.168.7.60","zone":"wlan0","mac":"02:00:00:00:00:00","network":"?","failures":99,
         "came_epoch_ms":1731686400000}]},
        "swept":{"no network":1731686400000,"9f86d081884c7d65":"never"},"told_ip":"::1","told_port":28471})";
    book = AddressBook::decode(asBytes(text));
    const std::vector<KnownAddress> addresses = book.addressesOf(pixel, now);
    ASSERT_THAT(textsOf(addresses), ElementsAre("192.168.7.57", "192.168.7.60"));
    EXPECT_EQ(addresses[1].mac, std::nullopt);
    EXPECT_EQ(addresses[1].network, std::nullopt);
    EXPECT_EQ(addresses[1].failures, AddressBook::maxFailures);
    EXPECT_FALSE(book.knows(keyOf(1)) || book.knows(keyOf(2)));
    EXPECT_EQ(book.told(), std::nullopt);
    EXPECT_EQ(AddressBook::decode(asBytes(book.encode())), book);
}

TEST_F(AddressBookTest, FitsIntoItsFileHoweverMuchIsLearnt) {
    const std::string widest(15, '"'); // as an interface could be called, and JSON has to escape it
    for (std::uint8_t phone = 0; phone < 30; ++phone) {
        for (int i = 0; i < 12; ++i) {
            const std::string v6 = "2001:1db8:1234:5678:9abc:def1:2345:" + std::to_string(1000 + i);
            const std::string text = i % 3 == 0 ? v6 : "192.168.107." + std::to_string(100 + i);
            const Meeting meeting{.host = host(text, widest), .mac = mac, .network = i % 2 == 0 ? home : work};
            EXPECT_TRUE(book.reached(keyOf(phone), meeting, now + Days(phone)));
            static_cast<void>(book.came(keyOf(phone), meeting, now + Days(phone)));
        }
    }
    const auto isKnown = [this](std::uint8_t phone) { return book.knows(keyOf(phone)); };
    EXPECT_FALSE(isKnown(0) || isKnown(9)) << "the ones that were met longest ago";
    EXPECT_TRUE(isKnown(10) && isKnown(29));
    EXPECT_LE(book.encode().size(), AddressBook::maxFileBytes);
    EXPECT_EQ(AddressBook::decode(asBytes(book.encode())), book);
    EXPECT_LE(book.addressesOf(keyOf(29), now).size(), AddressBook::maxAddresses);
}

// --- learning ---

TEST_F(AddressBookTest, PutsWhereAPhoneWasReachedBeforeWhereItCameFromAndTheNewestFirst) {
    came("192.168.7.1", now);
    reached("192.168.7.2", now - Days(3));
    reached("192.168.7.3", now - Days(1));
    came("192.168.7.4", now - Days(2));
    EXPECT_THAT(known(), ElementsAre("192.168.7.3", "192.168.7.2", "192.168.7.1", "192.168.7.4"));
}

TEST_F(AddressBookTest, PutsWhatFailedThriceLastUntilThePhoneIsReachedThere) {
    reached("192.168.7.2", now);
    came("192.168.7.3", now);
    fail("192.168.7.2", 2);
    EXPECT_THAT(known(), ElementsAre("192.168.7.2", "192.168.7.3"));
    fail("192.168.7.2", 1);
    EXPECT_THAT(known(), ElementsAre("192.168.7.3", "192.168.7.2"));
    EXPECT_FALSE(book.failed(pixel, host("192.168.7.2"), home)) << "nothing new, so nothing to write";
    came("192.168.7.2", now);
    EXPECT_THAT(known(), ElementsAre("192.168.7.3", "192.168.7.2"));
    reached("192.168.7.2", now);
    EXPECT_THAT(known(), ElementsAre("192.168.7.2", "192.168.7.3"));
}

TEST_F(AddressBookTest, CountsFailuresInTheirNetworkAndOfPlacesThatAreKnown) {
    reached("192.168.7.2", now);
    EXPECT_FALSE(book.failed(pixel, host("192.168.7.2"), work));
    EXPECT_FALSE(book.failed(pixel, host("192.168.7.2"), std::nullopt));
    EXPECT_FALSE(book.failed(pixel, host("192.168.7.9"), home));
    EXPECT_FALSE(book.failed(keyOf(1), host("192.168.7.2"), home));
    EXPECT_EQ(book.addressesOf(pixel, now).front().failures, 0);
}

TEST_F(AddressBookTest, KeepsOneAddressInTwoNetworksApart) {
    reached("192.168.1.30", now - Days(1), home);
    reached("192.168.1.30", now, work);
    const std::vector<KnownAddress> addresses = book.addressesOf(pixel, now);
    ASSERT_EQ(addresses.size(), 2U);
    EXPECT_EQ(addresses[0].network, work);
    EXPECT_EQ(addresses[1].network, home);
}

TEST_F(AddressBookTest, RemembersOnePlaceOnceWithWhatWasLearntLast) {
    reached("192.168.7.2", now - Days(1));
    EXPECT_TRUE(book.came(pixel, {.host = host("192.168.7.2", "eth0"), .network = home}, now));
    const std::vector<KnownAddress> addresses = book.addressesOf(pixel, now);
    EXPECT_THAT(
        addresses,
        ElementsAre(KnownAddress{
            .host = host("192.168.7.2", "eth0"), .mac = mac, .network = home, .came = now, .reached = now - Days(1)}));
}

TEST_F(AddressBookTest, IsNotWrittenAgainForThePhoneThatComesAgainAtOnce) {
    reached("192.168.7.2", now);
    EXPECT_FALSE(book.reached(pixel, at("192.168.7.2"), now + 59s));
    EXPECT_TRUE(book.reached(pixel, at("192.168.7.2"), now + 60s));
    EXPECT_TRUE(book.came(pixel, at("192.168.7.2"), now + 60s));
    EXPECT_FALSE(book.came(pixel, at("192.168.7.2"), now + 61s));
    fail("192.168.7.2", 1);
    EXPECT_TRUE(book.reached(pixel, at("192.168.7.2"), now + 62s)) << "it does not fail any more";
}

TEST_F(AddressBookTest, KeepsEightAddressesTheNewestAndTheBestOfTheOthers) {
    for (int i = 0; i < 8; ++i) {
        reached("192.168.7." + std::to_string(10 + i), now - Days(10 - i));
    }
    came("192.168.7.30", now);
    EXPECT_EQ(known().size(), AddressBook::maxAddresses);
    EXPECT_THAT(known(), testing::Contains("192.168.7.30"));
    EXPECT_THAT(known(), testing::Not(testing::Contains("192.168.7.10")));
    came("192.168.7.31", now + 1s);
    EXPECT_THAT(known(), testing::Not(testing::Contains("192.168.7.30"))) << "whoever comes displaces who came";
    EXPECT_THAT(known(), testing::Contains("192.168.7.11"));
}

TEST_F(AddressBookTest, KeepsTwoAddressesOfIpv6) {
    reached("2001:db8::1", now - Days(3));
    reached("2001:db8::2", now - Days(2));
    reached("192.168.7.2", now - Days(4));
    came("2001:db8::3", now);
    EXPECT_THAT(known(), ElementsAre("2001:db8::2", "192.168.7.2", "2001:db8::3"));
}

TEST_F(AddressBookTest, ForgetsWhatIsTooOld) {
    reached("192.168.7.2", now);
    reached("2001:db8::1", now);
    EXPECT_THAT(known(now + Days(7)), ElementsAre("192.168.7.2", "2001:db8::1"));
    EXPECT_THAT(known(now + Days(7) + 1ms), ElementsAre("192.168.7.2"));
    EXPECT_THAT(known(now + Days(90)), ElementsAre("192.168.7.2"));
    EXPECT_THAT(known(now + Days(90) + 1ms), IsEmpty());
    reached("192.168.7.3", now + Days(91));
    EXPECT_THAT(known(now), ElementsAre("192.168.7.3")) << "for good, with the next change";
}

TEST_F(AddressBookTest, SurvivesAClockThatIsSetBack) {
    reached("192.168.7.3", now + Days(4000)); // by a clock that was wrong
    reached("192.168.7.2", now);
    EXPECT_THAT(known(), ElementsAre("192.168.7.2", "192.168.7.3")) << "what cannot be true is no better for it";
    EXPECT_THAT(known(fromEpochMilliseconds(1000)), ElementsAre("192.168.7.3", "192.168.7.2")) << "nothing expires";
    reached("192.168.7.3", now);
    EXPECT_EQ(book.addressesOf(pixel, now).front().reached, now) << "what lies ahead does not stay";
    EXPECT_FALSE(book.reached(pixel, at("192.168.7.4"), EpochMilliseconds())) << "no time at all";
}

TEST_F(AddressBookTest, TakesAnyMoment) {
    const EpochMilliseconds last = EpochMilliseconds::max();
    reached("192.168.7.2", last);
    reached("192.168.7.3", fromEpochMilliseconds(1));
    EXPECT_THAT(known(last), ElementsAre("192.168.7.2"));
    EXPECT_THAT(known(EpochMilliseconds::min()), ElementsAre("192.168.7.2", "192.168.7.3"));
}

TEST_F(AddressBookTest, FindsPhonesByTheirHardwareAddress) {
    Meeting other = at("192.168.7.3");
    other.mac = *MacAddress::parse("3e:5a:b4:01:02:04");
    EXPECT_TRUE(book.reached(pixel, at("192.168.7.2"), now));
    EXPECT_TRUE(book.reached(keyOf(1), other, now));
    EXPECT_TRUE(book.came(pixel, at("192.168.7.4"), now + 1h));
    using Phones = std::vector<PeerKey>;
    EXPECT_THAT(book.phonesByHardware(now), testing::UnorderedElementsAre(testing::Pair(mac, Phones{pixel}),
                                                                          testing::Pair(*other.mac, Phones{keyOf(1)})));
    EXPECT_THAT(book.phonesByHardware(now + AddressBook::maxAge + 1s), testing::SizeIs(1)) << "the others are too old";
    EXPECT_THAT(book.lastMeetings(),
                testing::UnorderedElementsAre(testing::Pair(pixel, now + 1h), testing::Pair(keyOf(1), now)));
}

TEST_F(AddressBookTest, ChangesNothingOfOtherPhones) {
    reached("192.168.7.2", now);
    const std::vector<KnownAddress> before = book.addressesOf(pixel, now);
    EXPECT_TRUE(book.reached(keyOf(1), at("192.168.7.2"), now));
    EXPECT_TRUE(book.failed(keyOf(1), host("192.168.7.2"), home));
    EXPECT_TRUE(book.forget(keyOf(1)));
    EXPECT_FALSE(book.forget(keyOf(1)));
    EXPECT_EQ(book.addressesOf(pixel, now), before);
    EXPECT_FALSE(book.reached(PeerKey("no key"), at("192.168.7.2"), now));
}

// --- looking ---

TEST_F(AddressBookTest, LooksOnTheLinkAndWhereThePhoneWasReachedFromHere) {
    reached("10.9.8.7", now, work);
    reached("10.9.8.6", now - Days(1), home);
    came("192.168.7.2", now);
    reached("192.168.7.3", now - Days(2), work);
    const auto candidates = [this](const Surroundings& here) { return textsOf(book.candidates(pixel, here, now)); };
    EXPECT_THAT(candidates(onlyOnLink({})), IsEmpty());
    EXPECT_THAT(candidates(onlyOnLink({}, {home})), ElementsAre("10.9.8.6"));
    EXPECT_THAT(candidates(onlyOnLink({}, {home, work})), ElementsAre("10.9.8.7", "10.9.8.6", "192.168.7.3"));
    EXPECT_THAT(candidates(onlyOnLink({"192.168.7.2", "192.168.7.3"})), ElementsAre("192.168.7.3", "192.168.7.2"));
    EXPECT_THAT(book.candidates(keyOf(1), everywhere(), now), IsEmpty());
}

TEST_F(AddressBookTest, LooksAtALinkLocalAddressOnTheLinkOnly) {
    reached("fe80::1", now);
    EXPECT_THAT(book.candidates(pixel, onlyOnLink({}, {home}), now), IsEmpty()) << "its interface may be gone";
    EXPECT_THAT(textsOf(book.candidates(pixel, onlyOnLink({"fe80::1"}), now)), ElementsAre("fe80::1"));
}

TEST_F(AddressBookTest, LooksAtFourAddressesTheBest) {
    for (int i = 0; i < 8; ++i) {
        reached("192.168.7." + std::to_string(10 + i), now - Days(10 - i));
    }
    fail("192.168.7.17", 3);
    EXPECT_THAT(textsOf(book.candidates(pixel, everywhere(), now)),
                ElementsAre("192.168.7.16", "192.168.7.15", "192.168.7.14", "192.168.7.13"));
}

// --- what was told, and sweeps ---

TEST_F(AddressBookTest, RemembersWhatPhonesWereTold) {
    EXPECT_TRUE(book.tell({.host = host("192.168.7.10"), .port = 28471}));
    EXPECT_FALSE(book.tell({.host = host("192.168.7.10", "eth0"), .port = 28471})) << "the same";
    EXPECT_FALSE(book.tell({.host = host("192.168.7.11"), .port = 0}));
    EXPECT_TRUE(book.tell({.host = host("fe80::1"), .port = 28472}));
    EXPECT_EQ(book.told(), (ToldAddress{.host = host("fe80::1"), .port = 28472}));
    EXPECT_EQ(AddressBook::decode(asBytes(book.encode())), book);
}

TEST_F(AddressBookTest, HasANetworkSweptOnceInTenMinutes) {
    EXPECT_TRUE(book.claimSweep(home, now));
    EXPECT_FALSE(book.claimSweep(home, now));
    EXPECT_TRUE(book.claimSweep(work, now + 1min));
    EXPECT_FALSE(book.claimSweep(home, now + 10min - 1ms));
    EXPECT_TRUE(book.claimSweep(home, now + 10min));
    EXPECT_FALSE(book.claimSweep(home, now + 11min));
}

TEST_F(AddressBookTest, CountsASweepThatAPersonHasMade) {
    EXPECT_TRUE(book.claimSweep(home, now));
    EXPECT_TRUE(book.noteSweep(home, now + 5min));
    EXPECT_FALSE(book.claimSweep(home, now + 14min));
    EXPECT_TRUE(book.claimSweep(home, now + 15min));
    EXPECT_FALSE(book.noteSweep(home, EpochMilliseconds())) << "a clock that is not set";
}

TEST_F(AddressBookTest, HasANetworkSweptAlsoAfterTheClockWasSetBack) {
    EXPECT_TRUE(book.claimSweep(home, now + Days(4000)));
    EXPECT_TRUE(book.claimSweep(home, now)) << "not only in eleven years";
    EXPECT_FALSE(book.claimSweep(home, now + 1min));
    EXPECT_FALSE(book.claimSweep(work, EpochMilliseconds()));
}

TEST_F(AddressBookTest, HasSixteenNetworksSweptAtMost) {
    for (int i = 0; i < 16; ++i) {
        EXPECT_TRUE(book.claimSweep(*NetworkId::parse("00000000000000" + std::to_string(10 + i)), now));
    }
    EXPECT_FALSE(book.claimSweep(home, now));
    EXPECT_TRUE(book.claimSweep(home, now + 10min));
}

// --- changes of the record ---

TEST_F(AddressBookTest, HasTheAddressInARecordReplacedOnceAMinute) {
    EXPECT_TRUE(book.mayMove(pixel, now));
    EXPECT_TRUE(book.mayMove(pixel, now)) << "nothing has been replaced yet";
    EXPECT_TRUE(book.moved(pixel, now));
    EXPECT_FALSE(book.mayMove(pixel, now));
    EXPECT_FALSE(AddressBook::decode(asBytes(book.encode())).mayMove(pixel, now + 59s)) << "by another process";
    EXPECT_TRUE(book.mayMove(pixel, now + 60s));
    EXPECT_TRUE(book.mayMove(pixel, now - 1s)) << "the clock was set back";
    EXPECT_TRUE(book.moved(pixel, now + 60s));
    EXPECT_FALSE(book.mayMove(pixel, now + 119s));
    EXPECT_FALSE(book.mayMove(PeerKey("no key"), now));
    EXPECT_FALSE(book.moved(PeerKey("no key"), now));
    EXPECT_FALSE(book.mayMove(pixel, EpochMilliseconds()));
    EXPECT_FALSE(book.moved(pixel, EpochMilliseconds()));
}

TEST_F(AddressBookTest, ForgetsThatTheAddressOfARemovedPhoneWasReplaced) {
    EXPECT_TRUE(book.moved(pixel, now));
    EXPECT_TRUE(book.knows(pixel));
    EXPECT_TRUE(book.forget(pixel));
    EXPECT_EQ(book, AddressBook());
    EXPECT_TRUE(book.mayMove(pixel, now));
    EXPECT_TRUE(book.moved(pixel, now));
    EXPECT_FALSE(book.keepOnly({pixel}));
    EXPECT_TRUE(book.keepOnly({}));
    EXPECT_EQ(book, AddressBook());
}

} // namespace
} // namespace orlinth::host
