#include "OrlinthBus/MethodRights.h"

#include "OrlinthBus/ServiceObjects.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace orlinth::bus {
namespace {

TEST(MethodRights, AreSaidOfEachMethodThatThereIs) {
    std::size_t methods = 0;
    for (const BusInterface& interface : serviceInterfaces()) {
        for (const BusInterface::Method& method : interface.methods) {
            EXPECT_TRUE(rightOf(interface.name, method.name).has_value()) << interface.name << "." << method.name;
            ++methods;
        }
    }
    EXPECT_GE(methods, 11U);
}

TEST(MethodRights, LetASandboxAddToWhatIsSentAndSteerThatAndNothingElse) {
    std::set<std::string> everybodys;
    for (const BusInterface& interface : serviceInterfaces()) {
        for (const BusInterface::Method& method : interface.methods) {
            if (rightOf(interface.name, method.name) == MethodRight::everybody) {
                everybodys.insert(interface.name.substr(interface.name.rfind('.') + 1) + "." + method.name);
            }
        }
    }
    EXPECT_EQ((std::set<std::string>{"Service.SendFiles", "Batch.Cancel", "Batch.RetryNow", "Transfer.Cancel"}),
              everybodys);
}

TEST(MethodRights, OfAMethodThatNobodyHasThoughtOfAreNobodys) {
    EXPECT_EQ(std::nullopt, rightOf("com.tarvinex.orlinth1.Service", "Format"));
    EXPECT_EQ(std::nullopt, rightOf("com.tarvinex.orlinth1.Phone", "Cancel")) << "that is another interface's";
    EXPECT_EQ(std::nullopt, rightOf("", "Remove"));
}

TEST(MethodRights, OfAPairingAndAnOfferAreNoSandboxes) {
    for (const char* const member : {"GetCode", "Confirm", "Cancel"}) {
        EXPECT_EQ(MethodRight::unjailed, rightOf("com.tarvinex.orlinth1.Pairing", member)) << member;
    }
    EXPECT_EQ(MethodRight::unjailed, rightOf("com.tarvinex.orlinth1.Offer", "Accept"));
    EXPECT_EQ(MethodRight::unjailed, rightOf("com.tarvinex.orlinth1.Offer", "Decline"));
    EXPECT_EQ(MethodRight::unjailed, rightOf("com.tarvinex.orlinth1.Service", "SetSetting"));
}

} // namespace
} // namespace orlinth::bus
