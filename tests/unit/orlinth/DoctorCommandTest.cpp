#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/Whereabouts.h"
#include "base/Text.h"
#include "fakes/ProvingPhone.h"
#include "fakes/TestRsaKey.h"
#include "orlinth/Program/Settings.h"
#include "orlinth/Reporting/DoctorReporter.h"
#include "platform/Deadline.h"
#include "unit/orlinth/CommandWorld.h"

#include <cerrno>

namespace orlinth::cli {
namespace {

using fakes::FakeNetworkInterfaces;
using fakes::MemoryNeighbours;
using platform::FirewallReport;
using platform::IcmpReport;
using platform::IpAddress;
using platform::NeighbourState;
using testing::AllOf;
using testing::AnyOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const host::MacAddress routerMac = *host::MacAddress::parse("3e:5a:b4:01:02:03");
const host::MacAddress phoneMac = *host::MacAddress::parse("9c:28:f7:00:00:07");
const IpAddress own = platform::Ipv4Address{192, 168, 7, 10};
const IpAddress router = platform::Ipv4Address{192, 168, 7, 1};
const IpAddress phone = platform::Ipv4Address{192, 168, 7, 30};

Bytes bytesOf(const host::MacAddress& mac) {
    Bytes bytes;
    for (const std::uint8_t byte : mac.raw()) {
        bytes.push_back(std::byte{byte});
    }
    return bytes;
}

/// The same transcript as a terminal without UTF-8 shows it: wider marks, and labels that are one column shorter.
std::string inAscii(const std::string& transcript) {
    const std::vector<std::pair<std::string, std::string>> marks{
        {"✓ ", "ok "}, {"✗ ", "x  "}, {"! ", "!  "}, {"· ", "-  "}};
    std::istringstream lines(transcript);
    std::string ascii;
    for (std::string line; std::getline(lines, line);) {
        for (const auto& [utf8, plain] : marks) {
            if (line.starts_with(utf8)) {
                line = plain + line.substr(utf8.size(), 15) + line.substr(utf8.size() + 16);
                break;
            }
        }
        ascii += line + "\n";
    }
    return ascii;
}

/// At home: 192.168.7.10 by Wi-Fi, a router, a service that runs, and a phone that is there.
class DoctorCommandTest : public CommandWorldTest {
protected:
    DoctorCommandTest() {
        world.files.setCapacity(41'000'000'000);
        world.interfaces.addresses = {FakeNetworkInterfaces::ipv4("wlan0", {192, 168, 7, 10})};
        world.interfaces.addresses.front().isWireless = true;
        world.routes.gateways["wlan0"] = router;
        world.neighbours.put(MemoryNeighbours::entry(router, NeighbourState::reachable, bytesOf(routerMac)));
        putNeighbour(NeighbourState::reachable);
        platform::Route way;
        way.interfaceIndex = 2;
        way.interface = "wlan0";
        way.source = own;
        world.routes.put(phone, way);
        record.peer_ip = "192.168.7.30";
        fakes::proveAt(world, phone, world.phoneKey, 4ms);
    }

    void putNeighbour(NeighbourState state, std::optional<Seconds> confirmedAge = std::nullopt) {
        platform::Neighbour entry = MemoryNeighbours::entry(phone, state, bytesOf(phoneMac));
        entry.confirmedAge = confirmedAge;
        world.neighbours.put(entry);
    }
    void fail(int number, std::optional<IcmpReport> icmp = std::nullopt, Seconds after = 2ms) {
        world.probe.fail(phone, fakes::World::phonePort, number, std::move(icmp), after);
    }
    void makeSilent() { world.probe.makeSilent(phone, fakes::World::phonePort); }
    [[nodiscard]] host::AddressMemory memory() { return {world.files, world.clock, world.log, dataFolder}; }

    /// What a run has shown, and how it ended.
    struct Shown {
        int status = -1;
        double after = 0;
        std::string output;
        std::optional<bool> canSend;
    };
    /// `orlinth doctor WORDS...` as a terminal with or without UTF-8 shows it.
    Shown show(bool isUtf8, const std::vector<PeerRecord>& chosen = {}) {
        pair({record});
        const bool asksService = chosen.empty() && hasService;
        if (asksService) {
            world.alongside(serveOthers({serviceSays}));
        }
        Output output;
        DoctorReporter reporter(output, {.isUtf8 = isUtf8});
        host::Home home{.system = world.system, .executor = world.context.get_executor()};
        host::DoctorRequest request{.phones = chosen.empty() ? book().peers : chosen,
                                    .isAboutPhones = !chosen.empty(),
                                    .downloads = world.system.directories.downloads};
        request.find = find;
        request.listens = listens;
        host::Doctor doctor(home, std::move(request), reporter);
        const double begin = world.clock.elapsed();
        testing::internal::CaptureStdout();
        Shown shown;
        const host::Diagnosis diagnosis = world.run(doctor.run());
        shown.status = diagnosis.problems == 0 ? 0 : 1;
        shown.canSend = diagnosis.canSend;
        shown.output = testing::internal::GetCapturedStdout();
        shown.after = world.clock.elapsed() - begin;
        return shown;
    }
    /// The whole transcript, on both kinds of terminals.
    void expectAll(int status, const std::string& transcript) { expectShown(status, transcript, {}); }
    /// That of `orlinth doctor pixel`.
    void expectPhone(int status, const std::string& transcript) { expectShown(status, transcript, {record}); }
    void expectShown(int status, const std::string& transcript, const std::vector<PeerRecord>& chosen) {
        for (const bool isUtf8 : {true, false}) {
            const Shown shown = show(isUtf8, chosen);
            EXPECT_EQ(shown.output, isUtf8 ? transcript : inAscii(transcript));
            EXPECT_EQ(shown.status, status);
            EXPECT_LE(shown.after, 10);
            std::istringstream lines(shown.output);
            for (std::string line; std::getline(lines, line);) {
                EXPECT_LE(columnsOf(line), isUtf8 ? 81u : 80u) << line; // a mark counts as two columns there
            }
        }
    }

    /// The phone proves its key as soon as it is no longer busy.
    Task<> proveAfter(Seconds delay, std::unique_ptr<fakes::MemoryStream> stream) {
        co_await world.clock.sleep(delay);
        co_await fakes::detail::answerFirstMessage(&world.clock, std::move(stream), &world.phoneKey);
    }
    /// The phone connects to this computer, and the service notes that.
    Task<> comeAfter(Seconds delay) {
        co_await world.clock.sleep(delay);
        memory().came(record.peer_pubkey, {.host = host::HostAddress::parse("192.168.7.30").value()});
        world.folders.change(dataFolder);
    }
    static Task<> justRun(host::Doctor& doctor) {
        const host::Diagnosis diagnosis = co_await doctor.run();
        ADD_FAILURE() << "it has ended by itself, with " << diagnosis.problems << " problems";
    }
    Ended doctor(std::vector<std::string> words = {}) {
        pair({record});
        words.insert(words.begin(), "doctor");
        return CommandWorldTest::run(makeDoctorCommand, words);
    }

    PeerRecord record = world.phoneRecord();
    bool hasService = true;
    std::string serviceSays = R"({"port":28471})";
    host::FindSetting find = host::FindSetting::known;
    Seconds listens{0};
};

// ---- transcripts

TEST_F(DoctorCommandTest, SaysThatEverythingWorks) {
    expectAll(0, "✓ This computer   192.168.7.10 on wlan0\n"
                 "✓ Service         receives at port 28471\n"
                 "✓ Firewall        none found\n"
                 "✓ Downloads       /home/ann/Downloads, 41 GB free\n"
                 "✓ Pixel-8         here now, 192.168.7.30, answered in 4 ms\n"
                 "Everything works.\n");
}

TEST_F(DoctorCommandTest, SaysSinceWhenTheServiceReceives) {
    const auto sinceWith = [this](EpochMilliseconds moment) {
        serviceSays = R"({"port":28471,"since_epoch_ms":)" + std::to_string(toNumber(moment)) + "}";
        return show(true).output;
    };
    const EpochMilliseconds now = world.clock.epochMilliseconds();
    EXPECT_THAT(sinceWith(now),
                HasSubstr("✓ Service         receives at port 28471 since " + host::humanTime(now).substr(11) + "\n"));
    EXPECT_THAT(sinceWith(now - 48h), HasSubstr("✓ Service         receives at port 28471 since " +
                                                host::humanTime(now - 48h).substr(0, 10) + "\n"));
    EXPECT_THAT(sinceWith(EpochMilliseconds::max()), HasSubstr("✓ Service         receives at port 28471"));
}

TEST_F(DoctorCommandTest, GivesScriptsTimesInMilliseconds) {
    Output output;
    output.useJson();
    DoctorReporter reporter(output, {});
    host::Finding finding;
    finding.duration = Seconds(0.0034567);
    testing::internal::CaptureStdout();
    reporter.found(finding);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("\"duration_seconds\":0.003,"));
}

TEST_F(DoctorCommandTest, ShowsPlainMarksWhereNothingElseCanBeShown) {
    EXPECT_EQ(show(false).output, "ok This computer  192.168.7.10 on wlan0\n"
                                  "ok Service        receives at port 28471\n"
                                  "ok Firewall       none found\n"
                                  "ok Downloads      /home/ann/Downloads, 41 GB free\n"
                                  "ok Pixel-8        here now, 192.168.7.30, answered in 4 ms\n"
                                  "Everything works.\n");
}

TEST_F(DoctorCommandTest, SaysThatOrlinthIsNotOpenOnThePhone) {
    fail(ECONNREFUSED);
    expectPhone(1, "✗ Pixel-8         on this network, but Orlinth is not open on it\n"
                   "                  Open the app there once and allow it to run in the background\n"
                   "                  (battery settings). It cannot be woken: no push token is\n"
                   "                  recorded; pairing again brings one.\n"
                   "1 problem. Pixel-8 cannot be reached now.\n");
}

TEST_F(DoctorCommandTest, WarnsOnlyIfAPhoneThatSleepsCanBeWoken) {
    fail(ECONNREFUSED);
    record.peer_fcm_token = "push-token-of-pixel";
    world.files.put(dataFolder / "firebase-service-account.json", "{}");
    expectPhone(0, "! Pixel-8         on this network, but Orlinth is not open on it\n"
                   "                  Open the app there once and allow it to run in the background\n"
                   "                  (battery settings). It is woken when you send.\n"
                   "It works, with 1 warning.\n");
}

TEST_F(DoctorCommandTest, DoesNotPromiseToWakeAPhoneWithoutAKeyOfAPushProject) {
    fail(ECONNREFUSED);
    record.peer_fcm_token = "push-token-of-pixel";
    expectPhone(1, "✗ Pixel-8         on this network, but Orlinth is not open on it\n"
                   "                  Open the app there once and allow it to run in the background\n"
                   "                  (battery settings). It cannot be woken: this computer has no\n"
                   "                  key file of a push project.\n"
                   "1 problem. Pixel-8 cannot be reached now.\n");
}

TEST_F(DoctorCommandTest, SaysThatNothingAnswers) {
    putNeighbour(NeighbourState::incomplete);
    fail(EHOSTUNREACH, IcmpReport{.type = 3, .code = 1, .from = own}, 3070ms);
    expectPhone(1, "✗ Pixel-8         nothing answers at 192.168.7.30. The phone is off, out of\n"
                   "                  Wi-Fi, or has a new address.\n"
                   "                  Is Wi-Fi on there, and is it the same Wi-Fi?\n"
                   "1 problem. Pixel-8 cannot be reached now.\n");
}

TEST_F(DoctorCommandTest, SaysThatThePhoneBlocksConnections) {
    makeSilent();
    world.probe.fail(phone, platform::discardPort, ECONNREFUSED);
    expectPhone(1, "✗ Pixel-8         on this network, but something on it blocks the connection\n"
                   "                  Usually it is a VPN app on the phone: allow local connections\n"
                   "                  there, and switch off \"Block connections without VPN\".\n"
                   "1 problem. Pixel-8 cannot be reached now.\n");
}

TEST_F(DoctorCommandTest, DoesNotGuessAboutSilence) {
    makeSilent();
    putNeighbour(NeighbourState::reachable, 40s);
    expectPhone(1, "✗ Pixel-8         no answer from Pixel-8. It was here until about 40 s ago, or\n"
                   "                  it blocks everything.\n"
                   "                  Try again in a minute.\n"
                   "1 problem. Pixel-8 cannot be reached now.\n");
}

TEST_F(DoctorCommandTest, SaysThatAnotherDeviceHasTheAddress) {
    const platform::PrivateKey other = platform::PrivateKey::generate();
    fakes::proveAt(world, phone, other);
    expectPhone(1, "✗ Pixel-8         another device has the address that Pixel-8 had\n"
                   "                  If the phone was reset, pair it again.\n"
                   "1 problem. Pixel-8 cannot be reached now.\n");
}

TEST_F(DoctorCommandTest, SaysThatThePhoneIsInAnotherNetwork) {
    record.peer_ip = "10.1.4.30";
    record.peer_subnet = "10.1.4.0/24";
    world.routes.putVia(platform::Ipv4Address{10, 1, 4, 30}, router);
    expectPhone(1, "✗ Pixel-8         was last in 10.1.4.0/24. This computer is in 192.168.7.0/24.\n"
                   "                  Put both into one Wi-Fi, or use the phone's hotspot.\n"
                   "1 problem. Pixel-8 cannot be reached now.\n");
}

TEST_F(DoctorCommandTest, SaysThatAVpnTakesTheNetwork) {
    world.interfaces.addresses.push_back(FakeNetworkInterfaces::ipv4("tun0", {10, 8, 0, 2}));
    world.interfaces.addresses.back().isPointToPoint = true;
    world.routes.putOnLink(phone, "tun0");
    makeSilent();
    expectAll(1, "✗ This computer   the VPN on this computer (tun0) takes the way to\n"
                 "                  192.168.7.0/24\n"
                 "                  Allow the local network in the VPN's settings (\"LAN sharing\",\n"
                 "                  split tunnel).\n"
                 "✓ Service         receives at port 28471\n"
                 "✓ Firewall        none found\n"
                 "✓ Downloads       /home/ann/Downloads, 41 GB free\n"
                 "· Pixel-8         not measured: see above\n"
                 "1 problem. No phone can be reached.\n");
    expectPhone(1, "✗ This computer   the VPN on this computer (tun0) takes the way to\n"
                   "                  192.168.7.0/24\n"
                   "                  Allow the local network in the VPN's settings (\"LAN sharing\",\n"
                   "                  split tunnel).\n"
                   "· Pixel-8         not measured: see above\n"
                   "1 problem. No phone can be reached.\n");
}

TEST_F(DoctorCommandTest, DoesNotBlameAVpnByWhichThePhoneIsReached) {
    world.interfaces.addresses.push_back(FakeNetworkInterfaces::ipv4("tun0", {10, 8, 0, 2}));
    world.interfaces.addresses.back().isPointToPoint = true;
    world.routes.putOnLink(phone, "tun0");
    expectPhone(0, "✓ Pixel-8         here now, 192.168.7.30, answered in 4 ms\n"
                   "Everything works.\n");
}

TEST_F(DoctorCommandTest, SaysThatThisComputersFirewallStopsWhatGoesOut) {
    makeSilent();
    world.probe.forbidDatagrams(phone);
    expectPhone(1, "✗ Pixel-8         a firewall on this computer (a VPN's kill switch?) stops what\n"
                   "                  goes out\n"
                   "                  Allow the local network in the settings of the firewall or\n"
                   "                  VPN.\n"
                   "1 problem. Pixel-8 cannot be reached now.\n");
}

TEST_F(DoctorCommandTest, SaysThatThereIsNoNetwork) {
    world.interfaces.addresses.front().isRunning = false;
    expectAll(1, "✗ This computer   not connected to any network\n"
                 "✓ Service         receives at port 28471\n"
                 "· Firewall        there is no network\n"
                 "✓ Downloads       /home/ann/Downloads, 41 GB free\n"
                 "· Pixel-8         not measured: see above\n"
                 "1 problem. No phone can be reached. Receiving does not work either.\n");
}

TEST_F(DoctorCommandTest, SaysThatTheFirewallKeepsPhonesOut) {
    world.firewall.report = {
        .verdict = FirewallReport::Verdict::closed, .name = "firewalld", .zone = "public", .isDefaultZone = true};
    expectAll(1, "✓ This computer   192.168.7.10 on wlan0\n"
                 "✓ Service         receives at port 28471\n"
                 "✗ Firewall        this computer's firewall (firewalld, zone public) does not let\n"
                 "                  phones in at port 28471\n"
                 "                  To open the port:\n"
                 "                  sudo firewall-cmd --permanent --add-port=28471/tcp\n"
                 "                  sudo firewall-cmd --reload\n"
                 "✓ Downloads       /home/ann/Downloads, 41 GB free\n"
                 "✓ Pixel-8         here now, 192.168.7.30, answered in 4 ms\n"
                 "1 problem. Sending works, receiving does not.\n");
    EXPECT_EQ(world.firewall.asked.front(), "wlan0:28471");
}

TEST_F(DoctorCommandTest, NamesTheZoneInWhichThePortIsToBeOpened) {
    world.firewall.report = {
        .verdict = FirewallReport::Verdict::closed, .name = "firewalld", .zone = "FedoraWorkstation"};
    expectAll(1, "✓ This computer   192.168.7.10 on wlan0\n"
                 "✓ Service         receives at port 28471\n"
                 "✗ Firewall        this computer's firewall (firewalld, zone FedoraWorkstation)\n"
                 "                  does not let phones in at port 28471\n"
                 "                  To open the port:\n"
                 "                  sudo firewall-cmd --permanent --zone=FedoraWorkstation \\\n"
                 "                      --add-port=28471/tcp\n"
                 "                  sudo firewall-cmd --reload\n"
                 "✓ Downloads       /home/ann/Downloads, 41 GB free\n"
                 "✓ Pixel-8         here now, 192.168.7.30, answered in 4 ms\n"
                 "1 problem. Sending works, receiving does not.\n");
}

TEST_F(DoctorCommandTest, WarnsOfAFirewallWhoseRulesItMayNotReadUntilAPhoneHasComeIn) {
    world.firewall.report = {.verdict = FirewallReport::Verdict::unknown, .name = "ufw", .zone = ""};
    const std::string before = "✓ This computer   192.168.7.10 on wlan0\n"
                               "✓ Service         receives at port 28471\n";
    const std::string after = "✓ Downloads       /home/ann/Downloads, 41 GB free\n"
                              "✓ Pixel-8         here now, 192.168.7.30, answered in 4 ms\n";
    const std::string doubt = "! Firewall        this computer's firewall (ufw) may keep phones out at port\n"
                              "                  28471. Its rules cannot be read.\n"
                              "                  To open the port:\n"
                              "                  sudo ufw allow 28471/tcp\n";
    expectAll(0, before + doubt + after + "It works, with 1 warning.\n");

    const EpochMilliseconds now = world.clock.epochMilliseconds();
    memory().came(record.peer_pubkey, {.host = host::HostAddress::parse("192.168.7.30").value()});
    world.machine.started = now + 10s;
    expectAll(0, before + doubt + after + "It works, with 1 warning.\n"); // it may have been another firewall then
    world.machine.started = now - 10s;
    expectAll(0, before + "✓ Firewall        Pixel-8 came in at " + host::humanTime(now).substr(11) + " today\n" +
                     after + "Everything works.\n");
}

TEST_F(DoctorCommandTest, SaysThatTheServiceDoesNotRun) {
    hasService = false;
    expectAll(1, "✓ This computer   192.168.7.10 on wlan0\n"
                 "✗ Service         the Orlinth service is not running, so this computer receives\n"
                 "                  nothing\n"
                 "                  To start it now and at every login:\n"
                 "                  systemctl --user enable --now orlinth\n"
                 "✓ Firewall        none found\n"
                 "✓ Downloads       /home/ann/Downloads, 41 GB free\n"
                 "✓ Pixel-8         here now, 192.168.7.30, answered in 4 ms\n"
                 "1 problem. Sending works, receiving does not.\n");
}

TEST_F(DoctorCommandTest, SaysWhoHasThePort) {
    hasService = false;
    world.machine.holders[28471] = {.user = 1000, .isThisUser = true, .program = "syncthing"};
    EXPECT_THAT(show(true).output, HasSubstr("✗ Service         port 28471 is taken by another program (syncthing)\n"
                                             "                  End that program, or give it another port.\n"));
    world.machine.holders[28471] = {.user = 0, .isThisUser = false, .program = ""};
    EXPECT_THAT(show(true).output, HasSubstr("✗ Service         port 28471 is taken by another program\n"));
    world.machine.holders[28471] = {.user = 1000, .isThisUser = true, .program = "systemd"};
    EXPECT_THAT(show(true).output, HasSubstr("✓ Service         starts when a phone connects to port 28471\n"));
}

TEST_F(DoctorCommandTest, SaysThatPhonesKnowAnotherAddressOrPort) {
    memory().tell({.host = host::HostAddress::parse("192.168.7.12").value(), .port = 28472});
    expectAll(1, "✗ This computer   your phones know this computer as 192.168.7.12. It is\n"
                 "                  192.168.7.10 now, so they cannot send to it.\n"
                 "                  Give this computer a fixed address in the router, or pair\n"
                 "                  again. Sending to phones works.\n"
                 "✗ Service         the service listens at port 28471, but your phones know port\n"
                 "                  28472\n"
                 "                  Let the service listen at the port that the phones know, or\n"
                 "                  pair them again.\n"
                 "✓ Firewall        none found\n"
                 "✓ Downloads       /home/ann/Downloads, 41 GB free\n"
                 "✓ Pixel-8         here now, 192.168.7.30, answered in 4 ms\n"
                 "2 problems. Sending works, receiving does not.\n");
    expectPhone(0, "✓ Pixel-8         here now, 192.168.7.30, answered in 4 ms\n"
                   "Everything works.\n");
}

TEST_F(DoctorCommandTest, SaysThatFilesCannotBeStored) {
    world.files.setPermissions("/home/ann/Downloads", 0555);
    const std::size_t before = world.files.mutations();
    EXPECT_THAT(show(true).output,
                HasSubstr("✗ Downloads       files cannot be stored in /home/ann/Downloads: this account\n"
                          "                  may not write to it\n"
                          "                  Choose another folder with `--dir`, or make this one writable.\n"));
    EXPECT_LE(world.files.mutations() - before, 100u);
    world.files.setPermissions("/home/ann/Downloads", 0755);
    world.files.setCapacity(60'000'000);
    EXPECT_THAT(show(true).output, HasSubstr("✗ Downloads       there is hardly any room in /home/ann/Downloads\n"));
}

TEST_F(DoctorCommandTest, MakesNoFolder) {
    world.system.directories.downloads = "/home/ann/New/Downloads";
    EXPECT_THAT(show(true).output, HasSubstr("✓ Downloads       /home/ann/New/Downloads, "));
    EXPECT_FALSE(world.files.exists("/home/ann/New"));
}

TEST_F(DoctorCommandTest, LooksAtTheFolderThatTheServiceUses) {
    world.files.putFolder("/data/from phones");
    serviceSays = R"({"downloads":"/data/from phones","port":28471})";
    EXPECT_THAT(show(true).output, HasSubstr("✓ Downloads       /data/from phones, 41 GB free\n"));
    world.files.setPermissions("/data/from phones", 0555);
    EXPECT_THAT(show(true).output, HasSubstr("✗ Downloads       files cannot be stored in /data/from phones: "));
}

TEST_F(DoctorCommandTest, LooksAtTheFolderInTheSettingsIfNoServiceSaysWhichItUses) {
    CLI::App program("", "orlinth");
    const std::unique_ptr<Command> service = makeServeCommand(program);
    const std::unique_ptr<Command> command = makeDoctorCommand(program);
    world.files.put("/home/ann/.config/orlinth/config.toml", "[serve]\ndir = \"/data/from phones\"\n");
    settings = applySettings(program, world.files, world.system.directories);
    std::vector<std::string> words{"--json", "doctor"}; // the last one first
    program.parse(words);
    Output output;
    output.useJson();
    testing::internal::CaptureStdout();
    static_cast<void>(runChosen(*command, output));
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("/data/from phones, 41 GB free"));
}

TEST_F(DoctorCommandTest, SaysThatAPhoneCannotBeWoken) {
    record.peer_fcm_token = "push-token-of-pixel";
    EXPECT_THAT(show(true).output, Not(HasSubstr("Waking"))) << "nobody has set it up";
    world.files.put(dataFolder / "firebase-service-account.json", "not a key");
    const std::string shown = show(true).output;
    EXPECT_THAT(shown, HasSubstr("! Waking          a phone that sleeps cannot be woken: the key file of your push\n"
                                 "                  project cannot be used\n"));
    EXPECT_THAT(shown, HasSubstr("It works, with 1 warning.\n"));
}

TEST_F(DoctorCommandTest, SaysThatThePushServiceDoesNotAnswer) {
    record.peer_fcm_token = "push-token-of-pixel";
    world.files.put(dataFolder / "firebase-service-account.json",
                    fakes::serviceAccountJson(fakes::TestRsaKey::shared()));
    world.https.willAnswer(503, "{}");
    world.alongside(serveOthers({serviceSays}));
    const Ended ended = doctor({"--push"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.output,
                HasSubstr("-  Waking         the push service does not answer\n1 check gave no answer.\n"));
}

// ---- listening

TEST_F(DoctorCommandTest, WaitsForAPhoneToComeIn) {
    listens = 60s;
    world.alongside(comeAfter(20s));
    const Shown shown = show(true, {record});
    EXPECT_THAT(shown.output, HasSubstr("✓ Pixel-8         here now, 192.168.7.30, answered in 4 ms\n"
                                        "✓ Receiving       Pixel-8 came in at "));
    EXPECT_THAT(shown.output, HasSubstr("\nEverything works.\n"));
    EXPECT_NEAR(shown.after, 20, 0.01);
    EXPECT_FALSE(world.folders.isWatched(dataFolder));
    EXPECT_NEAR(show(true, {record}).after, 0, 0.01) << "it has come in just now";
}

TEST_F(DoctorCommandTest, SaysThatNoPhoneHasComeIn) {
    listens = 60s;
    const Shown shown = show(true, {record});
    EXPECT_EQ(shown.output, "✓ Pixel-8         here now, 192.168.7.30, answered in 4 ms\n"
                            "✗ Receiving       no phone has come in within 60 seconds\n"
                            "1 problem. Sending works, receiving does not.\n");
    EXPECT_NEAR(shown.after, 60, 0.01);
    EXPECT_EQ(shown.status, 1);
}

TEST_F(DoctorCommandTest, DoesNotWaitWhereNothingCanBeSeen) {
    listens = 60s;
    world.folders.errorNumber = ENOSPC;
    EXPECT_THAT(show(true, {record}).output, HasSubstr("· Receiving       not measured: "));
}

TEST_F(DoctorCommandTest, AsksPeopleToSendSomething) {
    const Ended ended = doctor({"pixel", "--listen", "--json"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_NEAR(ended.after, 60, 0.01);
    EXPECT_THAT(ended.errors,
                ElementsAre("Send something from the phone to this computer now. Waiting for 60 seconds."));
    EXPECT_THAT(ended.names(), ElementsAre("check", "check", "listening", "check", "complete"));
    EXPECT_EQ(ended.events().at(3).at("id"), "arrival");
    EXPECT_EQ(ended.events().back().at("can_receive"), false);
}

// ---- limits

TEST_F(DoctorCommandTest, IsNotHeldUpByAFirewallThatNeverAnswers) {
    world.firewall.after = 1000h;
    const Shown shown = show(true);
    EXPECT_THAT(shown.output, AllOf(HasSubstr("· Firewall        not measured: no answer in 1.5 seconds\n"),
                                    HasSubstr("✓ Pixel-8         here now"), HasSubstr("\n1 check gave no answer.\n"),
                                    Not(HasSubstr("works"))));
    EXPECT_LE(shown.after, 1.6);
}

TEST_F(DoctorCommandTest, TakesNoAnswerForNoGoodOne) {
    world.firewall.after = 1000h;
    world.alongside(serveOthers({"{\"port\":28471}"}));
    const Ended ended = doctor({"--json"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.events().back(),
              (Json{{"event", "complete"}, {"problems", 0}, {"can_send", true}, {"can_receive", nullptr}}));
}

TEST_F(DoctorCommandTest, DoesNotDoubtWhatIsCertainlyWrongForWantOfAnAnswer) {
    world.firewall.after = 1000h;
    hasService = false;
    EXPECT_THAT(show(true).output,
                HasSubstr("\n1 problem. Sending works, receiving does not. 1 check gave no answer.\n"));
    const Ended ended = doctor({"--json"});
    EXPECT_EQ(ended.events().back(),
              (Json{{"event", "complete"}, {"problems", 1}, {"can_send", true}, {"can_receive", false}}));
}

TEST_F(DoctorCommandTest, IsNotHeldUpByAServiceThatNeverAnswers) {
    hasService = false;
    world.files.put(dataFolder / "service.lock", "");
    const auto lock = world.files.open(dataFolder / "service.lock", platform::OpenMode::write);
    EXPECT_TRUE(lock->tryLock());
    const auto listener = world.unixSockets.listen(dataFolder / "service.sock", world.context.get_executor());
    const Shown shown = show(true);
    EXPECT_THAT(shown.output, AllOf(HasSubstr("! Service         runs, but does not say at which port\n"),
                                    HasSubstr("✓ Pixel-8         here now")));
    EXPECT_LE(shown.after, 1);
}

TEST_F(DoctorCommandTest, SaysThatADiskDoesNotAnswerBeforeItWaitsForIt) {
    class Recorder final : public host::DoctorEvents {
    public:
        Recorder(fakes::World& of, asio::io_context& disk) : world_(of), disk_(disk) {}
        void found(const host::Finding& finding) override {
            if (finding.check == host::Finding::Check::downloads) {
                remark = finding.remark;
            }
        }
        void listening(Seconds /*time*/) override {}
        void concluded(const host::Diagnosis& diagnosis) override {
            concludedAt = world_.clock.elapsed();
            canReceive = diagnosis.canReceive;
        }
        void hung() override {
            hungAt = world_.clock.elapsed();
            disk_.run(); // now it answers
        }
        std::string remark;
        std::optional<bool> canReceive = false;
        double concludedAt = 0;
        double hungAt = 0;

    private:
        fakes::World& world_;
        asio::io_context& disk_;
    };
    asio::io_context disk;
    world.queues.blockingQueue = disk.get_executor();
    world.alongside(serveOthers({"{\"port\":28471}"}));
    host::Home home{.system = world.system, .executor = world.context.get_executor()};
    Recorder recorder(world, disk);
    host::Doctor doctor(home, {.phones = {record}, .downloads = "/home/ann/Downloads"}, recorder);
    const double begin = world.clock.elapsed();
    static_cast<void>(world.run(doctor.run()));
    EXPECT_THAT(recorder.remark, HasSubstr("not measured: no answer in "));
    EXPECT_EQ(recorder.canReceive, std::nullopt);
    EXPECT_LE(recorder.concludedAt - begin, 2);
    EXPECT_NEAR(recorder.hungAt - recorder.concludedAt, 0.2, 0.01);
}

TEST_F(DoctorCommandTest, EndsInTenSecondsWhateverPhonesDo) {
    std::vector<PeerRecord> phones;
    for (int i = 0; i < 12; ++i) {
        PeerRecord other = record;
        other.peer_pubkey = platform::PrivateKey::generate().publicKey().peerKey();
        other.peer_hostname = "Phone " + std::to_string(i);
        phones.push_back(other);
    }
    putNeighbour(NeighbourState::reachable, 40s);
    makeSilent();
    find = host::FindSetting::never;
    const Shown shown = show(true, phones);
    EXPECT_EQ(shown.after, 10);
    EXPECT_THAT(shown.output, HasSubstr("✗ Phone 7         no answer from Phone 7."));
    EXPECT_THAT(shown.output, HasSubstr("· Phone 8         not measured: too little time was left for it\n"));
    EXPECT_THAT(shown.output,
                HasSubstr("8 problems. 8 of 12 phones cannot be reached now. 4 checks gave no answer.\n"));
    EXPECT_LE(world.probe.most, 16u) << "two for each of eight phones";
}

TEST_F(DoctorCommandTest, TakesAPhoneForWhichNoTimeWasLeftNeitherForThereNorForAbsent) {
    const std::vector<PeerRecord> phones(12, record);
    fakes::proveAt(world, phone, world.phoneKey, 8s);
    find = host::FindSetting::never;
    const Shown shown = show(true, phones);
    EXPECT_EQ(shown.after, 10);
    EXPECT_THAT(shown.output, AllOf(HasSubstr("✓ Pixel-8         here now"),
                                    HasSubstr("· Pixel-8         not measured: too little time was left for it\n"),
                                    HasSubstr("\n4 checks gave no answer.\n")));
    EXPECT_EQ(shown.canSend, std::nullopt);
}

TEST_F(DoctorCommandTest, AsksAPhoneThatHadToWaitIfTimeIsLeft) {
    const std::vector<PeerRecord> phones(12, record);
    fakes::proveAt(world, phone, world.phoneKey, 3s);
    find = host::FindSetting::never;
    const Shown shown = show(true, phones);
    EXPECT_EQ(shown.after, 6);
    EXPECT_THAT(shown.output, AllOf(Not(HasSubstr("not measured")), HasSubstr("\nEverything works.\n")));
}

TEST_F(DoctorCommandTest, FindsAPhoneThatHasMovedAndRecordsIt) {
    const IpAddress now = platform::Ipv4Address{192, 168, 7, 57};
    const host::NetworkId network = host::NetworkId::of({192, 168, 7, 0}, 24, routerMac);
    memory().reached(record.peer_pubkey,
                     {.host = host::HostAddress::parse("192.168.7.57").value(), .mac = phoneMac, .network = network});
    world.routes.putOnLink(now);
    fakes::proveAt(world, now, world.phoneKey);
    makeSilent();
    const Shown shown = show(true, {record});
    EXPECT_EQ(shown.output, "✓ Pixel-8         has moved to 192.168.7.57 (was 192.168.7.30); recorded\n"
                            "Everything works.\n");
    EXPECT_EQ(shown.status, 0);
    EXPECT_LE(shown.after, 1) << "without waiting for the old address";
    EXPECT_EQ(book().peers.front().peer_ip, "192.168.7.57");
}

TEST_F(DoctorCommandTest, SweepsANetworkAsOftenAsItIsAskedToInPerson) {
    const host::NetworkId network = host::NetworkId::of({192, 168, 7, 0}, 24, routerMac);
    for (std::uint8_t i = 1; i < 255; ++i) {
        world.routes.putOnLink(platform::Ipv4Address{192, 168, 7, i});
    }
    fail(EHOSTUNREACH, IcmpReport{.type = 3, .code = 1, .from = own}, 3070ms);
    EXPECT_TRUE(memory().claimSweep(network)) << "it was swept just now";
    const auto attemptsWith = [this](host::FindSetting setting) {
        find = setting;
        world.probe.attempts.clear();
        static_cast<void>(show(true, {record}));
        return world.probe.attempts.size();
    };
    memory().reached(record.peer_pubkey,
                     {.host = host::HostAddress::parse("192.168.7.30").value(), .mac = phoneMac, .network = network});
    EXPECT_LT(attemptsWith(host::FindSetting::known), 20u);
    EXPECT_GT(attemptsWith(host::FindSetting::always), 250u);
    EXPECT_GT(attemptsWith(host::FindSetting::always), 250u);
}

TEST_F(DoctorCommandTest, LetsThePhoneProveItsKeyAtItsRecordedAddressIfItHasTakenTheConnection) {
    const IpAddress other = platform::Ipv4Address{192, 168, 7, 57};
    const host::NetworkId network = host::NetworkId::of({192, 168, 7, 0}, 24, routerMac);
    memory().reached(record.peer_pubkey,
                     {.host = host::HostAddress::parse("192.168.7.57").value(), .mac = phoneMac, .network = network});
    world.routes.putOnLink(other);
    fakes::proveAt(world, other, world.phoneKey); // it has two addresses
    world.probe.accept(phone, fakes::World::phonePort, [this](std::unique_ptr<fakes::MemoryStream> stream) {
        world.alongside(proveAfter(1s, std::move(stream)));
    });
    const Shown shown = show(true, {record});
    EXPECT_EQ(shown.output, "✓ Pixel-8         here now, 192.168.7.30, answered in 1.0 s\n"
                            "Everything works.\n");
    EXPECT_EQ(book().peers.front().peer_ip, "192.168.7.30");
}

TEST_F(DoctorCommandTest, DoesNotLookElsewhereIfItMayNot) {
    find = host::FindSetting::never;
    const platform::PrivateKey other = platform::PrivateKey::generate();
    fakes::proveAt(world, phone, other);
    EXPECT_EQ(show(true, {record}).after, 0);
    EXPECT_EQ(world.probe.attempts.size(), 1u);
}

TEST_F(DoctorCommandTest, LeavesNothingBehindIfItIsInterrupted) {
    makeSilent();
    pair({record});
    host::Home home{.system = world.system, .executor = world.context.get_executor()};
    host::DoctorRequest request{.phones = book().peers, .downloads = world.system.directories.downloads};
    Output output;
    DoctorReporter reporter(output, {});
    host::Doctor doctor(home, std::move(request), reporter);
    testing::internal::CaptureStdout();
    const bool hasEnded = world.run(platform::endsWithin(world.clock, 2s, justRun(doctor)));
    static_cast<void>(testing::internal::GetCapturedStdout());
    EXPECT_FALSE(hasEnded);
    EXPECT_EQ(world.probe.underWay(), 0u);
}

TEST_F(DoctorCommandTest, SaysThatARecordCannotBeUsed) {
    record.peer_port = 0;
    expectPhone(1, "✗ Pixel-8         its recorded address or port cannot be used; pair it again\n"
                   "1 problem. Pixel-8 cannot be reached now.\n");
}

// ---- the command

TEST_F(DoctorCommandTest, TellsScriptsWhatItFinds) {
    fail(ECONNREFUSED);
    record.peer_fcm_token = "push-token-of-pixel";
    const Ended ended = doctor({"pix", "--json"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.names(), ElementsAre("check", "check", "complete"));
    const Json computer = ended.events().at(0);
    EXPECT_EQ(computer.at("id"), "computer");
    EXPECT_EQ(computer.at("status"), "ok");
    const Json check = ended.events().at(1);
    EXPECT_EQ(check.at("id"), "phone");
    EXPECT_EQ(check.at("to"), "Pixel-8");
    EXPECT_EQ(check.at("peer_pubkey"), record.peer_pubkey.text());
    EXPECT_EQ(check.at("status"), "problem");
    EXPECT_EQ(check.at("cause"), "not_listening");
    EXPECT_EQ(check.at("message"), "Pixel-8 is on this network, but Orlinth is not open on it.");
    EXPECT_EQ(check.at("commands"), Json::array());
    EXPECT_EQ(check.at("evidence").at("connect"), "refused");
    EXPECT_EQ(check.at("evidence").at("address"), "192.168.7.30");
    EXPECT_DOUBLE_EQ(check.at("duration_seconds"), 0.002);
    EXPECT_EQ(ended.events().at(2),
              (Json{{"event", "complete"}, {"problems", 1}, {"can_send", false}, {"can_receive", nullptr}}));
}

TEST_F(DoctorCommandTest, TellsScriptsTheCommandsThatHelp) {
    world.firewall.report = {
        .verdict = FirewallReport::Verdict::closed, .name = "firewalld", .zone = "public", .isDefaultZone = true};
    world.alongside(serveOthers({"{\"port\":28471}"}));
    const Ended ended = doctor({"--json"});
    EXPECT_EQ(ended.status, 1);
    const std::vector<Json> events = ended.events();
    std::vector<std::string> ids;
    for (const Json& event : events) {
        ids.push_back(event.value("id", "complete"));
    }
    EXPECT_THAT(ids, ElementsAre("computer", "service", "firewall", "downloads", "phone", "waking", "complete"));
    EXPECT_EQ(events.at(2).at("commands"),
              (Json{"sudo firewall-cmd --permanent --add-port=28471/tcp", "sudo firewall-cmd --reload"}));
    EXPECT_EQ(events.back(),
              (Json{{"event", "complete"}, {"problems", 1}, {"can_send", true}, {"can_receive", false}}));
}

TEST_F(DoctorCommandTest, ShowsNoSecretAndNoHardwareAddress) {
    record.peer_fcm_token = "push-token-of-pixel";
    record.peer_mac = "9c:28:f7:00:00:07";
    world.files.put(dataFolder / "firebase-service-account.json", "{\"private_key\":\"secret-of-the-project\"}");
    static_cast<void>(ownKey());
    const std::vector<std::string> secrets{"push-token-of-pixel", "secret-of-the-project", "9c:28:f7", "3e:5a:b4"};
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{{"--json"}, {"--verbose"}, {}}) {
        world.alongside(serveOthers({"{\"port\":28471}"}));
        const Ended ended = doctor(words);
        for (const std::string& secret : secrets) {
            EXPECT_THAT(ended.output, Not(HasSubstr(secret)));
            EXPECT_THAT(ended.errors, Each(Not(HasSubstr(secret))));
        }
    }
}

TEST_F(DoctorCommandTest, ShowsNoColourInAFile) {
    world.alongside(serveOthers({"{\"port\":28471}"}));
    const Ended ended = doctor();
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.output, AllOf(HasSubstr("ok Pixel-8        here now"), Not(HasSubstr("\033"))));
    EXPECT_THAT(ended.errors, IsEmpty());
}

TEST_F(DoctorCommandTest, ColoursTheMarksAndNothingElse) {
    Output output;
    DoctorReporter reporter(output, {.isUtf8 = true, .hasColour = true});
    host::Finding finding;
    finding.status = host::Finding::Status::problem;
    finding.cause = host::Cause::noNetwork;
    testing::internal::CaptureStdout();
    reporter.found(finding);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\033[31m✗\033[0m This computer   not connected to any network\n");
}

TEST_F(DoctorCommandTest, ShowsWhatWasSeenToThoseWhoAsk) {
    const Ended ended = doctor({"pixel", "--verbose"});
    EXPECT_THAT(ended.output, HasSubstr("ok This computer  192.168.7.10 on wlan0\n"));
    EXPECT_THAT(ended.output, HasSubstr("proof phones_key"));
    EXPECT_THAT(ended.output, HasSubstr("; 4 ms\n"));
}

TEST_F(DoctorCommandTest, MakesNamesOfOthersSafeToShow) {
    record.peer_hostname = "Pixel\033[31m\n8";
    const std::string shown = show(true, {record}).output;
    EXPECT_THAT(shown, Not(HasSubstr("\033")));
    EXPECT_THAT(shown, HasSubstr("here now"));
}

TEST_F(DoctorCommandTest, RefusesASelectorThatNobodyHas) {
    const Ended ended = doctor({"nobody"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.failure(), HasSubstr("no paired phone matches 'nobody'"));
    EXPECT_EQ(doctor({"--colour"}).status, 2);
}

TEST_F(DoctorCommandTest, LooksAtThisComputerWithoutPhones) {
    world.alongside(serveOthers({"{\"port\":28471}"}));
    record = {};
    PeerStore(world.files, world.system.directories).writeBook({});
    const Ended ended = CommandWorldTest::run(makeDoctorCommand, {"doctor"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.errors, ElementsAre("No phone is paired yet. `orlinth pair` pairs one."));
}

} // namespace
} // namespace orlinth::cli
