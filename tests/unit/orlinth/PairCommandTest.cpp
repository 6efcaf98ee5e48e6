#include "OrlinthCore/Pairing/PairCode.h"
#include "OrlinthCore/Pairing/PairCrypto.h"
#include "OrlinthCore/Pairing/PairWire.h"
#include "OrlinthCore/Pairing/QRRenderer.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/Whereabouts.h"
#include "OrlinthHost/Service/ControlMessage.h"
#include "platform/SystemError.h"
#include "unit/orlinth/PairingWorld.h"

namespace orlinth::cli {
namespace {

using fakes::Operation;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

const std::string picture = "/home/ann/code.png";
const std::string nothingRecorded = "Nothing was recorded.";
const std::string notThisPhone =
    "Whoever connected was not a phone that has scanned this code. Nothing was recorded; pair again.";

class PairCommandTest : public PairingCommandTest {
protected:
    /// `pair`, whose code a phone can read from the picture, and which starts no service.
    Ended pairing(std::vector<std::string> words = {"--yes"}) {
        words.insert(words.begin(), {"pair", "--no-enable", "--png", picture});
        return run(makePairCommand, words);
    }
    /// The same, with a phone that scans the code after a second and says this.
    Ended pairingWith(Json said, std::vector<std::string> words = {"--yes"}) {
        world.alongside(introduce(compactJson(said), 1s));
        return pairing(std::move(words));
    }
    /// The same as it usually is: with the service that comes of it.
    Ended pairingForGood(const std::vector<std::string>& words = {}) {
        world.alongside(introduce(compactJson(saying()), 1s));
        std::vector<std::string> all{"pair", "--png", picture, "--yes"};
        all.insert(all.end(), words.begin(), words.end());
        return run(makePairCommand, all);
    }
    [[nodiscard]] Json saying(const Json& changes = Json::object()) const {
        Json said{{"peer_pubkey", world.phoneKey.publicKey().base64()},
                  {"peer_ip", "192.168.1.50"},
                  {"peer_port", 7000},
                  {"peer_hostname", "Pixel"}};
        said.update(changes);
        return said;
    }
    /// What the picture shows.
    [[nodiscard]] PairingPayload shown() const {
        const std::string png = world.files.content(picture).value();
        return PairingPayload::decode(asBytes(QRRenderer::decode(platform::decodePng(asBytes(png)))));
    }
    /// A phone of the local network.
    [[nodiscard]] Task<> introduce(std::string said, Seconds after) {
        co_await world.clock.sleep(after);
        payload = shown();
        plaintext = said;
        const SecretBytes key = PairCrypto::deriveAEADKey(payload.secret().reveal());
        const Bytes sealed = PairCrypto::sealIntroduction(asBytes(said), key);
        co_await say(PairWire::encodeFrame(sealed));
    }
    /// Somebody who says this, and that nothing more comes.
    [[nodiscard]] Task<> sayAfterASecond(Bytes frame) {
        co_await world.clock.sleep(1s);
        payload = shown();
        co_await say(std::move(frame));
    }
    [[nodiscard]] Task<> say(Bytes frame) {
        world.network.sources.emplace_back("192.168.1.7:40112");
        const std::unique_ptr<platform::Stream> stream = co_await world.network.connect(
            payload.peer_ip, static_cast<std::uint16_t>(payload.peer_port), world.context.get_executor());
        co_await stream->writeAll(frame);
        stream->finishWriting();
        Bytes answer(1);
        try {
            const std::size_t count = co_await stream->readExact(answer);
            EXPECT_EQ(count, 0U) << "a computer in pair mode answers nothing";
        } catch (const platform::SystemError&) {
            // it has closed without having read everything
        }
    }
    /// A service that lends its port, open here, and takes it back.
    [[nodiscard]] Task<> lendPort(std::uint16_t port, std::vector<std::string> places) {
        const std::unique_ptr<platform::Listener> socket =
            world.unixSockets.listen(dataFolder / "service.sock", world.context.get_executor());
        const std::unique_ptr<platform::Stream> stream = co_await socket->accept(world.context.get_executor());
        std::string request = co_await host::readControlLine(*stream, world.clock, 5s);
        asked.push_back(std::move(request));
        co_await host::sendControlLine(*stream, world.clock, R"({"port":)" + std::to_string(port) + "}");
        const std::unique_ptr<platform::Listener> listener = world.network.listen(
            {.port = port, .keepAlive = std::nullopt, .places = std::move(places)}, world.context.get_executor());
        co_await world.unixSockets.sendPort(*stream, *listener);
        Bytes end(1);
        hasPortBack = co_await stream->readExact(end) == 0;
    }
    [[nodiscard]] std::string codeThere() {
        return PairCrypto::confirmationCode(payload.secret().reveal(), ownKey(), world.phoneKey.publicKey(),
                                            asBytes(plaintext));
    }
    void expectPaired(const Ended& ended) {
        EXPECT_EQ(ended.status, 0) << ended.failure();
        EXPECT_THAT(ended.output, testing::EndsWith("\nPixel (192.168.1.7:40112) wants to be paired.\n"
                                                    "Confirmation code: " +
                                                    codeThere() + "\npaired with Pixel at 192.168.1.50:7000\n"));
        ASSERT_EQ(book().peers.size(), 1U);
        EXPECT_EQ(book().peers.front().peer_hostname, "Pixel");
    }

    PairingPayload payload;
    std::string plaintext;
    bool hasPortBack = false;
};

// A phone comes

TEST_F(PairCommandTest, PairsThePhoneThatHasScannedTheCode) {
    const Ended ended = pairingWith(saying());
    expectPaired(ended);
    EXPECT_EQ(ended.after, 1);
    EXPECT_THAT(ended.errors, IsEmpty());
    EXPECT_EQ(payload.peer_pubkey, ownKey().base64());
    EXPECT_EQ(payload.peer_ip, "192.168.1.23");
    EXPECT_EQ(payload.peer_port, defaultPort);
    EXPECT_FALSE(world.network.isOpen(defaultPort));
    EXPECT_THAT(world.files.content("/home/ann/.local/share/group.com.tarvinex.orlinth/peers.json").value_or(""),
                HasSubstr("Pixel"));
}

TEST_F(PairCommandTest, ShowsTheNameOfTheSettingsElseTheHostName) {
    expectPaired(pairingWith(saying()));
    EXPECT_EQ(payload.peer_hostname, "workshop");
    computerName = "Ann's laptop";
    expectPaired(pairingWith(saying()));
    EXPECT_EQ(payload.peer_hostname, "Ann's laptop");
}

TEST_F(PairCommandTest, RemembersWhatThePhoneWasToldOfThisComputer) {
    const auto told = [this] {
        return host::AddressMemory(world.files, world.clock, world.log, "/home/ann/.local/share/Orlinth").told();
    };
    EXPECT_EQ(pairingWith(saying({{"peer_port", 0}})).status, 1);
    EXPECT_EQ(told(), std::nullopt) << "nobody was paired";
    expectPaired(pairingWith(saying()));
    ASSERT_TRUE(told());
    EXPECT_EQ(told()->host.text(), "192.168.1.23");
    EXPECT_EQ(told()->port, defaultPort);
}

TEST_F(PairCommandTest, ShowsTheSameToScripts) {
    const Ended ended = pairingWith(saying(), {"--yes", "--json"});
    EXPECT_EQ(ended.status, 0);
    ASSERT_THAT(ended.names(), ElementsAre("payload", "introduction", "paired"));
    const Json shownEvent = ended.events()[0];
    EXPECT_EQ(shownEvent.at("payload"), parseJson(payload.jsonData().reveal()));
    EXPECT_THAT(shownEvent.at("code").get<std::string>(), testing::MatchesRegex("[0-9][0-9][0-9][0-9]"));
    EXPECT_EQ(ended.events()[1], Json({{"event", "introduction"},
                                       {"confirmation_code", codeThere()},
                                       {"remote_endpoint", "192.168.1.7:40112"},
                                       {"peer_hostname", "Pixel"}}));
    EXPECT_EQ(ended.events()[2],
              Json({{"event", "paired"}, {"peer", book().peers.at(0).toJson()}, {"replaced", Json::array()}}));
    EXPECT_THAT(ended.errors, IsEmpty());
}

TEST_F(PairCommandTest, RecordsEverythingThatThePhoneSays) {
    const Json said = saying({{"peer_hostname", "Télé 東京 ☕"},
                              {"peer_port", 65535},
                              {"peer_subnet", "192.168.1.0/24"},
                              {"peer_mac", "3c:22:fb:01:02:0a"},
                              {"peer_fcm_token", "token:1"},
                              {"peer_android", "f00d"}});
    EXPECT_EQ(pairingWith(said).status, 0);
    const Json record = book().peers.at(0).toJson();
    for (const auto& [key, value] : said.items()) {
        EXPECT_EQ(record.at(key), value) << key;
    }
    EXPECT_EQ(record.at("self_pubkey"), ownKey().base64());
    EXPECT_EQ(record.at("paired_at_epoch_ms"), toNumber(world.clock.epochMilliseconds()));
}

TEST_F(PairCommandTest, LogsWhatItCannotUseAndTakesTheConnectionsAddressForNone) {
    EXPECT_EQ(pairingWith(saying({{"peer_ip", ""}, {"peer_fcm_token", 7}, {"peer_mac", std::string(65, 'x')}})).status,
              0);
    const PeerRecord record = book().peers.at(0);
    EXPECT_EQ(record.peer_ip, "192.168.1.7");
    EXPECT_EQ(record.peer_fcm_token, "");
    EXPECT_EQ(record.peer_mac, "");
    EXPECT_THAT(world.log.messages(),
                testing::IsSupersetOf({HasSubstr("introduction of Pixel: left out "),
                                       HasSubstr("the connection's address is used: 192.168.1.7")}));
}

TEST_F(PairCommandTest, ReplacesAnEarlierIdentityOfThePhoneAndKeepsOthersOfItsNameApart) {
    PeerRecord stale = world.phoneRecord();
    stale.peer_hostname = "Pixel";
    stale.peer_ip = "192.168.1.50";
    stale.peer_pubkey = PeerKey(platform::PrivateKey::generate().publicKey().base64());
    pair({stale});
    const Ended replaced = pairingWith(saying());
    EXPECT_THAT(replaced.output, HasSubstr("\npaired with Pixel at 192.168.1.50:7000\nin place of the earlier identity "
                                           "of Pixel, key " +
                                           stale.peer_pubkey.text().substr(0, 12)));
    EXPECT_EQ(book().peers.size(), 1U);

    stale.peer_ip = "192.168.1.51";
    pair({stale});
    const Ended apart = pairingWith(saying(), {"--yes", "--json"});
    EXPECT_EQ(apart.events().back().at("peer").at("peer_hostname"), "Pixel (2)");
    EXPECT_EQ(apart.events().back().at("replaced"), Json::array());
    EXPECT_THAT(apart.errors, ElementsAre("Another phone is called Pixel. This one is called Pixel (2) here.",
                                          "If Pixel at 192.168.1.51:7000 is the same phone, remove its earlier "
                                          "identity: `orlinth peers remove " +
                                              stale.peer_pubkey.text().substr(0, 12) + "`"));
    EXPECT_EQ(book().peers.size(), 2U);
}

TEST_F(PairCommandTest, ReplacesAnEarlierIdentityThatHasMoved) {
    const platform::IpAddress phone = platform::parseIpAddress("192.168.1.7").value();
    const platform::IpAddress router = platform::parseIpAddress("192.168.1.1").value();
    const Bytes itsHardware{std::byte{0x3E}, std::byte{0x5A}, std::byte{0xB4},
                            std::byte{1},    std::byte{2},    std::byte{3}};
    const Bytes routersHardware(6, std::byte{0x10});
    world.routes.putOnLink(phone, "enp3s0");
    world.routes.gateways["enp3s0"] = router;
    world.neighbours.put(
        fakes::MemoryNeighbours::entry(phone, platform::NeighbourState::reachable, itsHardware, "enp3s0"));
    world.neighbours.put(
        fakes::MemoryNeighbours::entry(router, platform::NeighbourState::reachable, routersHardware, "enp3s0"));
    PeerRecord stale = world.phoneRecord();
    stale.peer_hostname = "Pixel";
    stale.peer_ip = "192.168.1.51";
    stale.peer_pubkey = PeerKey(platform::PrivateKey::generate().publicKey().base64());
    pair({stale});
    const host::Whereabouts here = host::Whereabouts::look(world.system);
    host::Meeting met = here.meetingAt(host::HostAddress::parse("192.168.1.7").value());
    ASSERT_TRUE(met.mac && met.network);
    met.host = host::HostAddress::parse("192.168.1.51").value();
    host::AddressMemory(world.files, world.clock, world.log, dataFolder).reached(stale.peer_pubkey, met);
    const Ended replaced = pairingWith(saying());
    EXPECT_THAT(replaced.output, HasSubstr("in place of the earlier identity of Pixel, key "));
    EXPECT_THAT(replaced.errors, IsEmpty());
    EXPECT_EQ(book().peers.size(), 1U);
}

// The four digits

TEST_F(PairCommandTest, AnnouncesTheCodeWhileItWaits) {
    const Ended ended = pairing({"--timeout", "5", "--yes"});
    EXPECT_THAT(ended.output, testing::ContainsRegex("\nScan the code with the phone\\.\n"
                                                     "Or enter these four digits there: [0-9][0-9][0-9][0-9]\n$"));
    EXPECT_THAT(world.services.services, IsEmpty()) << "withdrawn";
}

TEST_F(PairCommandTest, AnnouncesTheDigitsThatItShows) {
    std::vector<platform::ServiceRecord> announced;
    world.alongside([](fakes::World& own, std::vector<platform::ServiceRecord>& found) -> Task<> {
        co_await own.clock.sleep(1s);
        found = own.services.services;
    }(world, announced));
    const Ended ended = pairing({"--timeout", "5", "--json"});
    ASSERT_EQ(announced.size(), 1U);
    const std::string code = ended.events().at(0).at("code");
    EXPECT_THAT(announced[0].txt, testing::Contains(testing::Pair("c", PairCode::hash(code, ownKey().base64()))));
}

TEST_F(PairCommandTest, AnnouncesNothingIfToldNotTo) {
    const Ended ended = pairingWith(saying(), {"--yes", "--no-advertise"});
    expectPaired(ended);
    EXPECT_THAT(ended.output, HasSubstr("Scan the code with the phone.\n"));
    EXPECT_THAT(ended.output, Not(HasSubstr("enter these four digits")));
}

TEST_F(PairCommandTest, GoesOnWithoutAnnouncement) {
    world.services.failure = "no daemon";
    const Ended ended = pairingWith(saying());
    expectPaired(ended);
    EXPECT_THAT(ended.output, Not(HasSubstr("enter these four digits")));
    EXPECT_THAT(ended.errors, ElementsAre("Announcing this computer on the network failed (no daemon), so that digits "
                                          "cannot find it. Scan the code instead."));
}

// The question

TEST_F(PairCommandTest, RecordsThePhoneForAYes) {
    for (const char* answer : {"y\n", "  YES \n"}) {
        pair({});
        const StandardInput input(answer);
        const Ended ended = pairingWith(saying(), {});
        expectPaired(ended);
        EXPECT_THAT(ended.errors, ElementsAre("Does Pixel show the same code? [y/N] ")) << answer;
    }
}

TEST_F(PairCommandTest, RecordsNothingForAnythingElse) {
    for (const char* answer : {"n\n", "\n", "yess\n", "\xff\n", ""}) {
        const StandardInput input(answer);
        expectNothingRecorded(pairingWith(saying(), {}), "the codes were not confirmed; nothing was recorded",
                              notConfirmedHint);
        EXPECT_FALSE(world.network.isOpen(defaultPort));
    }
}

// Nobody comes, or the wrong one

TEST_F(PairCommandTest, WaitsTwoMinutesOrAsLongAsItIsTold) {
    const std::string hint = "No phone has answered. Phone and computer must be in the same network; then pair again.";
    const Ended ended = pairing();
    EXPECT_EQ(ended.after, 120);
    expectNothingRecorded(ended, "pair-mode timeout", hint);
    EXPECT_EQ(pairing({"--yes", "--timeout", "0.5"}).after, 0.5);
    world.alongside(introduce(compactJson(saying()), 1000s));
    EXPECT_EQ(pairing({"--yes", "--timeout", "0"}).status, 0);
}

TEST_F(PairCommandTest, RefusesAnIntroductionThatCannotBe) {
    for (const Json& changes : {Json{{"peer_pubkey", ownKey().base64()}}, Json{{"peer_port", 0}},
                                Json{{"peer_ip", "0.0.0.0"}}, Json{{"peer_hostname", " "}}}) {
        const Ended ended = pairingWith(saying(changes), {"--yes", "--json"});
        EXPECT_THAT(ended.failure(), StartsWith("orlinth: not a valid introduction: "));
        EXPECT_THAT(ended.names(), ElementsAre("payload", "error"));
        expectNothingRecorded(ended, ended.failure().substr(9), nothingRecorded);
    }
}

TEST_F(PairCommandTest, RefusesWhoeverHasNotScannedTheCode) {
    world.alongside(sayAfterASecond(PairWire::encodeFrame(
        PairCrypto::sealIntroduction(asBytes("{}"), PairCrypto::deriveAEADKey(asBytes(std::string(32, 'x')))))));
    const Ended other = pairing();
    EXPECT_THAT(other.failure(), StartsWith("orlinth: decrypt failed: "));
    expectNothingRecorded(other, other.failure().substr(9), notThisPhone);
    world.alongside(sayAfterASecond({std::byte{0}, std::byte{0}}));
    expectNothingRecorded(pairing(), "read failed: prefix EOF", notThisPhone);
}

TEST_F(PairCommandTest, LetsTheSecretOutNowhereButInTheCode) {
    const Ended ended = pairingWith(saying());
    std::string everything = ended.output;
    for (const std::string& line : ended.errors) {
        everything += line;
    }
    for (const std::string& line : world.log.messages()) {
        everything += line;
    }
    for (const std::string& file : world.files.allFiles()) {
        everything += file == picture ? "" : world.files.content(file).value();
    }
    EXPECT_THAT(everything, HasSubstr(payload.peer_pubkey));
    EXPECT_THAT(everything, Not(HasSubstr(payload.pairing_secret)));
    EXPECT_EQ(world.files.status(picture)->permissions & 0777U, 0600U);
    EXPECT_NE((static_cast<void>(pairing({"--timeout", "1"})), shown().pairing_secret), payload.pairing_secret);
}

// The consent to a service

using Outcome = platform::ServiceStart::Outcome;

TEST_F(PairCommandTest, HasTheServiceRunFromNowOn) {
    startServices({.outcome = Outcome::running});
    const Ended ended = pairingForGood();
    expectPaired(ended);
    EXPECT_THAT(ended.errors, ElementsAre(startedLine));
    EXPECT_THAT(world.userServices.asked(), ElementsAre("enable orlinth.service"));
}

TEST_F(PairCommandTest, LeavesTheServiceAloneIfItIsAskedTo) {
    startServices({.outcome = Outcome::running});
    const Ended ended = pairingForGood({"--no-enable"});
    expectPaired(ended);
    EXPECT_THAT(ended.errors, IsEmpty());
    EXPECT_THAT(world.userServices.asked(), IsEmpty());
}

TEST_F(PairCommandTest, SaysWhatToDoWhereNobodyStartsServices) {
    startServices({});
    const Ended ended = pairingForGood();
    expectPaired(ended);
    EXPECT_THAT(ended.errors, ElementsAre(byHandLine));
}

TEST_F(PairCommandTest, SaysWhatToDoIfTheServiceIsStartedAndDoesNotRunAllTheSame) {
    startServices({.outcome = Outcome::running}, false);
    EXPECT_THAT(pairingForGood().errors, ElementsAre(byHandLine));
}

TEST_F(PairCommandTest, IsAPairingAlsoIfTheServiceCannotBeStarted) {
    startServices({.outcome = Outcome::failed, .problem = "it is masked"});
    const Ended ended = pairingForGood();
    expectPaired(ended);
    EXPECT_THAT(ended.errors, ElementsAre("The Orlinth service cannot be started: it is masked. To see what is wrong: "
                                          "`systemctl --user status orlinth`"));
}

TEST_F(PairCommandTest, EnablesNothingForAnotherDataFolder) {
    startServices({.outcome = Outcome::running});
    world.system.directories.home = "/home/bob";
    EXPECT_THAT(pairingForGood().errors, ElementsAre(byHandLine));
    EXPECT_THAT(world.userServices.asked(), IsEmpty());
}

TEST_F(PairCommandTest, EnablesNothingIfAServiceRuns) {
    startServices({.outcome = Outcome::running});
    world.files.put(dataFolder / "service.lock", "");
    const auto lock = world.files.open(dataFolder / "service.lock", platform::OpenMode::openOrCreate);
    ASSERT_TRUE(lock->tryLock());
    const Ended ended = pairingForGood({"--port", "7400"});
    expectPaired(ended);
    EXPECT_THAT(world.userServices.asked(), IsEmpty());
    EXPECT_THAT(ended.errors, testing::Each(Not(HasSubstr("service is not running"))));
}

TEST_F(PairCommandTest, EnablesNothingIfThePairingFails) {
    startServices({.outcome = Outcome::running});
    EXPECT_EQ(run(makePairCommand, {"pair", "--png", picture, "--yes", "--timeout", "1"}).status, 1);
    EXPECT_THAT(world.userServices.asked(), IsEmpty());
}

// Where the phone is to send

TEST_F(PairCommandTest, NamesTheInterfaceThatIsAskedFor) {
    expectNothingRecorded(pairing({"--interface", "nowhere0"}),
                          "there is no interface 'nowhere0' that is up and has an IPv4 address",
                          "`ip -brief address` lists the interfaces.");
    EXPECT_EQ(pairingWith(saying(), {"--yes", "--interface", "wlan0"}).status, 0);
    EXPECT_EQ(payload.peer_ip, "203.0.113.1");
}

TEST_F(PairCommandTest, SaysThatThereIsNoNetwork) {
    world.interfaces.addresses = {fakes::FakeNetworkInterfaces::ipv4("lo", {127, 0, 0, 1})};
    world.interfaces.addresses.front().isLoopback = true;
    expectNothingRecorded(pairing(), "no active non-loopback IPv4 interface",
                          "Is this computer connected? `--interface NAME` takes a certain interface.");
    world.interfaces.listErrno = ENFILE;
    EXPECT_THAT(pairing().errors.back(), StartsWith("The system cannot list the network interfaces: "));
    EXPECT_FALSE(world.files.exists(picture));
}

TEST_F(PairCommandTest, SaysIfNobodyReceivesAtThePort) {
    const Ended none = pairing({"--timeout", "1", "--port", "7400"});
    EXPECT_EQ(none.errors.at(0),
              "The phone will send files to port 7400. To receive them, write `port = 7400` into `[serve]` of "
              "config.toml, or run `orlinth serve --port 7400`.");
    world.alongside(serveOthers({R"({"lent":false,"port":7100})", R"({"port":7100})"}));
    const Ended other = pairing({"--timeout", "1", "--port", "7400"});
    EXPECT_EQ(other.errors.at(0), "The phone will send files to port 7400, but the Orlinth service receives on port "
                                  "7100. To use the service, pair without `--port`.");
    EXPECT_THAT(asked, ElementsAre(R"({"port":7400,"request":"lend_port"})", R"({"request":"port"})"));
}

TEST_F(PairCommandTest, SaysWhatElseUsesThePort) {
    const auto taken = world.network.listen({.port = 7400, .keepAlive = std::nullopt}, world.context.get_executor());
    expectNothingRecorded(pairing({"--port", "7400"}), "NWListener failed to start: Address already in use",
                          "Another program is using port 7400; `ss -ltnp` shows which. Choose another port (`--port "
                          "0`: any free one), or stop that program.");
    world.network.listenErrno = EACCES;
    expectNothingRecorded(pairing({"--port", "99"}), "NWListener failed to start: Permission denied",
                          "This account may not open port 99; ports below 1024 are usually reserved. Choose a higher "
                          "one with `--port`.");
}

// Beside a service

TEST_F(PairCommandTest, BorrowsThePortOfARunningServiceAndGivesItBack) {
    world.alongside(lendPort(7100, {}));
    const Ended ended = pairingWith(saying());
    expectPaired(ended);
    EXPECT_EQ(payload.peer_port, 7100);
    fakes::runUntilIdle(world.context, world.clock);
    EXPECT_TRUE(hasPortBack);
    EXPECT_THAT(asked, ElementsAre(R"({"request":"lend_port"})"));
    EXPECT_THAT(ended.errors, IsEmpty()) << "files go where the service receives";
}

TEST_F(PairCommandTest, NamesTheAddressAtWhichTheServiceReceives) {
    world.alongside(lendPort(7100, {"wlan0"}));
    static_cast<void>(pairing({"--timeout", "1"}));
    EXPECT_EQ(shown().peer_ip, "203.0.113.1");
    fakes::runUntilIdle(world.context, world.clock);
    world.alongside(lendPort(7101, {"203.0.113.1"}));
    static_cast<void>(pairing({"--timeout", "1", "--interface", "wlan0"}));
    EXPECT_EQ(shown().peer_ip, "203.0.113.1");
}

TEST_F(PairCommandTest, SaysWhereTheServiceCannotBeReached) {
    struct Case {
        std::string place;
        std::vector<std::string> words;
        std::string failure;
        std::string hint;
    };
    const std::string needsIpv4 = "Give the service an IPv4 address or an interface with `orlinth serve --listen`.";
    const std::string otherInterface =
        "Pair without choosing an interface, or let `orlinth serve --listen` name that interface.";
    const std::vector<Case> cases{
        {"wlan0", {"--interface", "enp3s0"}, "wlan0, not on the interface 'enp3s0'", otherInterface},
        {"203.0.113.1", {"--interface", "enp3s0"}, "203.0.113.1, not on the interface 'enp3s0'", otherInterface},
        {"::1", {}, "::1, and the code for the phone needs an IPv4 address", needsIpv4},
        {"::", {}, "::, and the code for the phone needs an IPv4 address", needsIpv4},
        {"10.0.0.5",
         {},
         "10.0.0.5, which is no IPv4 address or interface of this computer that is up",
         "`ip -brief address` lists the interfaces."}};
    std::uint16_t port = 7100;
    for (const Case& one : cases) {
        hasPortBack = false;
        world.alongside(lendPort(port++, {one.place}));
        expectNothingRecorded(pairing(one.words), "the service receives only at " + one.failure, one.hint);
        fakes::runUntilIdle(world.context, world.clock);
        EXPECT_TRUE(hasPortBack) << one.place;
    }
}

TEST_F(PairCommandTest, SaysIfTheServiceDoesNotLendItsPort) {
    world.alongside(serveOthers({R"({"error":"the port is lent already"})"}));
    expectNothingRecorded(pairing(), "the running service does not lend its port: the port is lent already",
                          "Is another pairing under way? `--port 0` takes a port that is free.");
}

TEST_F(PairCommandTest, LeavesTheServiceAloneForAPortThatIsFree) {
    world.alongside(serveOthers({R"({"port":7100})"}));
    EXPECT_EQ(pairingWith(saying(), {"--yes", "--port", "0"}).status, 0);
    EXPECT_THAT(asked, ElementsAre(R"({"request":"port"})")) << "to say where files go";
}

// Before anything is shown

TEST_F(PairCommandTest, SaysWhyThePictureCannotBeWritten) {
    world.files.putFolder("/home/ann/locked", 0500);
    expectNothingRecorded(run(makePairCommand, {"pair", "--png", "/home/ann/locked/code.png"}),
                          "CGImageDestination PNG write failed",
                          "Cannot write '/home/ann/locked/code.png': Permission denied. Choose a file in a folder that "
                          "you may write to.");
}

TEST_F(PairCommandTest, ShowsNothingIfThePeerStoreIsDamaged) {
    const platform::Path store = dataFolder / "peer.json";
    world.files.put(store, "{");
    const Ended ended = pairing();
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.output, "");
    EXPECT_THAT(ended.failure(), StartsWith("orlinth: PeerRecord decode failed: "));
    EXPECT_THAT(ended.errors.back(), StartsWith("The list of paired phones, " + store.string() + ", is damaged. "));
    EXPECT_EQ(world.files.content(store), "{");
    EXPECT_FALSE(world.files.exists(picture));
}

TEST_F(PairCommandTest, SaysThatAHostNameIsTooLongForTheCode) {
    world.interfaces.name = std::string(3000, 'x');
    const Ended ended = run(makePairCommand, {"pair"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.errors.back(),
              "What the code has to say does not fit into a QR code. Is this computer's host name very long?");
}

TEST_F(PairCommandTest, WantsNumbersThatMakeSenseAndAFileForThePicture) {
    using Words = std::vector<std::string>;
    for (const Words& words : {Words{"--png", "-"}, Words{"--png", ""}, Words{"--interface", ""},
                               Words{"--port", "65536"}, Words{"--port", "-1"}, Words{"--port", "http"},
                               Words{"--timeout", "-1"}, Words{"--timeout", "nan"}, Words{"superfluous"}}) {
        Words all = words;
        all.insert(all.begin(), "pair");
        const Ended ended = run(makePairCommand, all);
        EXPECT_EQ(ended.status, 2) << testing::PrintToString(words);
        EXPECT_NE(ended.failure(), "");
        EXPECT_EQ(ended.errors.back(), "`orlinth pair --help` explains the command line.");
    }
    EXPECT_THAT(world.network.listens, IsEmpty());
}

} // namespace
} // namespace orlinth::cli
