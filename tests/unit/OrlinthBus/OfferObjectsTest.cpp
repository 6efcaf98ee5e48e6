#include "OrlinthBus/OfferObjects.h"

#include "OrlinthBus/ObjectPath.h"

#include <gtest/gtest.h>

namespace orlinth::bus {
namespace {

const PeerKey phone{"hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo="};

TEST(OfferObjects, HaveWhatTheirInterfaceSaysAndNothingElse) {
    BusObjects objects;
    addOffers(objects, {{.number = host::OfferNumber{3},
                         .peerKey = phone,
                         .phone = "Pixel 8",
                         .name = "film.mov",
                         .size = 4'100'000,
                         .expires = fromEpochMilliseconds(1'731'686'400'000)},
                        {.number = host::OfferNumber{4}, .peerKey = phone, .name = "a", .size = -1}});
    ASSERT_EQ(2U, objects.size());
    const BusObject& asked = objects.at("/com/tarvinex/orlinth1/offers/3");
    EXPECT_EQ(BusValue(ObjectPath{pathOfPhone(phone)}), asked.properties.at("Phone"));
    EXPECT_EQ(BusValue(std::string("film.mov")), asked.properties.at("Name"));
    EXPECT_EQ(BusValue(std::uint64_t{4'100'000}), asked.properties.at("Size"));
    EXPECT_EQ(BusValue(std::uint64_t{1'731'686'400'000}), asked.properties.at("Expires"));
    const BusObject& waiting = objects.at("/com/tarvinex/orlinth1/offers/4");
    EXPECT_EQ(BusValue(std::uint64_t{0}), waiting.properties.at("Expires")) << "it has not been asked";
    EXPECT_EQ(BusValue(std::uint64_t{0}), waiting.properties.at("Size"));
    const BusInterface interface = offerInterface();
    for (const auto& [path, object] : objects) {
        EXPECT_EQ(interface.name, object.interface);
        ASSERT_EQ(interface.properties.size(), object.properties.size());
        for (const BusInterface::Property& property : interface.properties) {
            EXPECT_EQ(property.signature, signatureOf(object.properties.at(property.name))) << property.name;
        }
    }
}

} // namespace
} // namespace orlinth::bus
