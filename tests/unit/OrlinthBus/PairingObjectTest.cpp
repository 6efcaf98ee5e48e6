#include "OrlinthBus/PairingObject.h"

#include "OrlinthHost/HostError.h"

#include <gtest/gtest.h>

namespace orlinth::bus {
namespace {

using State = host::PairingView::State;

TEST(PairingObject, HasWhatItsInterfaceSaysAndNothingElse) {
    BusObjects objects;
    addPairing(objects, host::PairingView{.state = State::failed,
                                          .digits = "0123",
                                          .confirmationCode = "4567",
                                          .phone = "Pixel\n8",
                                          .expires = fromEpochMilliseconds(1'731'686'400'000),
                                          .problem = "it went wrong",
                                          .hint = "try again"});
    ASSERT_EQ(1U, objects.size());
    const BusObject& object = objects.at("/com/tarvinex/orlinth1/pairing");
    const BusInterface interface = pairingInterface();
    EXPECT_EQ(interface.name, object.interface);
    ASSERT_EQ(interface.properties.size(), object.properties.size());
    for (const BusInterface::Property& property : interface.properties) {
        EXPECT_EQ(property.signature, signatureOf(object.properties.at(property.name))) << property.name;
    }
    EXPECT_EQ(BusValue(std::string("failed")), object.properties.at("State"));
    EXPECT_EQ(BusValue(std::string("0123")), object.properties.at("Digits"));
    EXPECT_EQ(BusValue(std::string("4567")), object.properties.at("ConfirmationCode"));
    EXPECT_EQ(BusValue(std::string("Pixel\\u{000A}8")), object.properties.at("PhoneName"))
        << "phones choose their names";
    EXPECT_EQ(BusValue(std::uint64_t{1'731'686'400'000}), object.properties.at("Expires"));
    EXPECT_EQ(BusValue(ProblemText{.text = "it went wrong", .hint = "try again"}), object.properties.at("Problem"));
}

TEST(PairingObject, IsThereOnlyWithAPairing) {
    BusObjects objects;
    addPairing(objects, std::nullopt);
    EXPECT_TRUE(objects.empty());
    addPairing(objects, host::PairingView{});
    EXPECT_EQ(BusValue(std::string("waiting")), objects.at(pairingPath).properties.at("State"));
    EXPECT_EQ(BusValue(std::uint64_t{0}), objects.at(pairingPath).properties.at("Expires"));
}

TEST(PairingObject, OptionsAreThoseOfTheCommandLineAndOthersAreIgnored) {
    const host::PairingOptions none = pairingOptionsIn({});
    EXPECT_EQ("", none.interface);
    EXPECT_EQ(Seconds(2min), none.timeout);
    EXPECT_FALSE(none.isAnnounced);
    EXPECT_FALSE(none.isPublic);
    const host::PairingOptions all = pairingOptionsIn({{"interface", "wlan0"},
                                                       {"timeout", std::int64_t{30}},
                                                       {"announce", true},
                                                       {"listen-public", true},
                                                       {"colour", "blue"}});
    EXPECT_EQ("wlan0", all.interface);
    EXPECT_EQ(Seconds(30s), all.timeout);
    EXPECT_TRUE(all.isAnnounced);
    EXPECT_TRUE(all.isPublic);
    for (const std::int64_t seconds : {0, -1, 3601}) {
        EXPECT_THROW(static_cast<void>(pairingOptionsIn({{"timeout", seconds}})), host::HostError) << seconds;
    }
    EXPECT_THROW(static_cast<void>(pairingOptionsIn({{"announce", "yes"}})), host::HostError);
    EXPECT_THROW(static_cast<void>(pairingOptionsIn({{"interface", true}})), host::HostError);
}

} // namespace
} // namespace orlinth::bus
