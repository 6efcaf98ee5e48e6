#include "OrlinthHost/Service/ControlLine.h"
#include "ServiceWorld.h"

#include <gmock/gmock.h>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

const std::string found = "{\"found\":true}";
const std::string notFound = "{\"found\":false}";

/// A running service that is asked for something about its phones.
class ServicePhonesTest : public ServiceWorldTest {
protected:
    [[nodiscard]] std::string ask(const PhoneRequest& request) {
        return ServiceWorldTest::ask(encodeControlRequest(request) + "\n");
    }
    /// What a text to these phones comes to.
    [[nodiscard]] std::string send(const std::string& text, std::vector<PeerKey> phones) {
        const std::unique_ptr<platform::Stream> stream = connectToControl();
        world_.run(write(*stream, encodeControlRequest(PhoneRequest(SendTextRequest{std::move(phones)})) + "\n"));
        world_.run(world_.unixSockets.sendSecret(*stream, asBytes(text)));
        return world_.run(readLine(*stream));
    }
    [[nodiscard]] PeerKey key() const { return world_.phoneRecord().peer_pubkey; }
    [[nodiscard]] Task<> takeText() {
        const auto at = co_await ScriptedPeer::accept(world_, world_.phoneKey);
        const auto clipboard = co_await at->expect<Row::Clipboard>();
        taken_.push_back(clipboard.text);
        at->close();
    }
    [[nodiscard]] Task<> hearOfTheRemoval() {
        const auto at = co_await ScriptedPeer::accept(world_, world_.phoneKey);
        static_cast<void>(co_await at->expect<Row::Unpair>());
        taken_.emplace_back("removed");
        at->close();
    }
};

TEST_F(ServicePhonesTest, RenamesAPhone) {
    start();
    EXPECT_EQ(found, ask(RenamePhoneRequest{.phone = key(), .name = " Tablet "}));
    EXPECT_THAT(paired(), ElementsAre("Tablet"));
    EXPECT_THAT(ask(RenamePhoneRequest{.phone = key(), .name = ""}),
                HasSubstr("\"error\":\"'' cannot be the name of a phone\""));
    EXPECT_EQ(notFound, ask(RenamePhoneRequest{.phone = PeerKey("another"), .name = "x"}));
}

TEST_F(ServicePhonesTest, NotifiesAPhoneThatItRemoves) {
    start();
    world_.alongside(hearOfTheRemoval());
    EXPECT_EQ(found, ask(RemovePhoneRequest{key()}));
    EXPECT_THAT(paired(), IsEmpty());
    pass(1s);
    EXPECT_THAT(taken_, ElementsAre("removed"));
    EXPECT_EQ(notFound, ask(RemovePhoneRequest{key()}));
}

TEST_F(ServicePhonesTest, DoesNotWaitForAPhoneThatItRemovesAndIsNotHeldUpByThatAtItsEnd) {
    world_.network.makeSilent(world_.phoneRecord().peer_ip);
    start();
    const double before = world_.clock.elapsed();
    EXPECT_EQ(found, ask(RemovePhoneRequest{key()}));
    stop();
    EXPECT_EQ(before, world_.clock.elapsed());
    EXPECT_EQ("", problem());
}

TEST_F(ServicePhonesTest, SaysWhyAPhoneCannotBeWoken) {
    start();
    EXPECT_EQ(R"({"error":"no push token is recorded for 'Pixel-8'"})", ask(WakePhoneRequest{key()}));
    EXPECT_EQ(notFound, ask(WakePhoneRequest{PeerKey("another")}));
}

TEST_F(ServicePhonesTest, SendsATextToAPhoneOrToTheDefaultOne) {
    start();
    for (const std::vector<PeerKey>& phones : {std::vector<PeerKey>{key()}, std::vector<PeerKey>()}) {
        world_.alongside(takeText());
        EXPECT_EQ(found, send("Grüße", phones));
    }
    EXPECT_THAT(taken_, ElementsAre("Grüße", "Grüße"));
    EXPECT_EQ(notFound, send("Grüße", {key(), PeerKey("another")}));
    EXPECT_EQ(R"({"error":"network: Connection refused"})", send("Grüße", {key()}));
}

TEST_F(ServicePhonesTest, SendsATextOnceToAPhoneThatIsNamedTwice) {
    start();
    world_.alongside(takeText());
    EXPECT_EQ(found, send("Grüße", {key(), key(), key()}));
    EXPECT_THAT(taken_, ElementsAre("Grüße"));
}

TEST_F(ServicePhonesTest, SendsNothingThatIsNoText) {
    start();
    EXPECT_EQ(R"({"error":"there is no text to send"})", send("", {key()}));
    EXPECT_EQ(R"({"error":"the text is not UTF-8"})", send("\xff", {key()}));
}

TEST_F(ServicePhonesTest, WaitsForATextThatIsAnnouncedFiveSeconds) {
    start();
    EXPECT_EQ(R"({"error":"no answer in time"})", ask(SendTextRequest{}));
    EXPECT_EQ(5, world_.clock.elapsed());
}

TEST_F(ServicePhonesTest, EndsWhileATextIsOnItsWay) {
    PeerRecord tablet = world_.phoneRecord();
    tablet.peer_pubkey = platform::PrivateKey::generate().publicKey().peerKey();
    tablet.peer_hostname = "Tablet";
    pair({world_.phoneRecord(), tablet});
    world_.network.makeSilent(world_.phoneRecord().peer_ip);
    start();
    const std::unique_ptr<platform::Stream> stream = connectToControl();
    const SendTextRequest toBoth{{key(), tablet.peer_pubkey}};
    world_.run(write(*stream, encodeControlRequest(PhoneRequest(toBoth)) + "\n"));
    world_.run(world_.unixSockets.sendSecret(*stream, asBytes("text")));
    pass(1s);
    const double before = world_.clock.elapsed();
    stop();
    EXPECT_EQ(before, world_.clock.elapsed());
    EXPECT_EQ("", problem());
}

TEST_F(ServicePhonesTest, ShowsAndClearsTheHistory) {
    start();
    EXPECT_EQ("{\"entries\":0}", ask(HistoryRequest{}));
    deliver("a.txt");
    pass(1s);
    deliver("b.txt");
    const std::unique_ptr<platform::Stream> stream = connectToControl();
    EXPECT_EQ("{\"entries\":2}",
              ServiceWorldTest::ask(*stream, encodeControlRequest(PhoneRequest(HistoryRequest{})) + "\n"));
    const std::optional<HistoryEntry> last = History::decode(world_.run(readLine(*stream)));
    EXPECT_EQ("b.txt", last.value().file);
    EXPECT_EQ("a.txt", History::decode(world_.run(readLine(*stream))).value().file);
    EXPECT_EQ("{\"entries\":1}", ask(HistoryRequest{.before = last->time}));
    EXPECT_EQ(found, ask(ClearHistoryRequest{}));
    EXPECT_EQ("{\"entries\":0}", ask(HistoryRequest{}));
    EXPECT_FALSE(world_.files.exists(dataFolder / History::fileName));
    EXPECT_THAT(ServiceWorldTest::ask("{\"before_epoch_ms\":0,\"count\":0,\"request\":\"history\"}\n"),
                StartsWith("{\"error\":\"1 to 500 entries"));
}

} // namespace
} // namespace orlinth::host
