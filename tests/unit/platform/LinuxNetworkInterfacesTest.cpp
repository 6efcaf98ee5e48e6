#include "platform/linux/LinuxNetworkInterfaces.h"

#include "platform/IpAddress.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sys/utsname.h>

using namespace orlinth;
using namespace orlinth::platform;

namespace {

std::vector<InterfaceAddress> loopbackEntries() {
    std::vector<InterfaceAddress> entries = LinuxNetworkInterfaces().list();
    std::erase_if(entries, [](const InterfaceAddress& entry) { return entry.name != "lo"; });
    return entries;
}

TEST(LinuxNetworkInterfaces, ListsLoopbackWithItsAddressAndNetmask) {
    std::size_t found = 0;
    for (const InterfaceAddress& entry : loopbackEntries()) {
        EXPECT_TRUE(entry.isUp && entry.isRunning && entry.isLoopback && !entry.isPointToPoint);
        EXPECT_TRUE(!entry.isWireless && !entry.isTunDevice);
        const auto* const ipv4 = std::get_if<InterfaceAddress::Ipv4>(&entry.address);
        if (ipv4 != nullptr && ipv4->address == Ipv4Address{127, 0, 0, 1}) {
            EXPECT_EQ(ipv4->netmask, (Ipv4Address{255, 0, 0, 0}));
            ++found;
        }
    }
    EXPECT_EQ(found, 1u);
}

TEST(LinuxNetworkInterfaces, ListsTheHardwareAddressOfLoopbackBeforeItsOthers) {
    const std::vector<InterfaceAddress> entries = loopbackEntries();
    ASSERT_FALSE(entries.empty());
    const auto* const hardware = std::get_if<InterfaceAddress::Hardware>(&entries.front().address);
    ASSERT_NE(hardware, nullptr);
    EXPECT_EQ(hardware->address, Bytes(6));
}

TEST(LinuxNetworkInterfaces, TellsTheKernelsNameOfThisComputer) {
    utsname names{};
    ASSERT_EQ(::uname(&names), 0);
    EXPECT_EQ(LinuxNetworkInterfaces().hostName(), names.nodename);
}

TEST(DottedDecimal, WritesFourNumbers) {
    EXPECT_EQ(dottedDecimal({192, 168, 1, 23}), "192.168.1.23");
    EXPECT_EQ(dottedDecimal({0, 0, 0, 0}), "0.0.0.0");
    EXPECT_EQ(dottedDecimal({255, 255, 255, 255}), "255.255.255.255");
    EXPECT_EQ(dottedDecimal({1, 0, 10, 100}), "1.0.10.100");
}

// --- literals ---

std::string parsed(const std::string& literal) {
    const auto address = parseIpAddress(literal);
    if (!address) {
        return "none";
    }
    if (const auto* v4 = std::get_if<Ipv4Address>(&*address)) {
        return dottedDecimal(*v4);
    }
    const auto& v6 = std::get<Ipv6Address>(*address);
    return std::to_string(v6.bytes.front()) + "…" + std::to_string(v6.bytes.back()) +
           (v6.zone.empty() ? "" : " in " + v6.zone);
}

TEST(ParseIpAddress, ReadsBothKinds) {
    EXPECT_EQ(parsed("192.168.1.23"), "192.168.1.23");
    EXPECT_EQ(parsed("0.0.0.0"), "0.0.0.0");
    EXPECT_EQ(parsed("::"), "0…0");
    EXPECT_EQ(parsed("::1"), "0…1");
    EXPECT_EQ(parsed("fe80::2"), "254…2");
    EXPECT_EQ(parsed("FE80::2%eth0"), "254…2 in eth0");
    EXPECT_EQ(parsed("2001:db8:1:2:3:4:5:6"), "32…6");
    EXPECT_EQ(parsed("::ffff:1.2.3.4"), "0…4");
    EXPECT_EQ(parsed("fe80::2%wlp0s20f3.1234"), "254…2 in wlp0s20f3.1234");
}

TEST(ParseIpAddress, RefusesEverythingElse) {
    for (const std::string& literal : {std::string(),
                                       std::string("localhost"),
                                       std::string("1.2.3"),
                                       std::string("1.2.3.4.5"),
                                       std::string("127.1"),
                                       std::string("1.2.3.256"),
                                       std::string("01.2.3.4"),
                                       std::string("0x7f.0.0.1"),
                                       std::string("2130706433"),
                                       std::string(" 1.2.3.4"),
                                       std::string("1.2.3.4 "),
                                       std::string("1.2.3.4\n"),
                                       std::string("1.2.3.4%eth0"),
                                       std::string("1.2.3.4\0", 8),
                                       std::string("1.2.3.4\0x", 9),
                                       std::string("fe80::1\0", 8),
                                       std::string("[::1]"),
                                       std::string("1.2.3.4:80"),
                                       std::string(":::"),
                                       std::string("1::2::3"),
                                       std::string("12345::"),
                                       std::string("::1/128"),
                                       std::string("fe80::1%"),
                                       std::string("fe80::1%et/h"),
                                       std::string("fe80::1%e h"),
                                       std::string("fe80::1%a%b"),
                                       std::string("fe80::1%abcdefghijklmnop"),
                                       std::string("fe80::1%e\xC3\xB6"),
                                       std::string("%eth0"),
                                       std::string("fe80::1%.."),
                                       std::string("fe80::1%e\0", 10)}) {
        EXPECT_EQ(parsed(literal), "none") << literal;
    }
}

} // namespace
