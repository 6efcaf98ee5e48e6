#include "OrlinthHost/Phones/PeerSelection.h"

#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Phones/LastPhone.h"
#include "fakes/World.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::UnorderedElementsAre;

/// The Base64 of 32 bytes that begins like this.
PeerKey keyLike(std::string beginning) {
    beginning.resize(42, 'A');
    return PeerKey(beginning + "E=");
}

class PeerSelectionTest : public testing::Test {
protected:
    /// A phone of this name and key, paired after all before it.
    PeerRecord& add(const std::string& name, const PeerKey& key) {
        PeerRecord record = world.phoneRecord();
        record.peer_hostname = name;
        record.peer_pubkey = key;
        record.paired_at_epoch_ms = fromEpochMilliseconds(static_cast<std::int64_t>(1000 + book.peers.size()));
        book.peers.push_back(record);
        return book.peers.back();
    }
    void save() { home.peers().writeBook(book); }
    /// The key of the phone that is meant.
    [[nodiscard]] PeerKey meant(const std::string& selector) const { return resolvePeer(home, selector).peer_pubkey; }
    /// What is wrong with the selector, and what to do about it.
    [[nodiscard]] std::string refusal(const std::string& selector) const {
        try {
            static_cast<void>(resolvePeer(home, selector));
        } catch (const HostError& error) {
            return error.description() + " | " + error.hint();
        }
        return "a phone is meant";
    }
    [[nodiscard]] std::string flaw(const PeerRecord& record, PeerUse use) const {
        try {
            static_cast<void>(checkPeer(record, ownKey, use));
        } catch (const HostError& error) {
            EXPECT_THAT(error.hint(), HasSubstr("orlinth peers add"));
            return error.description();
        }
        return "";
    }

    fakes::World world;
    Home home{world.system, world.context.get_executor()};
    PeerBook book;
    const platform::PublicKey ownKey = world.computerKey.publicKey();
    const PeerKey pixel = keyLike("Pix1xxxxxxxx");
    const PeerKey tablet = keyLike("Tab1yyyyyyyy");
};

TEST_F(PeerSelectionTest, MeansAPhoneByItsWholeKeyItsNameOrTheBeginningOfEither) {
    add("Pixel 8", pixel);
    add("Galaxy", tablet);
    save();
    for (const std::string& selector : {pixel.text(), std::string("Pixel 8"), std::string("pIXEL 8"),
                                        std::string("pix"), std::string("Pix1xxxx"), std::string("pix1XXXX")}) {
        EXPECT_EQ(meant(selector), pixel) << selector;
    }
    EXPECT_EQ(meant("g"), tablet);
    EXPECT_EQ(meant("tab1"), tablet);
}

TEST_F(PeerSelectionTest, PrefersTheWholeNameToTheBeginningOfAnother) {
    add("Pixel 8 Pro", pixel);
    add("Pixel 8", tablet);
    save();
    EXPECT_EQ(meant("pixel 8"), tablet);
    EXPECT_EQ(meant("pixel 8 p"), pixel);
}

TEST_F(PeerSelectionTest, SaysWhereToLookIfNoPhoneIsMeant) {
    add("Pixel 8", pixel);
    save();
    EXPECT_EQ(refusal("galaxy"), "no paired phone matches 'galaxy' | `orlinth peers` lists the paired phones.");
}

TEST_F(PeerSelectionTest, MeansNoneOfTwoPhonesOfOneNameAndShowsHowTheirKeysBegin) {
    add("Pixel", pixel);
    add("pixel", tablet);
    save();
    EXPECT_EQ(refusal("Pixel"),
              "selector 'Pixel' is ambiguous: 2 paired phones have this name (keys: Pix1xxxx, Tab1yyyy) | "
              "Use the beginning of the phone's key instead of its name.");
    EXPECT_EQ(meant("Tab1yyyy"), tablet) << "as the message says";
}

TEST_F(PeerSelectionTest, ShowsAsMuchOfTheKeysAsTellsThemApart) {
    const PeerKey almost = keyLike("Pix1xxxxxxxy");
    add("Pixel", pixel);
    add("Pixel", almost);
    save();
    EXPECT_THAT(refusal("Pixel"), HasSubstr("(keys: Pix1xxxxxxxx, Pix1xxxxxxxy)"));
    EXPECT_EQ(meant("Pix1xxxxxxxy"), almost);
}

TEST_F(PeerSelectionTest, ShowsTheNamesAndKeysOfThoseWhoseNamesBeginAlike) {
    add("Pixel 8", pixel);
    add("Pixel 9", tablet);
    save();
    const std::string text = refusal("pixel");
    EXPECT_THAT(text, HasSubstr("ambiguous"));
    EXPECT_THAT(text, HasSubstr("Pixel 8 Pix1xxxx, Pixel 9 Tab1yyyy."));
}

TEST_F(PeerSelectionTest, ShowsEightOfManyPhonesAndCountsTheOthers) {
    for (int number = 0; number < 11; ++number) {
        add("Pixel", keyLike("phone" + std::string(1, static_cast<char>('a' + number)) + "xyz"));
    }
    save();
    const std::string text = refusal("Pixel");
    EXPECT_THAT(text, HasSubstr("11 paired phones have this name (keys: phoneaxy, "));
    EXPECT_THAT(text, HasSubstr("phonehxy and 3 more)"));
}

TEST_F(PeerSelectionTest, CountsTwoRecordsOfOneKeyAsOnePhone) {
    add("Pixel", pixel);
    add("Pixel", pixel);
    save();
    EXPECT_EQ(meant("Pixel"), pixel);
}

TEST_F(PeerSelectionTest, MeansNoPhoneWhoseNameIsTheBeginningOfAnotherOnesKey) {
    add("Pix1xxxx", tablet); // chose its name to be sent what is for the other one
    add("Pixel", pixel);
    save();
    EXPECT_EQ(refusal("Pix1xxxx"), "selector 'Pix1xxxx' is ambiguous: it begins the name of one phone and the key of "
                                   "another | Use the whole key, as `orlinth peers --json` shows it.");
    EXPECT_EQ(meant(pixel.text()), pixel);
    EXPECT_EQ(meant("Pix1xxx"), tablet) << "nobody is shown so little of a key";
}

TEST_F(PeerSelectionTest, SaysWhatIsWrongWithARecordThatCannotBeUsed) {
    PeerRecord record = world.phoneRecord();
    EXPECT_EQ(flaw(record, PeerUse::connection), "");
    record.peer_pubkey = PeerKey("AAAA");
    EXPECT_EQ(flaw(record, PeerUse::key),
              "the record of 'Pixel-8' has no usable key: peer_pubkey is not the Base64 of 32 bytes");
    record.peer_pubkey = ownKey.peerKey();
    EXPECT_EQ(flaw(record, PeerUse::key), "the record of 'Pixel-8' has this computer's own key");
    record = world.phoneRecord();
    record.peer_ip = " ";
    EXPECT_EQ(flaw(record, PeerUse::connection), "the record of 'Pixel-8' has no address: peer_ip is empty");
    for (const int port : {0, -1, 65536}) {
        record = world.phoneRecord();
        record.peer_port = port;
        EXPECT_EQ(flaw(record, PeerUse::connection),
                  "the record of 'Pixel-8' has port " + std::to_string(port) + ", which is not from 1 to 65535");
    }
}

TEST_F(PeerSelectionTest, NeedsNoAddressToRecogniseAPhone) {
    PeerRecord record = world.phoneRecord();
    record.peer_ip = "";
    record.peer_port = 0;
    EXPECT_EQ(flaw(record, PeerUse::key), "");
    EXPECT_EQ(checkPeer(record, ownKey, PeerUse::key).key, world.phoneKey.publicKey());
}

TEST_F(PeerSelectionTest, TakesThePhoneThatWasPairedLastIfNoneIsSelected) {
    try {
        static_cast<void>(selectPeers(home, {}, ownKey, PeerUse::key));
        ADD_FAILURE() << "no phone is paired";
    } catch (const HostError& error) {
        EXPECT_EQ(error.description(), "no phone is paired yet");
        EXPECT_EQ(error.hint(), "`orlinth pair` pairs one.");
    }
    add("Pixel 8", world.phoneRecord().peer_pubkey);
    add("Galaxy", platform::PrivateKey::generate().publicKey().peerKey());
    save();
    const std::vector<CheckedPeer> chosen = selectPeers(home, {}, ownKey, PeerUse::connection);
    ASSERT_EQ(chosen.size(), 1U);
    EXPECT_EQ(chosen[0].record.peer_hostname, "Galaxy");
}

TEST_F(PeerSelectionTest, TakesThePhoneOfTheSettingsBeforeTheOneLastSentToAndThatBeforeTheOnePairedLast) {
    const PeerKey galaxy = platform::PrivateKey::generate().publicKey().peerKey();
    add("Pixel 8", world.phoneRecord().peer_pubkey);
    add("Galaxy", galaxy);
    add("Tablet", platform::PrivateKey::generate().publicKey().peerKey());
    save();
    const auto standard = [this] {
        EXPECT_EQ(likelyPeer(home)->peer_pubkey.text(),
                  defaultPeer(home, ownKey, PeerUse::key).record.peer_pubkey.text());
        return defaultPeer(home, ownKey, PeerUse::key).record.peer_hostname;
    };
    EXPECT_EQ(standard(), "Tablet");
    EXPECT_TRUE(LastPhone(home).remember(galaxy));
    EXPECT_EQ(standard(), "Galaxy");
    home.defaultPhone = "pix";
    EXPECT_EQ(standard(), "Pixel 8");
    home.defaultPhone = "";
    home.peers().writeBook({{book.peers.front()}});
    EXPECT_EQ(standard(), "Pixel 8") << "the one last sent to is not paired any more";
}

TEST_F(PeerSelectionTest, SaysThatTheSettingsHaveADefaultPhoneThatIsNotThere) {
    add("Pixel 8", world.phoneRecord().peer_pubkey);
    save();
    home.defaultPhone = "Tablet";
    try {
        static_cast<void>(defaultPeer(home, ownKey, PeerUse::key));
        ADD_FAILURE() << "a phone is meant";
    } catch (const HostError& error) {
        EXPECT_EQ(error.description(), "no paired phone matches 'Tablet'");
        EXPECT_THAT(error.hint(), HasSubstr("`to` in [send]"));
    }
    EXPECT_EQ(likelyPeer(home)->peer_hostname, "Pixel 8");
    home.peers().writeBook({});
    EXPECT_EQ(likelyPeer(home), std::nullopt);
}

TEST_F(PeerSelectionTest, TakesEachPhoneOnceHoweverOftenItIsSelectedAndInThatOrder) {
    add("Pixel 8", world.phoneRecord().peer_pubkey);
    add("Galaxy", platform::PrivateKey::generate().publicKey().peerKey());
    save();
    std::vector<std::string> names;
    for (const CheckedPeer& peer :
         selectPeers(home, {"galaxy", "pix", world.phoneRecord().peer_pubkey.text(), "Galaxy"}, ownKey, PeerUse::key)) {
        names.push_back(peer.record.peer_hostname);
    }
    EXPECT_THAT(names, ElementsAre("Galaxy", "Pixel 8"));
}

TEST_F(PeerSelectionTest, KeepsThePushTokenSecret) {
    PeerRecord record = world.phoneRecord();
    record.peer_fcm_token = "very secret";
    const Json fields = publicFields(record);
    EXPECT_THAT(compactJson(fields), Not(HasSubstr("very secret")));
    EXPECT_EQ(fields.at("has_fcm_token"), true);
    EXPECT_EQ(fields.size(), 10U);
    record.peer_fcm_token = "";
    EXPECT_EQ(publicFields(record).at("has_fcm_token"), false);
}

TEST_F(PeerSelectionTest, AddsTheKeyToANameThatAnotherPhoneHas) {
    add("Pixel", pixel);
    save();
    EXPECT_EQ(phoneForDisplay(home, "Pixel", pixel), "Pixel");
    add("pixel", tablet);
    save();
    EXPECT_EQ(phoneForDisplay(home, "Pixel", pixel), "Pixel (key Pix1xxxxxxxx)");
    EXPECT_EQ(phoneForDisplay(home, "pixel", tablet), "pixel (key Tab1yyyyyyyy)");
    world.files.put(home.peers().fileURL(), "{ruined");
    EXPECT_EQ(phoneForDisplay(home, "Galaxy", tablet), "Galaxy (key Tab1yyyyyyyy)") << "others cannot be known";
}

TEST_F(PeerSelectionTest, ShowsAddressesAsPeopleTypeThemAndNothingThatHides) {
    PeerRecord record = world.phoneRecord();
    EXPECT_EQ(addressOf(record), "203.0.113.2:7000");
    record.peer_ip = "fe80::1";
    EXPECT_EQ(addressOf(record), "[fe80::1]:7000");
    EXPECT_EQ(nameAndAddress(record), "Pixel-8 ([fe80::1]:7000)");
    record.peer_hostname = "Pixel\x1b[2J";
    EXPECT_THAT(nameAndAddress(record), Not(HasSubstr("\x1b")));
}

} // namespace
} // namespace orlinth::host
