#include "OrlinthBus/ServiceObjects.h"

#include "OrlinthBus/ObjectPath.h"

#include <gtest/gtest.h>

namespace orlinth::bus {
namespace {

using host::TransferView;
using State = TransferView::State;

const PeerKey phone{"hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo="};
constexpr platform::Clock::Instant noon{};

BusObjects show(const std::vector<host::PhoneView>& phones, const std::vector<TransferView>& transfers,
                const std::vector<host::OutboxView>& batches, platform::Clock::Instant now = noon) {
    return objectsOf({.state = host::ServiceView::State::listening, .port = 28471},
                     {.version = "1", .dataDirectory = "/d", .publicKey = "k"},
                     {{.name = "accept", .value = "ask", .fixedBy = "`--accept`"},
                      {.name = "history", .value = true},
                      {.name = "max-file", .value = std::int64_t{7}}},
                     phones, transfers, batches, now);
}

TransferView transfer(State state, std::optional<platform::Clock::Instant> endedAt = {}) {
    return {.number = host::TransferNumber{7}, .peerKey = phone, .state = state, .beganAt = noon, .endedAt = endedAt};
}

bool isShown(const TransferView& view, platform::Clock::Instant now) {
    return show({}, {view}, {}, now).contains(pathOfTransfer(host::TransferNumber{7}));
}

TEST(ServiceObjects, HaveWhatTheirInterfacesSayAndNothingElse) {
    const BusObjects objects = show({{.name = "Pixel 8", .presence = {.peerKey = phone}}}, {transfer(State::failed)},
                                    {{.batch = BatchId("B"), .peerKey = phone}});
    EXPECT_EQ(4U, objects.size());
    for (const auto& [path, object] : objects) {
        bool isDescribed = false;
        for (const BusInterface& interface : serviceInterfaces()) {
            if (interface.name != object.interface) {
                continue;
            }
            isDescribed = true;
            EXPECT_EQ(interface.properties.size(), object.properties.size()) << path;
            for (const BusInterface::Property& property : interface.properties) {
                ASSERT_TRUE(object.properties.contains(property.name)) << property.name;
                EXPECT_EQ(property.signature, signatureOf(object.properties.at(property.name))) << property.name;
            }
        }
        EXPECT_TRUE(isDescribed) << object.interface;
    }
}

TEST(ServiceObjects, ATransferIsOneWhenItIsASecondOldOrHasEndedBadly) {
    EXPECT_FALSE(isShown(transfer(State::active), noon + 900ms));
    EXPECT_TRUE(isShown(transfer(State::active), noon + 1s));
    EXPECT_FALSE(isShown(transfer(State::done, noon + 500ms), noon + 30s)) << "it was too short";
    EXPECT_TRUE(isShown(transfer(State::done, noon + 2s), noon + 30s));
    EXPECT_TRUE(isShown(transfer(State::failed, noon), noon));
    EXPECT_TRUE(isShown(transfer(State::cancelled, noon), noon));
}

TEST(ServiceObjects, APhoneKnowsHowManyFilesWaitForIt) {
    const std::vector<host::OutboxView> batches{
        {.batch = BatchId("A"), .peerKey = phone, .files = 5, .filesDone = 2},
        {.batch = BatchId("B"), .peerKey = phone, .files = 1},
        {.batch = BatchId("C"), .peerKey = phone, .files = 9, .state = host::OutboxView::State::failed},
        {.batch = BatchId("A"), .peerKey = PeerKey("another"), .files = 7}};
    const BusObjects objects = show({{.name = "Pixel 8", .presence = {.peerKey = phone}}}, {}, batches);
    EXPECT_EQ(BusValue(std::uint32_t{4}), objects.at(pathOfPhone(phone)).properties.at("WaitingFiles"));
}

TEST(ServiceObjects, AnObjectKeepsItsPath) {
    EXPECT_EQ(16U + std::string(phonesPath).size() + 1, pathOfPhone(phone).size());
    EXPECT_EQ(pathOfBatch(BatchId("0A1B-2C"), phone),
              std::string(batchesPath) + "/0A1B_2C_" + pathOfPhone(phone).substr(std::string(phonesPath).size() + 1));
    EXPECT_NE(pathOfPhone(phone), pathOfPhone(PeerKey("written by hand")));
}

TEST(ServiceObjects, APathThatIsNoTextIsShownAllTheSame) {
    TransferView view = transfer(State::failed);
    view.path = "/home/ada/\xFF";
    const BusObjects objects = show({}, {view}, {});
    EXPECT_EQ(BusValue(std::string("/home/ada/\uFFFD")),
              objects.at(pathOfTransfer(host::TransferNumber{7})).properties.at("Path"));
}

TEST(ServiceObjects, AZeroInANameEndsNothing) {
    const BusObjects objects = show({{.name = std::string("a\0b", 3), .presence = {.peerKey = phone}}}, {}, {});
    EXPECT_EQ(BusValue(std::string("ab")), objects.at(pathOfPhone(phone)).properties.at("Name"));
}

} // namespace
} // namespace orlinth::bus
