#include "platform/linux/LinuxFirewall.h"

#include "fakes/BusProgram.h"
#include "fakes/TemporaryFolder.h"
#include "platform/Spawn.h"

#include <asio/io_context.hpp>
#include <gmock/gmock.h>

#include <chrono>
#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace orlinth::platform {
namespace {

using Verdict = FirewallReport::Verdict;
using Ports = std::vector<std::pair<std::string, std::string>>;
using SteadyClock = std::chrono::steady_clock;

// ---- what is read from files

TEST(FirewalldPorts, AreOneOrARange) {
    EXPECT_TRUE(includesPort("28471", 28471));
    EXPECT_FALSE(includesPort("28471", 28472));
    EXPECT_TRUE(includesPort("1025-65535", 28471));
    EXPECT_TRUE(includesPort("28471-28471", 28471));
    EXPECT_FALSE(includesPort("1025-28470", 28471));
    for (const char* const odd : {"", "-", "28471-", "-28471", "x", "28471x", "99999", "0-99999"}) {
        EXPECT_FALSE(includesPort(odd, 28471)) << odd;
    }
}

TEST(ShellSettings, AreTakenFromTheLastLine) {
    EXPECT_EQ(shellSetting("# ENABLED=maybe\nENABLED=no\n  ENABLED=\"yes\"  \nOTHER=1\n", "ENABLED"), "yes");
    EXPECT_EQ(shellSetting("DEFAULT_INPUT_POLICY='DROP'", "DEFAULT_INPUT_POLICY"), "DROP");
    EXPECT_EQ(shellSetting("ENABLED_TOO=yes\nXENABLED=yes\n", "ENABLED"), "");
    EXPECT_EQ(shellSetting("", "ENABLED"), "");
}

TEST(NftablesRules, KeepSomethingOutIfTheyDropOrReject) {
    EXPECT_FALSE(keepsAnythingOut("table inet filter {\n chain input { type filter hook input priority filter; }\n}"));
    EXPECT_FALSE(keepsAnythingOut("# policy drop\n"));
    EXPECT_TRUE(keepsAnythingOut("chain input { policy drop; }"));
    EXPECT_TRUE(keepsAnythingOut("tcp dport 1-1024 reject # as usual"));
}

// ---- what is asked on the bus

/// firewalld, polkit and the service manager, as far as they are asked, on a bus of the test's own.
class Daemons {
public:
    std::map<std::string, std::string> zoneOfInterface;
    std::string defaultZone = "public";
    std::string target = "default";
    std::vector<std::string> services{"ssh"};
    Ports ports;
    std::vector<std::string> rules;
    std::map<std::string, Ports> portsOfService{{"ssh", {{"22", "tcp"}}}};
    bool answersSettings = true;
    int settingsAsked = 0;
    std::optional<std::pair<bool, bool>> authorization{{true, false}}; ///< and whether a password helps; none: silence
    std::vector<std::string> asked; ///< of polkit: the kind of the subject, the action, and the flags

    void own(const char* name) { fakes::requireBus(::sd_bus_request_name(program_.get(), name, 0)); }
    void provideFirewalld() {
        add("/org/fedoraproject/FirewallD1", "org.fedoraproject.FirewallD1", firewalldMethods());
        add("/org/fedoraproject/FirewallD1", "org.fedoraproject.FirewallD1.zone", zoneMethods());
        own("org.fedoraproject.FirewallD1");
    }
    void providePolkit() {
        add("/org/freedesktop/PolicyKit1/Authority", "org.freedesktop.PolicyKit1.Authority", polkitMethods());
        own("org.freedesktop.PolicyKit1");
    }
    void provideUnit() {
        add("/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager", managerMethods());
        add("/unit/nftables", "org.freedesktop.systemd1.Unit", unitProperties());
        own("org.freedesktop.systemd1");
    }
    void process() { program_.process(); }

private:
    static Daemons& of(void* data) { return *static_cast<Daemons*>(data); }
    void add(const char* path, const char* interface, const sd_bus_vtable* table) {
        fakes::requireBus(::sd_bus_add_object_vtable(program_.get(), nullptr, path, interface, table, this));
    }
    static std::string argument(sd_bus_message* message) {
        const char* text = nullptr;
        fakes::requireBus(::sd_bus_message_read(message, "s", &text));
        return text;
    }
    static int replyText(sd_bus_message* message, const std::string& text) {
        return ::sd_bus_reply_method_return(message, "s", text.c_str());
    }
    static void appendTexts(sd_bus_message* reply, const char* key, const std::vector<std::string>& texts) {
        fakes::requireBus(::sd_bus_message_open_container(reply, 'e', "sv"));
        fakes::requireBus(::sd_bus_message_append(reply, "s", key));
        fakes::requireBus(::sd_bus_message_open_container(reply, 'v', "as"));
        fakes::requireBus(::sd_bus_message_open_container(reply, 'a', "s"));
        for (const std::string& text : texts) {
            fakes::requireBus(::sd_bus_message_append(reply, "s", text.c_str()));
        }
        fakes::requireBus(::sd_bus_message_close_container(reply));
        fakes::requireBus(::sd_bus_message_close_container(reply));
        fakes::requireBus(::sd_bus_message_close_container(reply));
    }
    static void appendPorts(sd_bus_message* reply, const Ports& ports) {
        fakes::requireBus(::sd_bus_message_open_container(reply, 'e', "sv"));
        fakes::requireBus(::sd_bus_message_append(reply, "s", "ports"));
        fakes::requireBus(::sd_bus_message_open_container(reply, 'v', "a(ss)"));
        fakes::requireBus(::sd_bus_message_open_container(reply, 'a', "(ss)"));
        for (const auto& [port, protocol] : ports) {
            fakes::requireBus(::sd_bus_message_append(reply, "(ss)", port.c_str(), protocol.c_str()));
        }
        fakes::requireBus(::sd_bus_message_close_container(reply));
        fakes::requireBus(::sd_bus_message_close_container(reply));
        fakes::requireBus(::sd_bus_message_close_container(reply));
    }
    /// The answer a{sv}, which `fill` fills.
    template <typename Fill>
    static int replySettings(sd_bus_message* message, Fill fill) {
        sd_bus_message* reply = nullptr;
        fakes::requireBus(::sd_bus_message_new_method_return(message, &reply));
        fakes::requireBus(::sd_bus_message_open_container(reply, 'a', "{sv}"));
        fakes::requireBus(::sd_bus_message_append(reply, "{sv}", "forward", "b", 1)); // which nobody asks for
        fill(reply);
        fakes::requireBus(::sd_bus_message_close_container(reply));
        const int sent = ::sd_bus_send(nullptr, reply, nullptr);
        ::sd_bus_message_unref(reply);
        return sent;
    }

    static int onDefaultZone(sd_bus_message* message, void* data, sd_bus_error* /*error*/) {
        return replyText(message, of(data).defaultZone);
    }
    static int onZoneOfInterface(sd_bus_message* message, void* data, sd_bus_error* /*error*/) {
        return replyText(message, of(data).zoneOfInterface[argument(message)]);
    }
    static int onZoneSettings(sd_bus_message* message, void* data, sd_bus_error* error) {
        Daemons& self = of(data);
        ++self.settingsAsked;
        if (!self.answersSettings) {
            return ::sd_bus_error_set(error, "org.fedoraproject.FirewallD1.Exception", "NotAuthorized");
        }
        return replySettings(message, [&self](sd_bus_message* reply) {
            fakes::requireBus(::sd_bus_message_append(reply, "{sv}", "target", "s", self.target.c_str()));
            appendTexts(reply, "services", self.services);
            appendPorts(reply, self.ports);
            appendTexts(reply, "rules_str", self.rules);
        });
    }
    static int onServiceSettings(sd_bus_message* message, void* data, sd_bus_error* /*error*/) {
        ++of(data).settingsAsked;
        const Ports ports = of(data).portsOfService[argument(message)];
        return replySettings(message, [&ports](sd_bus_message* reply) { appendPorts(reply, ports); });
    }
    static int onCheckAuthorization(sd_bus_message* message, void* data, sd_bus_error* error) {
        Daemons& self = of(data);
        const char* kind = nullptr;
        const char* key = nullptr;
        const char* name = nullptr;
        const char* action = nullptr;
        std::uint32_t flags = 0;
        fakes::requireBus(::sd_bus_message_enter_container(message, 'r', "sa{sv}"));
        fakes::requireBus(::sd_bus_message_read(message, "sa{sv}", &kind, 1, &key, "s", &name));
        fakes::requireBus(::sd_bus_message_exit_container(message));
        fakes::requireBus(::sd_bus_message_read(message, "sa{ss}u", &action, 0, &flags));
        self.asked = {kind, action, std::to_string(flags)};
        if (std::string("name") != key || std::string(::sd_bus_message_get_sender(message)) != name) {
            return ::sd_bus_error_set(error, "org.freedesktop.PolicyKit1.Error.NotAuthorized", "of others");
        }
        return self.authorization
                   ? ::sd_bus_reply_method_return(message, "(bba{ss})", static_cast<int>(self.authorization->first),
                                                  static_cast<int>(self.authorization->second), 1, "polkit.retains",
                                                  "1")
                   : 1;
    }
    static int onGetUnit(sd_bus_message* message, void* /*data*/, sd_bus_error* error) {
        return argument(message) == "nftables.service"
                   ? ::sd_bus_reply_method_return(message, "o", "/unit/nftables")
                   : ::sd_bus_error_set(error, "org.freedesktop.systemd1.NoSuchUnit", "not loaded");
    }
    static int onActiveState(sd_bus* /*bus*/, const char* /*path*/, const char* /*interface*/, const char* /*property*/,
                             sd_bus_message* reply, void* /*data*/, sd_bus_error* /*error*/) {
        return ::sd_bus_message_append(reply, "s", "active");
    }

    static const sd_bus_vtable* firewalldMethods() {
        static const sd_bus_vtable table[] = {
            SD_BUS_VTABLE_START(0), SD_BUS_METHOD("getDefaultZone", "", "s", onDefaultZone, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("getServiceSettings2", "s", "a{sv}", onServiceSettings, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_VTABLE_END};
        return table;
    }
    static const sd_bus_vtable* zoneMethods() {
        static const sd_bus_vtable table[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("getZoneOfInterface", "s", "s", onZoneOfInterface, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("getZoneSettings2", "s", "a{sv}", onZoneSettings, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_VTABLE_END};
        return table;
    }
    static const sd_bus_vtable* polkitMethods() {
        static const sd_bus_vtable table[] = {SD_BUS_VTABLE_START(0),
                                              SD_BUS_METHOD("CheckAuthorization", "(sa{sv})sa{ss}us", "(bba{ss})",
                                                            onCheckAuthorization, SD_BUS_VTABLE_UNPRIVILEGED),
                                              SD_BUS_VTABLE_END};
        return table;
    }
    static const sd_bus_vtable* managerMethods() {
        static const sd_bus_vtable table[] = {SD_BUS_VTABLE_START(0),
                                              SD_BUS_METHOD("GetUnit", "s", "o", onGetUnit, SD_BUS_VTABLE_UNPRIVILEGED),
                                              SD_BUS_VTABLE_END};
        return table;
    }
    static const sd_bus_vtable* unitProperties() {
        static const sd_bus_vtable table[] = {
            SD_BUS_VTABLE_START(0), SD_BUS_PROPERTY("ActiveState", "s", onActiveState, 0, SD_BUS_VTABLE_PROPERTY_CONST),
            SD_BUS_VTABLE_END};
        return table;
    }

    fakes::BusProgram program_;
};

class LinuxFirewallTest : public testing::Test {
protected:
    ~LinuxFirewallTest() override { fakes::setBusAddress(""); }

    /// The answer, while the daemons, if any, do their work.
    FirewallReport ask(std::uint16_t port = 28471) {
        std::optional<FirewallReport> report;
        const auto take = [](LinuxFirewall* by, std::uint16_t number, Executor executor,
                             std::optional<FirewallReport>* into) -> Task<> {
            *into = co_await by->incoming("wlan0", number, executor);
        };
        spawn(context_.get_executor(), take(&firewall_, port, context_.get_executor(), &report),
              [](const std::exception_ptr& error) { EXPECT_FALSE(error); });
        const auto end = SteadyClock::now() + std::chrono::seconds(60);
        while (!report && SteadyClock::now() < end) {
            context_.restart();
            context_.run_one_for(std::chrono::milliseconds(1));
            if (daemons_ && areAwake_) {
                daemons_->process();
            }
        }
        EXPECT_TRUE(report.has_value());
        context_.restart();
        context_.run_for(std::chrono::seconds(5));
        EXPECT_TRUE(context_.stopped()) << "something is left running";
        return report.value_or(FirewallReport());
    }
    void startBus() {
        bus_ = std::make_unique<fakes::PrivateBus>();
        daemons_ = std::make_unique<Daemons>();
    }
    void startFirewalld() {
        startBus();
        daemons_->provideFirewalld();
    }
    static FirewallReport firewalld(Verdict verdict, std::string zone = "public") {
        return {.verdict = verdict, .name = "firewalld", .zone = std::move(zone)};
    }
    void write(const char* file, const std::string& text) { fakes::writeText(root_ / file, text); }

    const fakes::TemporaryFolder root_;
    std::unique_ptr<fakes::PrivateBus> bus_;
    std::unique_ptr<Daemons> daemons_;
    bool areAwake_ = true;
    asio::io_context context_;
    LinuxFirewall firewall_{fakes::busEnvironment, root_.path()};
};

TEST_F(LinuxFirewallTest, FindsNoneWithoutABusAndWithoutFiles) {
    EXPECT_EQ(ask(), FirewallReport());
    startBus();
    EXPECT_EQ(ask(), FirewallReport());
}

TEST_F(LinuxFirewallTest, FindsAPortThatFirewalldDoesNotOpen) {
    startFirewalld();
    EXPECT_EQ(ask(), firewalld(Verdict::closed));
    EXPECT_EQ(ask(22), firewalld(Verdict::open)) << "by a service";
    daemons_->ports = {{"28471", "udp"}};
    EXPECT_EQ(ask(), firewalld(Verdict::closed));
    daemons_->ports.emplace_back("1025-65535", "tcp");
    EXPECT_EQ(ask(), firewalld(Verdict::open));
}

TEST_F(LinuxFirewallTest, LooksAtTheZoneOfTheInterface) {
    startFirewalld();
    daemons_->zoneOfInterface["wlan0"] = "home";
    EXPECT_EQ(ask(), firewalld(Verdict::closed, "home"));
    daemons_->target = "ACCEPT";
    EXPECT_EQ(ask(), firewalld(Verdict::open, "home"));
}

TEST_F(LinuxFirewallTest, DoesNotJudgeRulesOfFirewalldsOwnLanguage) {
    startFirewalld();
    daemons_->rules = {"rule family=\"ipv4\" source address=\"192.168.7.0/24\" accept"};
    EXPECT_EQ(ask(), firewalld(Verdict::unknown));
    daemons_->rules.clear();
    daemons_->answersSettings = false;
    EXPECT_EQ(ask(), firewalld(Verdict::unknown));
}

/// firewalld has polkit ask the person at the screen for a password, if that is what its settings take.
TEST_F(LinuxFirewallTest, AsksFirewalldForItsSettingsOnlyIfNobodyIsAskedForAPassword) {
    startFirewalld();
    daemons_->providePolkit();
    EXPECT_EQ(ask(), firewalld(Verdict::closed));
    EXPECT_THAT(daemons_->asked,
                testing::ElementsAre("system-bus-name", "org.fedoraproject.FirewallD1.config.info", "0"));
    EXPECT_EQ(daemons_->settingsAsked, 2);
    daemons_->settingsAsked = 0;
    using Answer = std::optional<std::pair<bool, bool>>;
    for (const Answer& answer : {Answer({false, true}), Answer({false, false}), Answer()}) {
        daemons_->authorization = answer;
        EXPECT_EQ(ask(), firewalld(Verdict::unknown));
        EXPECT_EQ(daemons_->settingsAsked, 0);
    }
}

TEST_F(LinuxFirewallTest, KnowsThatItMayNotReadUfwsRules) {
    write("etc/ufw/ufw.conf", "ENABLED=yes\n");
    write("etc/default/ufw", "DEFAULT_INPUT_POLICY=\"DROP\"\n");
    EXPECT_EQ(ask(), (FirewallReport{.verdict = Verdict::unknown, .name = "ufw", .zone = ""}));
    write("etc/default/ufw", "DEFAULT_INPUT_POLICY=\"ACCEPT\"\n");
    EXPECT_EQ(ask(), (FirewallReport{.verdict = Verdict::open, .name = "ufw", .zone = ""}));
    write("etc/ufw/ufw.conf", "ENABLED=no\n");
    EXPECT_EQ(ask(), FirewallReport());
}

TEST_F(LinuxFirewallTest, ReadsTheRulesOfNftablesIfItMay) {
    startBus();
    daemons_->provideUnit();
    EXPECT_EQ(ask(), (FirewallReport{.verdict = Verdict::unknown, .name = "nftables", .zone = ""}));
    write("etc/nftables.conf", "chain input { type filter hook input priority filter; policy drop; }\n");
    EXPECT_EQ(ask(), (FirewallReport{.verdict = Verdict::unknown, .name = "nftables", .zone = ""}));
    write("etc/nftables.conf", "chain input { type filter hook input priority filter; }\n");
    EXPECT_EQ(ask(), (FirewallReport{.verdict = Verdict::open, .name = "nftables", .zone = ""}));
}

TEST_F(LinuxFirewallTest, GivesUpOnADaemonThatDoesNotAnswer) {
    startFirewalld();
    areAwake_ = false;
    const auto begin = SteadyClock::now();
    EXPECT_EQ(ask(), firewalld(Verdict::unknown, ""));
    EXPECT_LT(SteadyClock::now() - begin, std::chrono::seconds(30));
}

} // namespace
} // namespace orlinth::platform
