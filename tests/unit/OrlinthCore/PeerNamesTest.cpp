#include "OrlinthCore/Peers/PeerNames.h"

#include "base/Text.h"

#include <gtest/gtest.h>

namespace orlinth {
namespace {

PeerBook book(const std::vector<std::pair<std::string, std::string>>& phones) {
    PeerBook made;
    for (const auto& [key, name] : phones) {
        PeerRecord record;
        record.peer_pubkey = PeerKey(key);
        record.peer_hostname = name;
        made.peers.push_back(record);
    }
    return made;
}

TEST(PeerNames, AFreeNameStaysAsItIs) {
    EXPECT_EQ(freeName({}, PeerKey("a"), " Pixel  8 "), " Pixel  8 ");
    EXPECT_EQ(freeName(book({{"a", "Pixel 8"}, {"b", "Tablet"}}), PeerKey("a"), "pixel 8"), "pixel 8")
        << "it is its own";
    EXPECT_FALSE(isNameTaken(book({{"a", "Pixel 8"}}), PeerKey("a"), "Pixel 8"));
}

TEST(PeerNames, ATakenNameGetsTheFirstFreeNumber) {
    PeerBook peers = book({{"a", "Pixel 8"}});
    for (const char* name : {"Pixel 8", "pixel 8", " Pixel\u00a08", "Pi\u200bxel 8", "\uff30ixel 8"}) {
        EXPECT_TRUE(isNameTaken(peers, PeerKey("b"), name)) << name;
        EXPECT_EQ(lookOf(freeName(peers, PeerKey("b"), name)), "pixel 8 (2)") << name;
    }
    EXPECT_EQ(freeName(peers, PeerKey("b"), "Pixel 8 "), "Pixel 8 (2)");
    peers = book({{"a", "Pixel 8"}, {"c", "pixel 8 (2)"}, {"d", "Pixel 8 (4)"}});
    EXPECT_EQ(freeName(peers, PeerKey("b"), "Pixel 8"), "Pixel 8 (3)");
    EXPECT_EQ(freeName(peers, PeerKey("c"), "Pixel 8"), "Pixel 8 (2)") << "a phone keeps its number";
    EXPECT_EQ(freeName(peers, PeerKey("b"), "Pixel 8 (2)"), "Pixel 8 (2) (2)");
}

TEST(PeerNames, ALongNameMakesRoomForItsNumber) {
    const std::string longest(255, 'x');
    const std::string numbered = freeName(book({{"a", longest}}), PeerKey("b"), longest);
    EXPECT_EQ(numbered.size(), 255U);
    EXPECT_TRUE(numbered.ends_with("xxx (2)"));
    EXPECT_EQ(freeName(book({{"a", longest}, {"c", numbered}}), PeerKey("b"), longest), std::string(251, 'x') + " (3)");
}

TEST(PeerNames, KnowTheFormsOfAName) {
    EXPECT_TRUE(isFormOfName("Pixel 8", "Pixel 8"));
    EXPECT_TRUE(isFormOfName("Pixel 8 (2)", "Pixel 8"));
    EXPECT_TRUE(isFormOfName("Pixel 8 (12)", " Pixel 8"));
    for (const char* other : {"Pixel 8 (1)", "Pixel 8 (02)", "Pixel 8 ()", "Pixel 8 (a)", "Pixel 8(2)", "Pixel 9 (2)",
                              "Pixel 8 (2) (2)", "Pixel 8 (2", "(2)", "", "Pixel 8 (99999999999999999999)"}) {
        EXPECT_FALSE(isFormOfName(other, "Pixel 8")) << other;
    }
}

} // namespace
} // namespace orlinth
