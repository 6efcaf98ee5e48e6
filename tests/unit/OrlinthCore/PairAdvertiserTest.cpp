#include "OrlinthCore/Pairing/PairAdvertiser.h"

#include "OrlinthCore/Pairing/PairCode.h"
#include "base/Text.h"
#include "fakes/World.h"

#include <gmock/gmock.h>

namespace orlinth {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Pair;
using testing::SizeIs;

struct PairAdvertiserTest : testing::Test {
    fakes::World world;
    PairingPayload payload = makePayload();

    static PairingPayload makePayload() {
        PairingPayload payload;
        payload.peer_pubkey = "2IvhjdeTAr0xOCAxF3ZKGiqbBBSQTWQEE2UArz1XWkA=";
        payload.peer_ip = "192.168.1.20";
        payload.peer_port = 53318;
        payload.peer_subnet = "192.168.1.0/24";
        payload.peer_hostname = "studio";
        payload.peer_mac = "02:00:5e:10:00:01";
        payload.pairing_secret = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8=";
        return payload;
    }

    PairAdvertiser advertiser(std::string_view code = "4711") {
        return {world.services, world.log, payload, code, world.context.get_executor()};
    }

    /// What "hn" says for a host name.
    std::string announced(const std::string& hostname) {
        payload.peer_hostname = hostname;
        return advertiser().service().txt.at(5).second;
    }

    static std::string repeated(std::string_view text, int count) {
        std::string all;
        for (int time = 0; time < count; ++time) {
            all += text;
        }
        return all;
    }
};

TEST_F(PairAdvertiserTest, AnnouncesTheWholePayload) {
    const PairAdvertiser pairAdvertiser = advertiser();
    const platform::ServiceRecord& service = pairAdvertiser.service();
    EXPECT_EQ(service.name, "Orlinth-pair-a48305");
    EXPECT_EQ(service.type, "_orlinth-pair._tcp.");
    EXPECT_EQ(service.domain, "local.");
    EXPECT_EQ(service.port, 53318);
    EXPECT_THAT(service.txt,
                ElementsAre(Pair("v", "1"), Pair("c", "a48305257afbc96b"),
                            Pair("pk", "2IvhjdeTAr0xOCAxF3ZKGiqbBBSQTWQEE2UArz1XWkA="), Pair("ip", "192.168.1.20"),
                            Pair("sn", "192.168.1.0/24"), Pair("hn", "studio"), Pair("mac", "02:00:5e:10:00:01"),
                            Pair("sec", "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8="), Pair("t", "mac")));
}

TEST_F(PairAdvertiserTest, NamesTheServiceAfterTheHashWhateverTheHostNameAndCode) {
    for (const char* code : {"0000", "0001", "9999"}) {
        payload.peer_hostname = repeated("h", 100);
        EXPECT_THAT(advertiser(code).service().name, MatchesRegex("Orlinth-pair-[0-9a-f]{6}"));
        EXPECT_EQ(advertiser(code).service().txt.at(1).second, PairCode::hash(code, payload.peer_pubkey));
    }
}

TEST_F(PairAdvertiserTest, CutsTheHostNameToSixtyCharacters) {
    EXPECT_EQ(announced(repeated("a", 100)), repeated("a", 60));
    EXPECT_EQ(announced(repeated("a", 61)), repeated("a", 60));
    EXPECT_EQ(announced(repeated("a", 60)), repeated("a", 60));
    EXPECT_EQ(announced(""), "");
    EXPECT_EQ(announced(repeated("\u00E9", 100)), repeated("\u00E9", 60));
    // what a reader counts as one: letter and combining accent
    EXPECT_EQ(announced(repeated("e\u0301", 100)), repeated("e\u0301", 60));
}

TEST_F(PairAdvertiserTest, CutsTheHostNameFurtherWhereATxtStringWouldBeTooLong) {
    const std::string phone = "\U0001F4F1"; // 4 bytes
    EXPECT_EQ(announced(repeated(phone, 60)), repeated(phone, 60));
    const std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467"; // one character of 18 bytes
    EXPECT_EQ(announced(repeated(family, 60)), repeated(family, 14));        // 252 is the most, with "hn=" 255
    EXPECT_EQ(announced(repeated("aaaaaa", 3) + repeated(family, 13)), repeated("aaaaaa", 3) + repeated(family, 13));
    EXPECT_EQ(announced("a" + repeated(family, 14)), "a" + repeated(family, 13));
    EXPECT_EQ(announced("a" + repeated("\u0301", 200)), ""); // one character that is too long alone
}

TEST_F(PairAdvertiserTest, AnnouncesOnlyUtf8) {
    EXPECT_EQ(announced("a\xFF"), "a\uFFFD");
    EXPECT_EQ(announced(repeated("\xFF", 100)), repeated("\uFFFD", 60));
    EXPECT_EQ(announced(std::string("a\0b", 3)), std::string("a\0b", 3));
}

TEST_F(PairAdvertiserTest, PublishesFromStartToStop) {
    PairAdvertiser pairAdvertiser = advertiser();
    EXPECT_THAT(world.services.services, IsEmpty());
    pairAdvertiser.start();
    EXPECT_THAT(world.services.services, ElementsAre(pairAdvertiser.service()));
    pairAdvertiser.stop();
    EXPECT_THAT(world.services.services, IsEmpty());
    pairAdvertiser.stop();
    pairAdvertiser.start();
    EXPECT_THAT(world.services.services, ElementsAre(pairAdvertiser.service()));
}

TEST_F(PairAdvertiserTest, PublishesOnceIfStartedTwice) {
    PairAdvertiser pairAdvertiser = advertiser();
    pairAdvertiser.start();
    pairAdvertiser.start();
    EXPECT_THAT(world.services.services, SizeIs(1));
    pairAdvertiser.stop();
    EXPECT_THAT(world.services.services, IsEmpty());
}

TEST_F(PairAdvertiserTest, WithdrawsWhatIsPublishedWhenItGoes) {
    {
        PairAdvertiser pairAdvertiser = advertiser();
        pairAdvertiser.start();
    }
    EXPECT_THAT(world.services.services, IsEmpty());
}

TEST_F(PairAdvertiserTest, LogsAFailureAndTellsIt) {
    world.services.failure = "Daemon not running";
    std::vector<std::string> told;
    PairAdvertiser pairAdvertiser = advertiser();
    pairAdvertiser.start({.onPublished = [&told] { told.emplace_back("published"); },
                          .onFailure = [&told](const std::string& reason) { told.push_back(reason); }});
    world.context.run();
    EXPECT_THAT(told, ElementsAre("Daemon not running"));
    EXPECT_THAT(world.log.lines(),
                ElementsAre(fakes::RecordingLog::Line{platform::LogLevel::error, "com.tarvinex.orlinth", "pair",
                                                      "Orlinth pair advert failed: Daemon not running"}));
}

TEST_F(PairAdvertiserTest, TellsOnceItCanBeFound) {
    int published = 0;
    PairAdvertiser pairAdvertiser = advertiser();
    pairAdvertiser.start({.onPublished = [&published] { ++published; }, .onFailure = {}});
    EXPECT_EQ(published, 0);
    world.context.run();
    EXPECT_EQ(published, 1);
}

TEST_F(PairAdvertiserTest, LogsAFailureThatNobodyAskedFor) {
    world.services.failure = "Local name collision";
    PairAdvertiser pairAdvertiser = advertiser();
    pairAdvertiser.start();
    world.context.run();
    EXPECT_THAT(world.log.messages(), ElementsAre("Orlinth pair advert failed: Local name collision"));
}

TEST_F(PairAdvertiserTest, LogsNothingWhereNothingFails) {
    PairAdvertiser pairAdvertiser = advertiser();
    pairAdvertiser.start();
    pairAdvertiser.stop();
    world.context.run();
    EXPECT_THAT(world.log.lines(), IsEmpty());
}

} // namespace
} // namespace orlinth
