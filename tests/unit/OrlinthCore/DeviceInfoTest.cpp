#include "OrlinthCore/Pairing/DeviceInfo.h"

#include "base/Hex.h"
#include "fakes/FakeNetworkInterfaces.h"

#include <gtest/gtest.h>

#include <cerrno>

using namespace orlinth;
using fakes::FakeNetworkInterfaces;
using platform::InterfaceAddress;
using platform::Ipv4Address;

namespace {

using Case = DeviceInfoError::Case;
constexpr const char* noInterface = "no active non-loopback IPv4 interface";

InterfaceAddress ipv4(const char* interface, Ipv4Address address,
                      std::optional<Ipv4Address> netmask = Ipv4Address{255, 255, 255, 0}) {
    return FakeNetworkInterfaces::ipv4(interface, address, netmask);
}

InterfaceAddress hardware(const char* interface, const char* hex) {
    return FakeNetworkInterfaces::hardware(interface, hexDecode(hex).value());
}

InterfaceAddress with(InterfaceAddress entry, bool InterfaceAddress::* flag, bool value = true) {
    entry.*flag = value;
    return entry;
}

class DeviceInfoTest : public testing::Test {
protected:
    [[nodiscard]] DeviceInfo current(const std::optional<std::string>& named = std::nullopt) const {
        return DeviceInfo::current(interfaces, named);
    }
    /// "interface address subnet hardware-address", or the text of the error.
    [[nodiscard]] std::string summary(const std::optional<std::string>& named = std::nullopt) const {
        try {
            const DeviceInfo device = current(named);
            return device.interface + " " + device.ipv4 + " " + device.subnetCIDR + " " + device.macAddress;
        } catch (const DeviceInfoError& error) {
            return error.description();
        }
    }
    [[nodiscard]] std::string subnet(Ipv4Address address, std::optional<Ipv4Address> netmask) {
        interfaces.addresses = {hardware("e0", "020000000001"), ipv4("e0", address, netmask)};
        return current().subnetCIDR;
    }

    FakeNetworkInterfaces interfaces;
};

TEST_F(DeviceInfoTest, TellsEverythingOfAWiredComputer) {
    EXPECT_EQ(current(), (DeviceInfo{.interface = "enp3s0",
                                     .ipv4 = "192.168.1.23",
                                     .subnetCIDR = "192.168.1.0/24",
                                     .macAddress = "3c:22:fb:01:02:0a",
                                     .hostname = "workshop"}));
}

TEST_F(DeviceInfoTest, TellsEverythingOfAnAddressThatTheComputerHas) {
    interfaces.addresses = {hardware("e0", "020000000001"),
                            ipv4("e0", {10, 0, 0, 1}),
                            ipv4("e0", {10, 0, 1, 1}),
                            hardware("lo", "000000000000"),
                            with(ipv4("lo", {127, 0, 0, 1}, Ipv4Address{255, 0, 0, 0}), &InterfaceAddress::isLoopback),
                            with(ipv4("e0", {10, 0, 2, 1}), &InterfaceAddress::isUp, false)};
    const auto summaryAt = [this](const Ipv4Address& address) {
        const DeviceInfo device = DeviceInfo::withAddress(interfaces, address);
        return device.interface + " " + device.ipv4 + " " + device.subnetCIDR + " " + device.macAddress;
    };
    EXPECT_EQ(summaryAt({10, 0, 1, 1}), "e0 10.0.1.1 10.0.1.0/24 02:00:00:00:00:01");
    EXPECT_EQ(summaryAt({127, 0, 0, 1}), "lo 127.0.0.1 127.0.0.0/8 00:00:00:00:00:00");
    for (const Ipv4Address& address : {Ipv4Address{10, 0, 2, 1}, Ipv4Address{127, 0, 0, 2}}) {
        EXPECT_THROW(static_cast<void>(summaryAt(address)), DeviceInfoError);
    }
}

TEST_F(DeviceInfoTest, ComparesFieldByField) {
    for (std::string DeviceInfo::* field : {&DeviceInfo::interface, &DeviceInfo::ipv4, &DeviceInfo::subnetCIDR,
                                            &DeviceInfo::macAddress, &DeviceInfo::hostname}) {
        DeviceInfo other = current();
        EXPECT_EQ(other, current());
        other.*field += "x";
        EXPECT_NE(other, current());
    }
}

TEST_F(DeviceInfoTest, FailsWithTheNumberOfTheSystemsError) {
    interfaces.listErrno = ENOMEM;
    EXPECT_EQ(summary(), "getifaddrs failed (errno 12)");
    interfaces.listErrno = EMFILE;
    EXPECT_EQ(summary("enp3s0"), "getifaddrs failed (errno 24)");
}

TEST_F(DeviceInfoTest, FailsForAListWithoutEntries) {
    interfaces.addresses.clear();
    EXPECT_EQ(summary(), "getifaddrs failed (errno 0)");
}

TEST_F(DeviceInfoTest, HasFixedTextsForItsErrors) {
    EXPECT_EQ(DeviceInfoError::getifaddrsFailed(-1).which(), Case::getifaddrsFailed);
    EXPECT_EQ(DeviceInfoError::getifaddrsFailed(-1).description(), "getifaddrs failed (errno -1)");
    EXPECT_EQ(DeviceInfoError::getifaddrsFailed(12).number(), 12);
    EXPECT_EQ(DeviceInfoError::macNotFound("br0").which(), Case::macNotFound);
    EXPECT_EQ(DeviceInfoError::macNotFound("br0").description(), "MAC address not found for br0");
    EXPECT_EQ(DeviceInfoError::noActiveInterface().which(), Case::noActiveInterface);
    EXPECT_EQ(DeviceInfoError::noActiveInterface().description(), noInterface);
}

TEST_F(DeviceInfoTest, FailsWithLoopbackAndLinkLocalAddressesAlone) {
    interfaces.addresses = {
        hardware("lo", "000000000000"),
        hardware("e0", "020000000001"),
        with(ipv4("lo", {127, 0, 0, 1}, Ipv4Address{255, 0, 0, 0}), &InterfaceAddress::isLoopback),
        ipv4("e0", {169, 254, 17, 4}, Ipv4Address{255, 255, 0, 0}),
    };
    EXPECT_EQ(summary(), noInterface);
}

TEST_F(DeviceInfoTest, SkipsEveryInterfaceThatIsNotUpAndRunningAndOfABroadcastKind) {
    const auto flags = {std::pair{&InterfaceAddress::isUp, false}, std::pair{&InterfaceAddress::isRunning, false},
                        std::pair{&InterfaceAddress::isLoopback, true},
                        std::pair{&InterfaceAddress::isPointToPoint, true}};
    for (const auto& [flag, value] : flags) {
        interfaces.addresses = {hardware("e0", "020000000001"), with(ipv4("e0", {10, 0, 0, 1}), flag, value)};
        EXPECT_EQ(summary(), noInterface);
        interfaces.addresses.push_back(hardware("e1", "020000000002"));
        interfaces.addresses.push_back(ipv4("e1", {10, 0, 1, 1}));
        EXPECT_EQ(summary(), "e1 10.0.1.1 10.0.1.0/24 02:00:00:00:00:02");
    }
}

TEST_F(DeviceInfoTest, SkipsLinkLocalAddressesAndNoNeighbours) {
    const auto isSkipped = [this](Ipv4Address address) {
        interfaces.addresses = {hardware("e0", "020000000001"), ipv4("e0", address)};
        return summary() == noInterface;
    };
    EXPECT_TRUE(isSkipped({169, 254, 0, 0}));
    EXPECT_TRUE(isSkipped({169, 254, 255, 255}));
    EXPECT_FALSE(isSkipped({169, 253, 255, 255}));
    EXPECT_FALSE(isSkipped({169, 255, 0, 0}));
    EXPECT_FALSE(isSkipped({16, 92, 54, 1}));
}

TEST_F(DeviceInfoTest, TakesTheSecondAddressOfAnInterfaceWhoseFirstIsLinkLocal) {
    interfaces.addresses = {hardware("e0", "020000000001"), ipv4("e0", {169, 254, 1, 1}), ipv4("e0", {10, 0, 0, 9})};
    EXPECT_EQ(summary(), "e0 10.0.0.9 10.0.0.0/24 02:00:00:00:00:01");
}

TEST_F(DeviceInfoTest, TakesWhatIsListedFirstWhateverItsName) {
    const std::vector<InterfaceAddress> wireless{hardware("wlan0", "020000000001"), ipv4("wlan0", {10, 0, 1, 1})};
    const std::vector<InterfaceAddress> wired{hardware("eth5", "020000000002"), ipv4("eth5", {10, 0, 2, 1})};
    interfaces.addresses = wireless;
    interfaces.addresses.insert(interfaces.addresses.end(), wired.begin(), wired.end());
    EXPECT_EQ(summary(), "wlan0 10.0.1.1 10.0.1.0/24 02:00:00:00:00:01");
    interfaces.addresses = wired;
    interfaces.addresses.insert(interfaces.addresses.end(), wireless.begin(), wireless.end());
    EXPECT_EQ(summary(), "eth5 10.0.2.1 10.0.2.0/24 02:00:00:00:00:02");
}

TEST_F(DeviceInfoTest, PassesOverEntriesOfOtherFamilies) {
    interfaces.addresses.insert(interfaces.addresses.begin(), FakeNetworkInterfaces::entry("ip6"));
    EXPECT_EQ(current().interface, "enp3s0");
    interfaces.addresses = {FakeNetworkInterfaces::entry("ip6"), hardware("ip6", "020000000001")};
    EXPECT_EQ(summary(), noInterface);
}

TEST_F(DeviceInfoTest, CountsTheBitsOfTheNetmask) {
    EXPECT_EQ(subnet({10, 1, 37, 5}, Ipv4Address{255, 255, 240, 0}), "10.1.32.0/20");
    EXPECT_EQ(subnet({10, 1, 37, 5}, Ipv4Address{255, 255, 255, 255}), "10.1.37.5/32");
    EXPECT_EQ(subnet({10, 1, 37, 5}, Ipv4Address{255, 255, 255, 254}), "10.1.37.4/31");
    EXPECT_EQ(subnet({210, 1, 37, 5}, Ipv4Address{128, 0, 0, 0}), "128.0.0.0/1");
    EXPECT_EQ(subnet({10, 1, 37, 5}, Ipv4Address{0, 0, 0, 0}), "0.0.0.0/0");
}

TEST_F(DeviceInfoTest, CountsTheBitsOfAMaskWithHolesToo) {
    EXPECT_EQ(subnet({10, 1, 37, 5}, Ipv4Address{255, 0, 255, 0}), "10.0.37.0/16");
    EXPECT_EQ(subnet({255, 255, 255, 255}, Ipv4Address{0x81, 0x42, 0x24, 0x18}), "129.66.36.24/8");
}

TEST_F(DeviceInfoTest, TakesAMissingNetmaskForZero) {
    EXPECT_EQ(subnet({10, 1, 37, 5}, std::nullopt), "0.0.0.0/0");
}

TEST_F(DeviceInfoTest, FailsWithoutAHardwareAddressOfSixBytes) {
    interfaces.addresses = {ipv4("br0", {10, 0, 0, 1})};
    EXPECT_EQ(summary(), "MAC address not found for br0");
    for (const char* address : {"", "02000000", "0200000001", "02000000000001", "0200000000000001"}) {
        interfaces.addresses = {hardware("br0", address), ipv4("br0", {10, 0, 0, 1})};
        EXPECT_EQ(summary(), "MAC address not found for br0") << address;
    }
}

TEST_F(DeviceInfoTest, DoesNotTakeTheHardwareAddressOfAnotherInterface) {
    interfaces.addresses = {hardware("br", "020000000001"), hardware("br00", "020000000002"),
                            ipv4("br0", {10, 0, 0, 1})};
    EXPECT_EQ(summary(), "MAC address not found for br0");
}

TEST_F(DeviceInfoTest, DoesNotGoOnToTheNextInterfaceForItsHardwareAddress) {
    interfaces.addresses.insert(interfaces.addresses.begin(), ipv4("br0", {10, 0, 0, 1}));
    EXPECT_EQ(summary(), "MAC address not found for br0");
}

TEST_F(DeviceInfoTest, TakesTheFirstOfSeveralHardwareAddressesThatHasSixBytes) {
    interfaces.addresses = {hardware("e0", "0200000000000001"), hardware("e1", "020000000001"),
                            hardware("e0", "0AB0FF00C102"), hardware("e0", "020000000003"), ipv4("e0", {10, 0, 0, 1})};
    EXPECT_EQ(current().macAddress, "0a:b0:ff:00:c1:02");
}

TEST_F(DeviceInfoTest, FindsTheHardwareAddressBehindTheAddressToo) {
    interfaces.addresses = {ipv4("e0", {10, 0, 0, 1}), hardware("e0", "020000000001")};
    EXPECT_EQ(current().macAddress, "02:00:00:00:00:01");
}

// --- an interface that somebody names ---

TEST_F(DeviceInfoTest, TakesTheNamedInterfaceBeforeThoseListedEarlier) {
    interfaces.addresses.push_back(hardware("e1", "020000000002"));
    interfaces.addresses.push_back(ipv4("e1", {10, 0, 1, 1}));
    interfaces.addresses.push_back(ipv4("e1", {10, 0, 2, 1}));
    EXPECT_EQ(summary("e1"), "e1 10.0.1.1 10.0.1.0/24 02:00:00:00:00:02");
}

TEST_F(DeviceInfoTest, NamedMayBeLoopbackLinkLocalOrWithoutALink) {
    interfaces.addresses = {hardware("lo", "000000000000"),
                            with(ipv4("lo", {127, 0, 0, 1}, Ipv4Address{255, 0, 0, 0}), &InterfaceAddress::isLoopback),
                            hardware("e0", "020000000001"),
                            with(ipv4("e0", {169, 254, 3, 4}), &InterfaceAddress::isRunning, false)};
    EXPECT_EQ(summary("lo"), "lo 127.0.0.1 127.0.0.0/8 00:00:00:00:00:00");
    EXPECT_EQ(summary("e0"), "e0 169.254.3.4 169.254.3.0/24 02:00:00:00:00:01");
}

TEST_F(DeviceInfoTest, NamedMayBeATunnelWithoutAHardwareAddress) {
    interfaces.addresses = {
        with(ipv4("wg0", {10, 9, 0, 1}, Ipv4Address{255, 255, 255, 255}), &InterfaceAddress::isPointToPoint)};
    EXPECT_EQ(summary("wg0"), "wg0 10.9.0.1 10.9.0.1/32 ");
}

TEST_F(DeviceInfoTest, NamedStillNeedsAHardwareAddressWhereItIsNoTunnel) {
    interfaces.addresses.push_back(ipv4("br0", {10, 0, 0, 1}));
    EXPECT_EQ(summary("br0"), "MAC address not found for br0");
}

TEST_F(DeviceInfoTest, NamedMustExistBeUpAndHaveAnAddress) {
    interfaces.addresses.push_back(with(ipv4("e1", {10, 0, 1, 1}), &InterfaceAddress::isUp, false));
    interfaces.addresses.push_back(hardware("e2", "020000000002"));
    interfaces.addresses.push_back(FakeNetworkInterfaces::entry("e2"));
    for (const char* named : {"e1", "e2", "e3", "", "enp3s", "enp3s0 ", "ENP3S0"}) {
        EXPECT_EQ(summary(named), noInterface) << named;
    }
}

// --- the computer's name ---

TEST_F(DeviceInfoTest, LeavesTheDomainOfTheHostNameAsItIs) {
    interfaces.name = "workshop.example.org";
    EXPECT_EQ(DeviceInfo::hostnameString(interfaces), "workshop.example.org");
    EXPECT_EQ(current().hostname, "workshop.example.org");
}

TEST_F(DeviceInfoTest, ReadsTheHostNameUpToItsFirstZeroByte) {
    interfaces.name = std::string("work\0shop", 9);
    EXPECT_EQ(DeviceInfo::hostnameString(interfaces), "work");
}

TEST_F(DeviceInfoTest, KeepsUnicodeInTheHostNameAndReplacesWhatIsNone) {
    interfaces.name = "Bücher-😀";
    EXPECT_EQ(DeviceInfo::hostnameString(interfaces), "Bücher-😀");
    interfaces.name = "caf\xE9";
    EXPECT_EQ(DeviceInfo::hostnameString(interfaces), "caf\uFFFD");
    interfaces.name = "";
    EXPECT_EQ(DeviceInfo::hostnameString(interfaces), "");
}

} // namespace
