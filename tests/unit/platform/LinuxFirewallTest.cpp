#include "platform/linux/LinuxFirewall.h"

#include "fakes/BusProgram.h"
#include "fakes/TemporaryFolder.h"
#include "platform/Spawn.h"

#include <asio/io_context.hpp>
#include <gmock/gmock.h>

#include <chrono>
#include <map>
#include <memory>
#include <set>
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

TEST(FirewalldRules, MayAcceptConnectionsUnlessTheyAreAboutSomethingElse) {
    EXPECT_TRUE(mayAcceptConnections(R"(rule family="ipv4" source address="192.168.7.0/24" accept)"));
    EXPECT_TRUE(mayAcceptConnections(R"(rule service name="ssh" log prefix="icmp-type " accept limit value="1/m")"));
    EXPECT_TRUE(mayAcceptConnections(R"(rule forward-port port="28471" protocol="tcp" to-port="80")"));
    EXPECT_FALSE(mayAcceptConnections(R"(rule family="ipv6" icmp-type name="redirect" accept)"));
    EXPECT_FALSE(mayAcceptConnections(R"(rule source address="192.168.7.30" log prefix="no accept here" drop)"));
    EXPECT_FALSE(mayAcceptConnections(R"(rule source address="192.168.7.30" reject)"));
    EXPECT_FALSE(mayAcceptConnections(""));
}

TEST(FirewalldRules, MayRefuseConnectionsUnlessTheyAreAboutSomethingElse) {
    EXPECT_TRUE(mayRefuseConnections(R"(rule family="ipv4" source address="192.168.7.0/24" drop)"));
    EXPECT_TRUE(
        mayRefuseConnections(R"(rule source address="192.168.7.30" reject type="tcp-reset" limit value="1/m")"));
    EXPECT_TRUE(mayRefuseConnections(R"(rule forward-port port="28471" protocol="tcp" to-port="80")"));
    EXPECT_FALSE(mayRefuseConnections(R"(rule icmp-type name="echo-request" drop)"));
    EXPECT_FALSE(mayRefuseConnections(R"(rule source address="192.168.7.30" log prefix="no drop here" accept)"));
    EXPECT_FALSE(mayRefuseConnections(""));
}

// ---- what is asked on the bus

using Texts = std::vector<std::string>;
using Bound = std::map<std::string, std::map<std::string, Texts>>;

/// Settings of a zone, a policy or a service of firewalld, which leaves out what is empty.
struct Settings {
    std::string target = "";
    Texts services = {};
    Texts includes = {};
    Texts protocols = {};
    Ports ports = {};
    Ports sourcePorts = {};
    Ports forwardPorts = {};
    Texts rules = {};
    std::string destination = "";
};

/// firewalld, polkit and the service manager, as far as they are asked, on a bus of the test's own.
class Daemons {
public:
    std::map<std::string, std::string> zoneOfInterface;
    std::string defaultZone = "public";
    Settings zone{.target = "default", .services = {"ssh"}};
    std::map<std::string, Settings> services{{"ssh", {.ports = {{"22", "tcp"}}}}};
    Bound zones{{"public", {{"interfaces", {"wlan0"}}}}};
    /// As it is shipped: it lets in what IPv6 needs.
    std::map<std::string, Settings> policies{
        {"allow-host-ipv6",
         {.target = "CONTINUE", .rules = {R"(rule family="ipv6" icmp-type name="redirect" accept)"}}}};
    Bound boundPolicies{{"allow-host-ipv6", {{"ingress_zones", {"ANY"}}, {"egress_zones", {"HOST"}}}}};
    bool hasDirectRule = false;
    bool hasPassthrough = false;
    bool answersSettings = true;
    bool answersActive = true;
    bool hasPolicies = true; ///< those before 0.9 have none
    bool answersZoneOfInterface = true;
    /// What polkit says by action, and whether a password helps; none: silence. What is not here is allowed.
    std::map<std::string, std::optional<std::pair<bool, bool>>> authorizations;
    Texts asked;                      ///< of polkit and firewalld, in this order: the actions, and the methods
    std::set<Texts> subjectsOfPolkit; ///< each with the flags of the question

    void own(const char* name) { fakes::requireBus(::sd_bus_request_name(program_.get(), name, 0)); }
    void provideFirewalld() {
        add("/org/fedoraproject/FirewallD1", "org.fedoraproject.FirewallD1", firewalldMethods());
        add("/org/fedoraproject/FirewallD1", "org.fedoraproject.FirewallD1.zone", zoneMethods());
        add("/org/fedoraproject/FirewallD1", "org.fedoraproject.FirewallD1.direct", directMethods());
        if (hasPolicies) {
            add("/org/fedoraproject/FirewallD1", "org.fedoraproject.FirewallD1.policy", policyMethods());
        }
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
    /// The same for who is asked by a message, which is written down.
    static Daemons& askedBy(sd_bus_message* message, void* data) {
        of(data).asked.emplace_back(::sd_bus_message_get_member(message));
        return of(data);
    }
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
    static int deny(sd_bus_error* error) {
        return ::sd_bus_error_set(error, "org.fedoraproject.FirewallD1.Exception", "NotAuthorized");
    }
    /// `fill` fills a container.
    template <typename Fill>
    static void within(sd_bus_message* reply, char type, const char* contents, Fill fill) {
        fakes::requireBus(::sd_bus_message_open_container(reply, type, contents));
        fill();
        fakes::requireBus(::sd_bus_message_close_container(reply));
    }
    static void appendList(sd_bus_message* reply, const Texts& texts) {
        within(reply, 'a', "s", [&] {
            for (const std::string& text : texts) {
                fakes::requireBus(::sd_bus_message_append(reply, "s", text.c_str()));
            }
        });
    }
    template <typename Fill>
    static void appendSetting(sd_bus_message* reply, const char* key, const char* contents, Fill fill) {
        within(reply, 'e', "sv", [&] {
            fakes::requireBus(::sd_bus_message_append(reply, "s", key));
            within(reply, 'v', contents, fill);
        });
    }
    static void appendTexts(sd_bus_message* reply, const char* key, const Texts& texts) {
        if (!texts.empty()) {
            appendSetting(reply, key, "as", [&] { appendList(reply, texts); });
        }
    }
    static void appendPorts(sd_bus_message* reply, const char* key, const Ports& ports) {
        if (ports.empty()) {
            return;
        }
        appendSetting(reply, key, "a(ss)", [&] {
            within(reply, 'a', "(ss)", [&] {
                for (const auto& [port, protocol] : ports) {
                    fakes::requireBus(::sd_bus_message_append(reply, "(ss)", port.c_str(), protocol.c_str()));
                }
            });
        });
    }
    static void appendForwardPorts(sd_bus_message* reply, const Ports& ports) {
        if (ports.empty()) {
            return;
        }
        appendSetting(reply, "forward_ports", "a(ssss)", [&] {
            within(reply, 'a', "(ssss)", [&] {
                for (const auto& [port, protocol] : ports) {
                    fakes::requireBus(
                        ::sd_bus_message_append(reply, "(ssss)", port.c_str(), protocol.c_str(), "80", ""));
                }
            });
        });
    }
    static int replySettings(sd_bus_message* message, const Settings& settings, const char* rules = "rules_str") {
        sd_bus_message* reply = nullptr;
        fakes::requireBus(::sd_bus_message_new_method_return(message, &reply));
        within(reply, 'a', "{sv}", [&] {
            fakes::requireBus(::sd_bus_message_append(reply, "{sv}", "forward", "b", 1)); // which nobody asks for
            if (!settings.target.empty()) {
                fakes::requireBus(::sd_bus_message_append(reply, "{sv}", "target", "s", settings.target.c_str()));
            }
            appendTexts(reply, "services", settings.services);
            appendTexts(reply, "includes", settings.includes);
            appendTexts(reply, "protocols", settings.protocols);
            appendPorts(reply, "ports", settings.ports);
            appendPorts(reply, "source_ports", settings.sourcePorts);
            appendForwardPorts(reply, settings.forwardPorts);
            appendTexts(reply, rules, settings.rules);
            if (!settings.destination.empty()) {
                fakes::requireBus(::sd_bus_message_append(reply, "{sv}", "destination", "a{ss}", 1, "ipv4",
                                                          settings.destination.c_str()));
            }
        });
        return send(reply);
    }
    static int replyBound(sd_bus_message* message, const Bound& all) {
        sd_bus_message* reply = nullptr;
        fakes::requireBus(::sd_bus_message_new_method_return(message, &reply));
        within(reply, 'a', "{sa{sas}}", [&] {
            for (const auto& entry : all) {
                within(reply, 'e', "sa{sas}", [&] {
                    fakes::requireBus(::sd_bus_message_append(reply, "s", entry.first.c_str()));
                    within(reply, 'a', "{sas}", [&] {
                        for (const auto& bound : entry.second) {
                            within(reply, 'e', "sas", [&] {
                                fakes::requireBus(::sd_bus_message_append(reply, "s", bound.first.c_str()));
                                appendList(reply, bound.second);
                            });
                        }
                    });
                });
            }
        });
        return send(reply);
    }
    static int send(sd_bus_message* reply) {
        const int sent = ::sd_bus_send(nullptr, reply, nullptr);
        ::sd_bus_message_unref(reply);
        return sent;
    }

    static int onDefaultZone(sd_bus_message* message, void* data, sd_bus_error* /*error*/) {
        return replyText(message, askedBy(message, data).defaultZone);
    }
    static int onZoneOfInterface(sd_bus_message* message, void* data, sd_bus_error* error) {
        Daemons& self = askedBy(message, data);
        return self.answersZoneOfInterface ? replyText(message, self.zoneOfInterface[argument(message)]) : deny(error);
    }
    static int onZoneSettings(sd_bus_message* message, void* data, sd_bus_error* error) {
        const Daemons& self = askedBy(message, data);
        return self.answersSettings ? replySettings(message, self.zone) : deny(error);
    }
    static int onActiveZones(sd_bus_message* message, void* data, sd_bus_error* error) {
        const Daemons& self = askedBy(message, data);
        return self.answersActive ? replyBound(message, self.zones) : deny(error);
    }
    static int onServiceSettings(sd_bus_message* message, void* data, sd_bus_error* error) {
        const Daemons& self = askedBy(message, data);
        const auto found = self.services.find(argument(message));
        return found != self.services.end() ? replySettings(message, found->second) : deny(error);
    }
    static int onActivePolicies(sd_bus_message* message, void* data, sd_bus_error* /*error*/) {
        return replyBound(message, askedBy(message, data).boundPolicies);
    }
    static int onPolicySettings(sd_bus_message* message, void* data, sd_bus_error* error) {
        const Daemons& self = askedBy(message, data);
        const auto found = self.policies.find(argument(message));
        return found != self.policies.end() ? replySettings(message, found->second, "rich_rules") : deny(error);
    }
    static int onDirectRules(sd_bus_message* message, void* data, sd_bus_error* /*error*/) {
        return askedBy(message, data).hasDirectRule
                   ? ::sd_bus_reply_method_return(message, "a(sssias)", 1, "ipv4", "filter", "INPUT", 0, 2, "-j",
                                                  "ACCEPT")
                   : ::sd_bus_reply_method_return(message, "a(sssias)", 0);
    }
    static int onPassthroughs(sd_bus_message* message, void* data, sd_bus_error* /*error*/) {
        return askedBy(message, data).hasPassthrough
                   ? ::sd_bus_reply_method_return(message, "a(sas)", 1, "ipv4", 2, "-j", "ACCEPT")
                   : ::sd_bus_reply_method_return(message, "a(sas)", 0);
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
        self.asked.emplace_back(action);
        self.subjectsOfPolkit.insert({kind, std::to_string(flags)});
        if (std::string("name") != key || std::string(::sd_bus_message_get_sender(message)) != name) {
            return ::sd_bus_error_set(error, "org.freedesktop.PolicyKit1.Error.NotAuthorized", "of others");
        }
        const auto found = self.authorizations.find(action);
        const auto answer = found != self.authorizations.end() ? found->second : std::pair(true, false);
        return answer ? ::sd_bus_reply_method_return(message, "(bba{ss})", static_cast<int>(answer->first),
                                                     static_cast<int>(answer->second), 1, "polkit.retains", "1")
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
            SD_BUS_METHOD("getActiveZones", "", "a{sa{sas}}", onActiveZones, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_VTABLE_END};
        return table;
    }
    static const sd_bus_vtable* policyMethods() {
        static const sd_bus_vtable table[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("getActivePolicies", "", "a{sa{sas}}", onActivePolicies, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("getPolicySettings", "s", "a{sv}", onPolicySettings, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_VTABLE_END};
        return table;
    }
    static const sd_bus_vtable* directMethods() {
        static const sd_bus_vtable table[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("getAllRules", "", "a(sssias)", onDirectRules, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("getAllPassthroughs", "", "a(sas)", onPassthroughs, SD_BUS_VTABLE_UNPRIVILEGED),
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
        const bool isDefault = zone == "public";
        return {.verdict = verdict, .name = "firewalld", .zone = std::move(zone), .isDefaultZone = isDefault};
    }
    /// One of whose rules nothing is known.
    static FirewallReport firewalldUnread(std::string zone = "public") {
        FirewallReport report = firewalld(Verdict::unknown, std::move(zone));
        report.isUnread = true;
        return report;
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
    daemons_->zone.ports = {{"28471", "udp"}};
    EXPECT_EQ(ask(), firewalld(Verdict::closed));
    daemons_->zone.ports.emplace_back("1025-65535", "tcp");
    EXPECT_EQ(ask(), firewalld(Verdict::open));
}

TEST_F(LinuxFirewallTest, LooksAtTheZoneOfTheInterface) {
    startFirewalld();
    daemons_->zoneOfInterface["wlan0"] = "home";
    EXPECT_EQ(ask(), firewalld(Verdict::closed, "home")) << "which is not the default one";
    daemons_->zone.target = "ACCEPT";
    EXPECT_EQ(ask(), firewalld(Verdict::open, "home"));
}

TEST_F(LinuxFirewallTest, TakesTheDefaultZoneOnlyForAnInterfaceThatIsInNone) {
    startFirewalld();
    daemons_->zone.ports = {{"28471", "tcp"}};
    daemons_->zoneOfInterface["wlan0"] = "";
    EXPECT_EQ(ask(), firewalld(Verdict::open));
    daemons_->answersZoneOfInterface = false;
    EXPECT_EQ(ask(), firewalldUnread("")) << "it may be in any";
}

TEST_F(LinuxFirewallTest, FollowsTheServicesThatAServiceIncludes) {
    startFirewalld();
    daemons_->zone.services = {"set"};
    daemons_->services["set"] = {.includes = {"ssh", "files"}};
    daemons_->services["files"] = {.includes = {"set"}};
    EXPECT_EQ(ask(), firewalld(Verdict::closed));
    daemons_->services["files"].ports = {{"28471", "tcp"}};
    EXPECT_EQ(ask(), firewalld(Verdict::open));
    daemons_->services["files"].destination = "192.168.8.1";
    EXPECT_EQ(ask(), firewalld(Verdict::unknown)) << "only at another address of this computer";
    daemons_->services.erase("files");
    EXPECT_EQ(ask(), firewalld(Verdict::unknown)) << "nobody knows what that lets in";
}

TEST_F(LinuxFirewallTest, KnowsTheProtocolsOfAZone) {
    startFirewalld();
    daemons_->zone.protocols = {"igmp"};
    EXPECT_EQ(ask(), firewalld(Verdict::closed));
    daemons_->zone.protocols = {"igmp", "tcp"};
    EXPECT_EQ(ask(), firewalld(Verdict::open));
    daemons_->zone.protocols = {"6"};
    EXPECT_EQ(ask(), firewalld(Verdict::open));
}

TEST_F(LinuxFirewallTest, DoesNotJudgeRulesOfFirewalldsOwnLanguage) {
    startFirewalld();
    daemons_->zone.rules = {"rule family=\"ipv4\" source address=\"192.168.7.0/24\" accept"};
    EXPECT_EQ(ask(), firewalld(Verdict::unknown));
    daemons_->zone.rules = {"rule family=\"ipv4\" source address=\"192.168.7.0/24\" drop"};
    EXPECT_EQ(ask(), firewalld(Verdict::closed)) << "these let nobody in";
    daemons_->zone.rules.clear();
    daemons_->answersSettings = false;
    EXPECT_EQ(ask(), firewalldUnread());
}

TEST_F(LinuxFirewallTest, CallsNoPortOpenThatARuleOfTheZoneMayClose) {
    startFirewalld();
    daemons_->zone.ports = {{"28471", "tcp"}};
    EXPECT_EQ(ask(), firewalld(Verdict::open));
    for (const char* const action : {"drop", "reject", "reject type=\"tcp-reset\""}) {
        daemons_->zone.rules = {std::string("rule family=\"ipv4\" source address=\"192.168.7.0/24\" ") + action};
        EXPECT_EQ(ask(), firewalld(Verdict::unknown)) << action;
        EXPECT_EQ(ask(22), firewalld(Verdict::unknown)) << action << ", also what a service opens";
    }
    daemons_->zone.rules = {R"(rule icmp-type name="echo-request" drop)",
                            R"(rule port port="1" protocol="tcp" accept)"};
    EXPECT_EQ(ask(), firewalld(Verdict::open));
    daemons_->zone.rules = {R"(rule forward-port port="28471" protocol="tcp" to-port="80")"};
    EXPECT_EQ(ask(), firewalld(Verdict::unknown)) << "it goes elsewhere";
    daemons_->zone.rules.clear();
    daemons_->zone.forwardPorts = {{"28471", "tcp"}};
    EXPECT_EQ(ask(), firewalld(Verdict::unknown)) << "it goes elsewhere";
    daemons_->zone.forwardPorts = {{"80", "tcp"}};
    EXPECT_EQ(ask(), firewalld(Verdict::open));
}

TEST_F(LinuxFirewallTest, DoesNotJudgePortsThatAreForwardedOrOfTheSender) {
    startFirewalld();
    daemons_->zone.forwardPorts = {{"80", "tcp"}, {"28471", "udp"}};
    daemons_->zone.sourcePorts = {{"68", "udp"}};
    EXPECT_EQ(ask(), firewalld(Verdict::closed));
    daemons_->zone.forwardPorts.emplace_back("28000-29000", "tcp");
    EXPECT_EQ(ask(), firewalld(Verdict::unknown));
    daemons_->zone.forwardPorts.clear();
    daemons_->zone.sourcePorts.emplace_back("1024-65535", "tcp");
    EXPECT_EQ(ask(), firewalld(Verdict::unknown));
}

TEST_F(LinuxFirewallTest, DoesNotJudgeWhatMayBelongToAnotherZone) {
    startFirewalld();
    daemons_->zones["docker"]["interfaces"] = {"docker0", "br+"};
    EXPECT_EQ(ask(), firewalld(Verdict::closed));
    daemons_->zones["trusted"]["sources"] = {"192.168.7.0/24"};
    EXPECT_EQ(ask(), firewalld(Verdict::unknown)) << "by its sender";
    daemons_->zones.erase("trusted");
    daemons_->zones["home"]["interfaces"] = {"wl+"};
    EXPECT_EQ(ask(), firewalld(Verdict::unknown)) << "by the beginning of the interface's name";
    daemons_->zones.erase("home");
    daemons_->answersActive = false;
    EXPECT_EQ(ask(), firewalld(Verdict::unknown));
}

TEST_F(LinuxFirewallTest, CallsNoPortOpenIfThePhonesMayBeInAnotherZone) {
    startFirewalld();
    daemons_->zone.ports = {{"28471", "tcp"}};
    daemons_->zones["drop"]["sources"] = {"192.168.7.0/24"};
    EXPECT_EQ(ask(), firewalld(Verdict::unknown)) << "by their addresses";
    daemons_->zones = {{"home", {{"interfaces", {"wl+"}}}}};
    EXPECT_EQ(ask(), firewalld(Verdict::unknown)) << "by the beginning of the interface's name";
    daemons_->zones = {{"public", {{"interfaces", {"wl+"}}, {"sources", {"192.168.7.0/24"}}}}};
    EXPECT_EQ(ask(), firewalld(Verdict::open)) << "it is the same one";
    EXPECT_EQ(ask(7000), firewalld(Verdict::closed)) << "it is the same one";
    daemons_->answersActive = false;
    EXPECT_EQ(ask(), firewalld(Verdict::unknown));
}

TEST_F(LinuxFirewallTest, CallsNoPortOpenThatAPolicyMayClose) {
    startFirewalld();
    daemons_->zone.ports = {{"28471", "tcp"}};
    const auto bind = [this](const char* ingress, const char* egress) {
        daemons_->boundPolicies["own"] = {{"ingress_zones", {ingress}}, {"egress_zones", {egress}}};
    };
    bind("ANY", "HOST");
    EXPECT_EQ(ask(), firewalld(Verdict::unknown)) << "its settings cannot be read";
    for (const char* const target : {"DROP", "REJECT"}) {
        daemons_->policies["own"] = {.target = target};
        EXPECT_EQ(ask(), firewalld(Verdict::unknown)) << target;
    }
    bind("home", "HOST");
    EXPECT_EQ(ask(), firewalld(Verdict::open)) << "of another zone";
    bind("public", "HOST");
    EXPECT_EQ(ask(), firewalld(Verdict::unknown));
    for (const char* const target : {"CONTINUE", "ACCEPT"}) {
        daemons_->policies["own"] = {.target = target, .services = {"ssh"}};
        EXPECT_EQ(ask(), firewalld(Verdict::open)) << target;
        daemons_->policies["own"].rules = {R"(rule source address="192.168.7.0/24" reject)"};
        EXPECT_EQ(ask(), firewalld(Verdict::unknown)) << target;
    }
}

TEST_F(LinuxFirewallTest, DoesNotJudgePoliciesThatMayLetAnythingIn) {
    startFirewalld();
    const auto bind = [this](const char* ingress, const char* egress) {
        daemons_->boundPolicies["own"] = {{"ingress_zones", {ingress}}, {"egress_zones", {egress}}};
    };
    bind("public", "HOST");
    EXPECT_EQ(ask(), firewalld(Verdict::unknown)) << "its settings cannot be read";
    daemons_->policies["own"] = {.target = "CONTINUE", .services = {"ssh"}};
    EXPECT_EQ(ask(), firewalld(Verdict::closed));
    daemons_->policies["own"].ports = {{"28471", "tcp"}};
    EXPECT_EQ(ask(), firewalld(Verdict::unknown)) << "something else may come before it";
    bind("home", "HOST");
    EXPECT_EQ(ask(), firewalld(Verdict::closed)) << "of another zone";
    bind("ANY", "public");
    EXPECT_EQ(ask(), firewalld(Verdict::closed)) << "of what this computer passes on";
    bind("ANY", "HOST");
    daemons_->policies["own"] = {.target = "ACCEPT"};
    EXPECT_EQ(ask(), firewalld(Verdict::unknown));
}

TEST_F(LinuxFirewallTest, DoesNotJudgeRulesOfIptables) {
    startFirewalld();
    daemons_->hasDirectRule = true;
    EXPECT_EQ(ask(), firewalld(Verdict::unknown));
    daemons_->hasDirectRule = false;
    daemons_->hasPassthrough = true;
    EXPECT_EQ(ask(), firewalld(Verdict::unknown));
    EXPECT_EQ(ask(22), firewalld(Verdict::unknown)) << "they may also drop";
    daemons_->hasPassthrough = false;
    daemons_->hasDirectRule = true;
    EXPECT_EQ(ask(22), firewalld(Verdict::unknown));
}

TEST_F(LinuxFirewallTest, KnowsThatAnOlderFirewalldHasNoPolicies) {
    startBus();
    daemons_->hasPolicies = false;
    daemons_->provideFirewalld();
    EXPECT_EQ(ask(), firewalld(Verdict::closed));
}

/// firewalld has polkit ask the person at the screen for a password, if that is what its settings take.
TEST_F(LinuxFirewallTest, AsksPolkitBeforeEachKindOfQuestion) {
    startFirewalld();
    daemons_->providePolkit();
    EXPECT_EQ(ask(), firewalld(Verdict::closed));
    EXPECT_THAT(daemons_->asked,
                testing::ElementsAre("org.fedoraproject.FirewallD1.info", "getDefaultZone", "getZoneOfInterface",
                                     "org.fedoraproject.FirewallD1.config.info", "getZoneSettings2",
                                     "getServiceSettings2", "getActiveZones", "getActivePolicies", "getPolicySettings",
                                     "org.fedoraproject.FirewallD1.direct.info", "getAllRules", "getAllPassthroughs"));
    EXPECT_THAT(daemons_->subjectsOfPolkit, testing::ElementsAre(Texts{"system-bus-name", "0"}));
}

TEST_F(LinuxFirewallTest, AsksNothingThatTakesAPassword) {
    startFirewalld();
    daemons_->providePolkit();
    using Answer = std::optional<std::pair<bool, bool>>;
    for (const Answer& answer : {Answer({false, true}), Answer({false, false}), Answer()}) {
        daemons_->authorizations = {{"org.fedoraproject.FirewallD1.info", answer}};
        daemons_->asked.clear();
        EXPECT_EQ(ask(), firewalldUnread(""));
        EXPECT_THAT(daemons_->asked, testing::ElementsAre("org.fedoraproject.FirewallD1.info"));

        daemons_->authorizations = {{"org.fedoraproject.FirewallD1.config.info", answer}};
        daemons_->asked.clear();
        EXPECT_EQ(ask(), firewalldUnread());
        EXPECT_THAT(daemons_->asked,
                    testing::ElementsAre("org.fedoraproject.FirewallD1.info", "getDefaultZone", "getZoneOfInterface",
                                         "org.fedoraproject.FirewallD1.config.info"));

        daemons_->authorizations = {{"org.fedoraproject.FirewallD1.direct.info", answer}};
        daemons_->asked.clear();
        EXPECT_EQ(ask(), firewalld(Verdict::unknown)) << "there may be rules of iptables";
        EXPECT_EQ(ask(22), firewalld(Verdict::unknown)) << "which may also keep out what the zone lets in";
        EXPECT_THAT(daemons_->asked, testing::Contains("org.fedoraproject.FirewallD1.direct.info"));
        EXPECT_THAT(daemons_->asked, testing::Not(testing::Contains("getAllRules")));
        EXPECT_THAT(daemons_->asked, testing::Not(testing::Contains("getAllPassthroughs")));
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
    EXPECT_EQ(ask(), firewalldUnread(""));
    EXPECT_LT(SteadyClock::now() - begin, std::chrono::seconds(30));
}

} // namespace
} // namespace orlinth::platform
