#include "OrlinthCore/Pairing/PairAdvertiser.h"
#include "OrlinthCore/Pairing/PairCode.h"
#include "OrlinthCore/Pairing/PairCrypto.h"
#include "OrlinthCore/Pairing/PairListener.h"
#include "OrlinthCore/Pairing/QRRenderer.h"
#include "base/Base64.h"
#include "fakes/WorkshopPayload.h"
#include "unit/orlinth/PairingWorld.h"

namespace orlinth::cli {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr std::uint16_t port = 7300;
const std::string secretText(32, 's');
const std::string file = "/home/ann/payload.json";
const std::string picture = "/home/ann/code.png";

class JoinCommandTest : public PairingCommandTest {
protected:
    JoinCommandTest() { put(payload()); }

    Ended join(std::vector<std::string> words) {
        words.insert(words.begin(), {"join", "--no-enable"}); // which starts no service
        return run(makeJoinCommand, words);
    }
    /// By the payload in the file.
    Ended joinByFile(std::vector<std::string> words = {"--yes"}) {
        words.insert(words.end(), {"--payload", file});
        return join(words);
    }
    [[nodiscard]] PairingPayload payload() const {
        return fakes::workshopPayload(world.computerKey.publicKey().base64(), base64Encode(asBytes(secretText)));
    }
    void put(const PairingPayload& made) { world.files.put(file, made.jsonString()); }
    void put(const platform::RasterImage& image) {
        const Bytes png = platform::encodePng(image);
        world.files.put(picture, toText(png));
    }
    /// The computer, which waits for one phone.
    [[nodiscard]] Task<> waitForPhone() {
        PairListener listener(world.system, SecretBytes(asBytes(secretText)), port, 1000s);
        const PairListener::Result result = co_await listener.awaitIntroduction();
        introduction = result.phoneIntroductionPlaintext;
    }
    /// One that takes connections, and reads nothing.
    [[nodiscard]] Task<> readNothing(Seconds time) {
        const std::unique_ptr<platform::Listener> listener =
            world.network.listen({.port = port, .keepAlive = std::nullopt}, world.context.get_executor());
        const std::unique_ptr<platform::Stream> stream = co_await listener->accept(world.context.get_executor());
        co_await world.clock.sleep(time);
    }
    /// Announces a computer of this key under these digits.
    [[nodiscard]] std::unique_ptr<PairAdvertiser> announce(const std::string& code, const std::string& key) {
        PairingPayload made = payload();
        made.peer_pubkey = key;
        auto advertiser =
            std::make_unique<PairAdvertiser>(world.services, world.log, made, code, world.context.get_executor());
        advertiser->start();
        return advertiser;
    }
    /// What the computer shows.
    [[nodiscard]] std::string codeThere() {
        return PairCrypto::confirmationCode(asBytes(secretText), world.computerKey.publicKey(), ownKey(), introduction);
    }
    void expectPaired(const Ended& ended) {
        EXPECT_EQ(ended.status, 0) << ended.failure();
        EXPECT_EQ(ended.output, "Confirmation code: " + codeThere() + "\npaired with workshop at 192.168.1.23:7300\n");
        ASSERT_EQ(book().peers.size(), 1U);
        EXPECT_EQ(book().peers.front().peer_pubkey.text(), world.computerKey.publicKey().base64());
    }

    Bytes introduction;
};

// Ways to the code

TEST_F(JoinCommandTest, PairsByAPayloadInAFile) {
    world.alongside(waitForPhone());
    const Ended ended = joinByFile();
    expectPaired(ended);
    EXPECT_THAT(ended.errors, ElementsAre("pairing with workshop at 192.168.1.23"));
    const Json said = parseJson(introduction);
    EXPECT_EQ(said.at("peer_port"), defaultPort);
    EXPECT_EQ(said.at("peer_pubkey"), ownKey().base64());
}

TEST_F(JoinCommandTest, SaysThePortOfTheRunningServiceUnlessAnotherIsGiven) {
    world.alongside(serveOthers({"{\"port\":7450}"}));
    world.alongside(waitForPhone());
    expectPaired(joinByFile());
    EXPECT_EQ(parseJson(introduction).at("peer_port"), 7450);
    service = world.unixSockets.listen(dataFolder / "service.sock", world.context.get_executor());
    for (const std::uint16_t given : {std::uint16_t{7401}, defaultPort}) {
        pair({});
        world.alongside(waitForPhone());
        const Ended ended = joinByFile({"--yes", "--listen-port", std::to_string(given)});
        expectPaired(ended);
        EXPECT_EQ(ended.after, 0) << "the service, which would not answer, is not asked";
        EXPECT_EQ(parseJson(introduction).at("peer_port"), given);
    }
}

TEST_F(JoinCommandTest, SaysTheNameOfTheSettingsElseItsHostName) {
    world.alongside(waitForPhone());
    expectPaired(joinByFile());
    EXPECT_EQ(parseJson(introduction).at("peer_hostname"), "workshop");
    pair({});
    computerName = "Ann's laptop";
    world.alongside(waitForPhone());
    expectPaired(joinByFile());
    EXPECT_EQ(parseJson(introduction).at("peer_hostname"), "Ann's laptop");
}

TEST_F(JoinCommandTest, PairsByAPayloadOrItsEventOnStandardInput) {
    for (const std::string& text :
         {payload().jsonString(), R"({"code":"1234","event":"payload","payload":)" + payload().jsonString() + "}\n"}) {
        pair({});
        world.alongside(waitForPhone());
        const StandardInput input(text);
        expectPaired(join({"--payload", "-", "--yes"}));
    }
}

TEST_F(JoinCommandTest, PairsByAPictureOfTheCode) {
    put(QRRenderer::makeImage(payload(), 4));
    world.alongside(waitForPhone());
    expectPaired(join({"--qr", picture, "--yes"}));
}

TEST_F(JoinCommandTest, PairsByTheFourDigits) {
    const auto announced = announce("0420", world.computerKey.publicKey().base64());
    world.alongside(waitForPhone());
    const Ended ended = join({"--code", "0420", "--yes"});
    expectPaired(ended);
    EXPECT_THAT(ended.errors,
                ElementsAre("looking for the computer that shows 0420", "pairing with workshop at 192.168.1.23"));
}

TEST_F(JoinCommandTest, ShowsTheSameToScripts) {
    world.alongside(waitForPhone());
    const Ended ended = joinByFile({"--yes", "--json", "--listen-port", "7401"});
    EXPECT_EQ(ended.status, 0);
    ASSERT_THAT(ended.names(), ElementsAre("introduction", "paired"));
    EXPECT_EQ(ended.events()[0], Json({{"event", "introduction"}, {"confirmation_code", codeThere()}}));
    EXPECT_EQ(ended.events()[1],
              Json({{"event", "paired"}, {"peer", book().peers.at(0).toJson()}, {"replaced", Json::array()}}));
    EXPECT_EQ(ended.events()[1].at("peer").at("self_pubkey"), ownKey().base64());
    EXPECT_EQ(ended.events()[1].at("peer").at("paired_at_epoch_ms"), toNumber(world.clock.epochMilliseconds()));
    EXPECT_EQ(parseJson(introduction).at("peer_port"), 7401);
}

TEST_F(JoinCommandTest, HasTheServiceRunFromNowOnAsPairDoes) {
    startServices({.outcome = platform::ServiceStart::Outcome::running});
    world.alongside(waitForPhone());
    const Ended ended = run(makeJoinCommand, {"join", "--yes", "--payload", file});
    expectPaired(ended);
    EXPECT_THAT(ended.errors, ElementsAre("pairing with workshop at 192.168.1.23", startedLine));
    EXPECT_THAT(world.userServices.asked(), ElementsAre("enable orlinth.service"));
}

TEST_F(JoinCommandTest, LeavesTheServiceAloneIfItIsAskedTo) {
    startServices({.outcome = platform::ServiceStart::Outcome::running});
    world.alongside(waitForPhone());
    expectPaired(joinByFile());
    EXPECT_THAT(world.userServices.asked(), IsEmpty());
}

TEST_F(JoinCommandTest, IsSilentWhenAskedToBe) {
    world.alongside(waitForPhone());
    EXPECT_THAT(joinByFile({"--yes", "--quiet"}).errors, IsEmpty());
}

// The question

TEST_F(JoinCommandTest, RecordsTheComputerForAYes) {
    world.alongside(waitForPhone());
    const StandardInput input("y\n");
    const Ended ended = joinByFile({});
    expectPaired(ended);
    EXPECT_EQ(ended.errors.back(), "Does workshop show the same code? [y/N] ");
}

TEST_F(JoinCommandTest, RecordsNothingForAnythingElse) {
    world.alongside(waitForPhone());
    const StandardInput input("n\n");
    expectNothingRecorded(joinByFile({}), "the codes were not confirmed; nothing was recorded", notConfirmedHint);
}

// Bad codes

TEST_F(JoinCommandTest, RefusesAPayloadThatNamesNobodyBeforeItConnects) {
    std::vector<PairingPayload> bad(6, payload());
    bad[0].version = 2;
    bad[1].peer_pubkey = ownKey().base64();
    bad[2].pairing_secret = "AAAA";
    bad[3].peer_port = 0;
    bad[4].peer_ip = "255.255.255.255";
    bad[5].peer_hostname = "";
    for (const PairingPayload& made : bad) {
        put(made);
        const Ended ended = joinByFile({"--yes", "--json"});
        EXPECT_THAT(ended.failure(), StartsWith("orlinth: not a usable pairing code: "));
        EXPECT_THAT(ended.names(), ElementsAre("error"));
        EXPECT_EQ(ended.errors.size(), 2U) << "nothing of the payload is shown before it was checked";
        expectNothingRecorded(ended, ended.failure().substr(9),
                              "Run `orlinth pair` on the other computer again, and use its new code.");
    }
    EXPECT_THAT(world.network.attempts, IsEmpty());
}

TEST_F(JoinCommandTest, SaysWhichFileHoldsNoPayload) {
    const std::string hint =
        " holds no pairing payload. Give the first line that `orlinth pair --json` prints on the other computer.";
    for (const char* content : {"", "{}", "\x89PNG", R"({"version":1})", R"({"event":"payload","payload":{}})"}) {
        world.files.put(file, content);
        const Ended ended = joinByFile();
        EXPECT_THAT(ended.failure(), StartsWith("orlinth: JSON decode failed: ")) << content;
        EXPECT_EQ(ended.errors.back(), file + hint);
    }
    const StandardInput input("{}");
    EXPECT_EQ(join({"--payload", "-", "--yes"}).errors.back(), "Standard input" + hint);
}

TEST_F(JoinCommandTest, SaysWhyAFileCannotBeRead) {
    for (const char* way : {"--payload", "--qr"}) {
        expectNothingRecorded(join({way, "/nowhere/x", "--yes"}), "/nowhere/x: No such file or directory",
                              "Check the file's name and permissions.");
    }
    world.files.put(file, std::string((64 << 10) + 1, ' '));
    expectNothingRecorded(joinByFile(), file + " is too large for a pairing payload", "Is it the right file?");
}

TEST_F(JoinCommandTest, SaysWhatIsWrongWithAPicture) {
    world.files.put(picture, "GIF89a");
    const Ended none = join({"--qr", picture, "--yes"});
    EXPECT_THAT(none.failure(), StartsWith("orlinth: " + picture + ": "));
    EXPECT_EQ(none.errors.back(), "The picture must be a PNG file.");
    put(platform::RasterImage{.width = 64, .height = 64, .pixels = Bytes(64 * 64 * 4, std::byte{0xFF})});
    expectNothingRecorded(join({"--qr", picture, "--yes"}), "QR decode failed: no QR symbol found in image",
                          picture + " shows no QR code that can be read. Make a picture of the whole code, with its "
                                    "margin.");
    put(QRRenderer::makeImage(asBytes("https://example.org"), 4));
    const Ended other = join({"--qr", picture, "--yes"});
    EXPECT_EQ(other.errors.back(),
              "The QR code in " + picture + " is not one of `orlinth pair`. Make a picture of that one.");
}

TEST_F(JoinCommandTest, SaysWhyDigitsFindNobody) {
    const auto computer = announce("0420", world.computerKey.publicKey().base64());
    const Ended other = join({"--code", "0421", "--yes", "--timeout", "3"});
    EXPECT_EQ(other.after, 3);
    expectNothingRecorded(other, "no computer with this code is in pair mode on this network",
                          "Is `orlinth pair` running there, and does it show these four digits?");
    const auto impostor = announce("0420", world.phoneKey.publicKey().base64());
    expectNothingRecorded(join({"--code", "0420", "--yes"}), "several computers on this network answer to this code",
                          "Use the QR code or the payload: `--qr`, `--payload`.");
    world.services.failure = "no daemon";
    expectNothingRecorded(join({"--code", "0420", "--yes"}), "cannot look for computers on the network: no daemon",
                          "Looking needs the Avahi service. The QR code and the payload work without: `--qr`, "
                          "`--payload`.");
}

// Bad computers

TEST_F(JoinCommandTest, SaysThatTheComputerIsNotThere) {
    const std::string hint = "A code works once, and while it is shown: run `orlinth pair` there again.";
    expectNothingRecorded(joinByFile(), "cannot connect to the computer: Connection refused", hint);
    world.alongside(readNothing(1000s));
    const Ended slow = joinByFile({"--yes", "--timeout", "0.5"});
    EXPECT_EQ(slow.after, 0.5);
    expectNothingRecorded(slow, "the computer has not answered in time", hint);
}

TEST_F(JoinCommandTest, GivesTheComputerThirtySeconds) {
    world.network.makeSilent("192.168.1.23");
    EXPECT_EQ(joinByFile().after, 30);
}

// Before anything else

TEST_F(JoinCommandTest, UsesNoCodeIfThePeerStoreIsDamaged) {
    const platform::Path store = dataFolder / "peer.json";
    world.files.put(store, "{");
    const Ended ended = joinByFile();
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.failure(), StartsWith("orlinth: PeerRecord decode failed: "));
    EXPECT_EQ(ended.errors.back(), "The list of paired phones, " + store.string() +
                                       ", is damaged. Restore it from a backup, or move it away and pair your phones "
                                       "again.");
    EXPECT_EQ(world.files.content(store), "{");
    EXPECT_THAT(world.network.attempts, IsEmpty());
}

TEST_F(JoinCommandTest, WantsOneSourceAndNumbersThatMakeSense) {
    using Words = std::vector<std::string>;
    for (const Words& words :
         {Words{}, Words{"--code", "1234", "--qr", "x.png"}, Words{"--payload", "x", "--qr", "x.png"},
          Words{"--code", "12"}, Words{"--code", "12a4"}, Words{"--code", "12345"}, Words{"--code", ""},
          Words{"--qr", ""}, Words{"--payload", ""}, Words{"--payload", file, "--listen-port", "0"},
          Words{"--payload", file, "--listen-port", "65536"}, Words{"--payload", file, "--timeout", "0"},
          Words{"--payload", file, "--timeout", "-1"}, Words{"--payload", file, "superfluous"}}) {
        const Ended ended = join(words);
        EXPECT_EQ(ended.status, 2) << testing::PrintToString(words);
        EXPECT_NE(ended.failure(), "");
        EXPECT_EQ(ended.errors.back(), "`orlinth join --help` explains the command line.");
    }
    EXPECT_THAT(world.network.attempts, IsEmpty());
}

} // namespace
} // namespace orlinth::cli
