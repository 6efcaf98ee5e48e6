#include "platform/linux/NetlinkMessages.h"

#include <gmock/gmock.h>

#include <bit>
#include <cerrno>
#include <linux/rtnetlink.h>

namespace orlinth::platform {
namespace {

static_assert(std::endian::native == std::endian::little, "the messages below are those of such a machine");

/// Bytes as they are written in hexadecimal; blanks are left out.
Bytes hex(std::string_view text) {
    Bytes bytes;
    std::string digits;
    for (const char c : text) {
        if (c != ' ') {
            digits += c;
        }
        if (digits.size() == 2) {
            bytes.push_back(static_cast<std::byte>(std::stoi(digits, nullptr, 16)));
            digits.clear();
        }
    }
    return bytes;
}

/// 192.168.7.30 is 3e:11:22:33:44:55 at interface 3, stale, confirmed 12.34 s ago.
const Bytes neighbourV4 = hex("4c000000 1c00 0200 01000000 78563412" // length, RTM_NEWNEIGH, multipart, sequence, port
                              "02 00 0000 03000000 0400 00 01"       // IPv4, interface, NUD_STALE, unicast
                              "0800 0100 c0a8071e"                   // NDA_DST
                              "0a00 0200 3e1122334455 0000"          // NDA_LLADDR and its padding
                              "0800 0400 01000000"                   // NDA_PROBES
                              "1400 0300 d2040000 10270000 d2040000 00000000"); // NDA_CACHEINFO

/// fe80::1 at interface 2 has gone.
const Bytes neighbourV6 = hex("30000000 1d00 0000 00000000 00000000" // RTM_DELNEIGH, an event
                              "0a 00 0000 02000000 2000 80 01"       // IPv6, NUD_FAILED
                              "1400 0100 fe800000000000000000000000000001");

/// 10.1.0.5 goes by 192.168.7.1 at interface 3, from 192.168.7.10.
const Bytes routeV4 = hex("3c000000 1800 0000 01000000 00000000" // RTM_NEWROUTE
                          "02 20 00 00 fe 00 00 01 00020000"     // IPv4, /32, RTN_UNICAST, RTM_F_CLONED
                          "0800 0100 0a010005"                   // RTA_DST
                          "0800 0400 03000000"                   // RTA_OIF
                          "0800 0700 c0a8070a"                   // RTA_PREFSRC
                          "0800 0500 c0a80701");                 // RTA_GATEWAY

/// The same by fe80::1 (RTA_VIA).
const Bytes routeVia = hex("3c000000 1800 0000 01000000 00000000"
                           "02 20 00 00 fe 00 00 01 00020000"
                           "0800 0400 03000000"
                           "1600 1200 0a00 fe800000000000000000000000000001 0000");

/// 10.8.0.2, the other end of which is 10.8.0.1, at interface 7.
const Bytes addressV4 = hex("28000000 1400 0000 00000000 00000000" // RTM_NEWADDR
                            "02 20 80 00 07000000"
                            "0800 0100 0a080001"   // IFA_ADDRESS
                            "0800 0200 0a080002"); // IFA_LOCAL

/// wlan0 is interface 3, up and running, with Ethernet's addresses.
const Bytes linkWlan = hex("2c000000 1000 0000 00000000 00000000" // RTM_NEWLINK
                           "00 00 0100 03000000 43100100 00000000"
                           "0a00 0300 776c616e3000 0000"); // IFLA_IFNAME "wlan0"

/// No route: the kernel quotes the request's header.
const Bytes refusal = hex("24000000 0200 0000 01000000 00000000" // NLMSG_ERROR
                          "9bffffff"                             // -ENETUNREACH
                          "1c000000 1a00 0100 01000000 00000000");

const Bytes done = hex("14000000 0300 0200 01000000 00000000 00000000"); // NLMSG_DONE
const Bytes overrun = hex("10000000 0400 0000 00000000 00000000");       // NLMSG_OVERRUN
const Bytes noop = hex("10000000 0100 0000 00000000 00000000");          // NLMSG_NOOP
const Bytes bridge = hex("1c000000 1c00 0000 00000000 00000000"          // RTM_NEWNEIGH of AF_BRIDGE
                         "07 00 0000 03000000 8000 02 00");

const std::vector<std::pair<const char*, Bytes>> samples{
    {"neighbourV4", neighbourV4}, {"neighbourV6", neighbourV6}, {"routeV4", routeV4}, {"routeVia", routeVia},
    {"addressV4", addressV4},     {"linkWlan", linkWlan},       {"refusal", refusal}, {"done", done}};

/// The body of a datagram's only message.
template <typename Body>
Body only(const Bytes& datagram) {
    const NetlinkDatagram parsed = parseNetlink(datagram);
    EXPECT_FALSE(parsed.isDamaged);
    EXPECT_EQ(parsed.messages.size(), 1u);
    return std::get<Body>(parsed.messages.at(0).body);
}

/// A copy with one byte changed.
Bytes with(Bytes bytes, std::size_t place, int value) {
    bytes.at(place) = static_cast<std::byte>(value);
    return bytes;
}

IpAddress address(const char* literal) {
    return parseIpAddress(literal).value();
}

TEST(NetlinkMessages, ReadANeighbour) {
    const auto neighbour = only<NetlinkNeighbour>(neighbourV4);
    EXPECT_FALSE(neighbour.isGone);
    EXPECT_EQ(neighbour.entry, (Neighbour{.address = address("192.168.7.30"),
                                          .interfaceIndex = 3,
                                          .interface = "",
                                          .hardware = hex("3e1122334455"),
                                          .state = NeighbourState::stale,
                                          .confirmedAge = 12.34s}));
    const NetlinkMessage message = parseNetlink(neighbourV4).messages.at(0);
    EXPECT_EQ(message.sequence, 1u);
    EXPECT_TRUE(message.isMultipart);
    EXPECT_FALSE(message.isInterrupted);
}

TEST(NetlinkMessages, ReadANeighbourThatHasGone) {
    const auto neighbour = only<NetlinkNeighbour>(neighbourV6);
    EXPECT_TRUE(neighbour.isGone);
    EXPECT_EQ(neighbour.entry, (Neighbour{.address = address("fe80::1"),
                                          .interfaceIndex = 2,
                                          .interface = "",
                                          .hardware = {},
                                          .state = NeighbourState::failed,
                                          .confirmedAge = std::nullopt}));
    EXPECT_FALSE(parseNetlink(neighbourV6).messages.at(0).isMultipart);
}

TEST(NetlinkMessages, ReadEveryStateOfANeighbour) {
    const std::vector<std::pair<int, NeighbourState>> states{
        {0x00, NeighbourState::unknown}, {0x01, NeighbourState::incomplete}, {0x02, NeighbourState::reachable},
        {0x04, NeighbourState::stale},   {0x08, NeighbourState::delay},      {0x10, NeighbourState::probe},
        {0x20, NeighbourState::failed},  {0x40, NeighbourState::noArp},      {0x80, NeighbourState::permanent},
        {0x06, NeighbourState::unknown}};
    constexpr std::size_t place = 16 + 8;
    for (const auto& [bits, state] : states) {
        EXPECT_EQ(only<NetlinkNeighbour>(with(neighbourV4, place, bits)).entry.state, state) << bits;
    }
}

TEST(NetlinkMessages, ReadARoute) {
    const auto route = only<NetlinkRoute>(routeV4);
    EXPECT_FALSE(route.isGone);
    EXPECT_EQ(route.type, RTN_UNICAST);
    EXPECT_EQ(route.gateway, address("192.168.7.1"));
    EXPECT_EQ(route.source, address("192.168.7.10"));
    EXPECT_EQ(route.interfaceIndex, 3u);
    EXPECT_TRUE(only<NetlinkRoute>(with(routeV4, 4, RTM_DELROUTE)).isGone);
}

TEST(NetlinkMessages, ReadANextHopOfTheOtherFamily) {
    EXPECT_EQ(only<NetlinkRoute>(routeVia).gateway, address("fe80::1"));
    EXPECT_EQ(only<NetlinkRoute>(routeVia).source, std::nullopt);
    constexpr std::size_t family = 16 + 12 + 8 + 4;
    EXPECT_EQ(only<NetlinkRoute>(with(routeVia, family, AF_PACKET)).gateway, std::nullopt);
    EXPECT_TRUE(parseNetlink(with(routeVia, family, AF_INET)).isDamaged); // it has not four bytes
}

TEST(NetlinkMessages, ReadAnAddressOfThisComputer) {
    const auto own = only<NetlinkAddress>(addressV4);
    EXPECT_FALSE(own.isGone);
    EXPECT_EQ(own.interfaceIndex, 7u);
    EXPECT_EQ(own.address, address("10.8.0.2")); // not the other end
    EXPECT_EQ(own.prefixBits, 32);
    EXPECT_TRUE(only<NetlinkAddress>(with(addressV4, 4, RTM_DELADDR)).isGone);
}

TEST(NetlinkMessages, ReadALink) {
    const auto link = only<NetlinkLink>(linkWlan);
    EXPECT_FALSE(link.isGone);
    EXPECT_EQ(link.interfaceIndex, 3u);
    EXPECT_EQ(link.name, "wlan0");
    EXPECT_EQ(link.flags, 0x11043u);
    EXPECT_EQ(link.hardware, 1);
    EXPECT_TRUE(only<NetlinkLink>(with(linkWlan, 4, RTM_DELLINK)).isGone);
}

TEST(NetlinkMessages, ReadTheEndOfAnAnswer) {
    EXPECT_EQ(only<NetlinkEnd>(refusal).errorNumber, ENETUNREACH);
    EXPECT_EQ(only<NetlinkEnd>(done).errorNumber, 0);
    EXPECT_EQ(only<NetlinkEnd>(with(done, 16, 1)).errorNumber, EPROTO); // errors are negative
    Bytes least = done;
    least[19] = std::byte{0x80}; // has no positive counterpart
    EXPECT_EQ(only<NetlinkEnd>(least).errorNumber, EPROTO);
}

TEST(NetlinkMessages, ReadAnOverrunAndAnInterruptedList) {
    only<NetlinkOverrun>(overrun);
    EXPECT_TRUE(parseNetlink(with(done, 6, NLM_F_MULTI | NLM_F_DUMP_INTR)).messages.at(0).isInterrupted);
}

TEST(NetlinkMessages, LeaveOutWhatIsNotWanted) {
    const NetlinkDatagram parsed = parseNetlink(concatenate({noop, bridge, neighbourV4, noop}));
    EXPECT_FALSE(parsed.isDamaged);
    EXPECT_EQ(parsed.messages.size(), 1u);
    EXPECT_FALSE(parseNetlink({}).isDamaged);
    const Bytes withoutAddress = hex("1c000000 1c00 0000 00000000 00000000 02 00 0000 03000000 8000 02 00");
    EXPECT_TRUE(parseNetlink(withoutAddress).messages.empty());
    EXPECT_FALSE(parseNetlink(withoutAddress).isDamaged);
}

TEST(NetlinkMessages, ReadSeveralInOrder) {
    const NetlinkDatagram parsed = parseNetlink(concatenate({neighbourV4, neighbourV6, routeV4, done}));
    EXPECT_FALSE(parsed.isDamaged);
    ASSERT_EQ(parsed.messages.size(), 4u);
    EXPECT_TRUE(std::holds_alternative<NetlinkNeighbour>(parsed.messages[0].body));
    EXPECT_TRUE(std::get<NetlinkNeighbour>(parsed.messages[1].body).isGone);
    EXPECT_TRUE(std::holds_alternative<NetlinkRoute>(parsed.messages[2].body));
    EXPECT_TRUE(std::holds_alternative<NetlinkEnd>(parsed.messages[3].body));
}

TEST(NetlinkMessages, ReportEveryTruncation) {
    for (const auto& [name, sample] : samples) {
        for (std::size_t size = 1; size < sample.size(); ++size) {
            SCOPED_TRACE(std::string(name) + " of " + std::to_string(size));
            const NetlinkDatagram parsed = parseNetlink(concatenate({neighbourV6, ByteView(sample).first(size)}));
            EXPECT_TRUE(parsed.isDamaged);
            EXPECT_EQ(parsed.messages.size(), 1u) << "what lies before it";
        }
    }
}

TEST(NetlinkMessages, ReportAMessageThatEndsTooEarlyAndReadTheNext) {
    // The header's length is shortened with the bytes: the datagram is whole, the message is not.
    for (const auto& [name, sample] : samples) {
        for (std::size_t size = 16; size < sample.size(); size += 4) {
            SCOPED_TRACE(std::string(name) + " of " + std::to_string(size));
            Bytes shortened(sample.begin(), sample.begin() + static_cast<std::ptrdiff_t>(size));
            shortened[0] = static_cast<std::byte>(size);
            const NetlinkDatagram parsed = parseNetlink(concatenate({shortened, overrun}));
            ASSERT_FALSE(parsed.messages.empty());
            EXPECT_TRUE(std::holds_alternative<NetlinkOverrun>(parsed.messages.back().body));
            EXPECT_LE(parsed.messages.size(), 2u);
        }
    }
    // In the middle of an attribute that is wanted.
    Bytes shortened(neighbourV4.begin(), neighbourV4.begin() + 16 + 12 + 6);
    shortened[0] = static_cast<std::byte>(shortened.size());
    EXPECT_TRUE(parseNetlink(shortened).isDamaged);
    EXPECT_TRUE(parseNetlink(shortened).messages.empty());
}

TEST(NetlinkMessages, ReportALengthThatIsTooShortOrTooLong) {
    for (const auto& [name, sample] : samples) {
        for (const int length : {0, 1, 4, 15}) {
            SCOPED_TRACE(std::string(name) + " with " + std::to_string(length));
            const NetlinkDatagram parsed = parseNetlink(concatenate({with(sample, 0, length), overrun}));
            EXPECT_TRUE(parsed.isDamaged);
            EXPECT_TRUE(parsed.messages.empty()) << "where the next begins is not known";
        }
        for (std::size_t place = 0; place < 4; ++place) {
            const NetlinkDatagram parsed = parseNetlink(with(sample, place, 0xFF));
            EXPECT_TRUE(parsed.isDamaged) << name << " at " << place;
            EXPECT_TRUE(parsed.messages.empty());
        }
    }
}

TEST(NetlinkMessages, ReportAnAttributeWhoseLengthIsWrong) {
    constexpr std::size_t firstAttribute = 16 + 12;
    for (const int length : {0, 1, 3, 7, 9, 0x30, 0xFF}) {
        SCOPED_TRACE(length);
        const NetlinkDatagram parsed = parseNetlink(concatenate({with(neighbourV4, firstAttribute, length), overrun}));
        EXPECT_TRUE(parsed.isDamaged);
        ASSERT_EQ(parsed.messages.size(), 1u);
        EXPECT_TRUE(std::holds_alternative<NetlinkOverrun>(parsed.messages[0].body)) << "the next is read";
    }
    for (const std::size_t nameLength : {std::size_t{4}, std::size_t{5}}) { // no name, an empty one
        Bytes link = with(linkWlan, 32, static_cast<int>(nameLength));
        link[36] = std::byte{};
        link.resize(32 + 8);
        link[0] = static_cast<std::byte>(link.size());
        EXPECT_TRUE(parseNetlink(link).isDamaged) << nameLength;
    }
}

TEST(NetlinkMessages, SurviveEveryFlippedBit) {
    for (const auto& [name, sample] : samples) {
        for (std::size_t bit = 0; bit < sample.size() * 8; ++bit) {
            Bytes flipped = sample;
            flipped[bit / 8] ^= static_cast<std::byte>(1U << (bit % 8));
            const NetlinkDatagram parsed = parseNetlink(concatenate({flipped, done}));
            EXPECT_LE(parsed.messages.size(), 3u) << name << " bit " << bit;
            EXPECT_TRUE(parsed.isDamaged || !parsed.messages.empty()) << name << " bit " << bit;
        }
    }
}

TEST(NetlinkMessages, AskForTheNeighbours) {
    EXPECT_EQ(neighbourListRequest(0x01020304), hex("1c000000 1e00 0103 04030201 00000000"
                                                    "00 00 0000 00000000 0000 00 00"));
}

TEST(NetlinkMessages, AskForTheWayToAnAddress) {
    EXPECT_EQ(routeRequest(1, address("192.168.7.30"), 0), hex("24000000 1a00 0100 01000000 00000000"
                                                               "02 20 00 00 00 00 00 00 00000000"
                                                               "0800 0100 c0a8071e"));
    EXPECT_EQ(routeRequest(2, address("fe80::1%eth0"), 5), hex("38000000 1a00 0100 02000000 00000000"
                                                               "0a 80 00 00 00 00 00 00 00000000"
                                                               "1400 0100 fe800000000000000000000000000001"
                                                               "0800 0400 05000000"));
}

} // namespace
} // namespace orlinth::platform
