#include "platform/linux/LinuxFirewall.h"

#include "platform/Event.h"
#include "platform/linux/BusLoop.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

namespace orlinth::platform {
namespace {

/// How long the bus, and whoever is asked on it, may take for an answer.
constexpr std::chrono::milliseconds answerLimit{400};

/// An object of a service on the bus, and one of its interfaces.
struct BusObject {
    const char* service;
    const char* path;
    const char* interface;
};
constexpr BusObject bus{"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus"};
constexpr BusObject firewalld{"org.fedoraproject.FirewallD1", "/org/fedoraproject/FirewallD1",
                              "org.fedoraproject.FirewallD1"};
constexpr BusObject firewalldZones{"org.fedoraproject.FirewallD1", "/org/fedoraproject/FirewallD1",
                                   "org.fedoraproject.FirewallD1.zone"};
constexpr BusObject firewalldPolicies{"org.fedoraproject.FirewallD1", "/org/fedoraproject/FirewallD1",
                                      "org.fedoraproject.FirewallD1.policy"};
constexpr BusObject firewalldDirect{"org.fedoraproject.FirewallD1", "/org/fedoraproject/FirewallD1",
                                    "org.fedoraproject.FirewallD1.direct"};
constexpr BusObject authority{"org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority",
                              "org.freedesktop.PolicyKit1.Authority"};
constexpr BusObject services{"org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                             "org.freedesktop.systemd1.Manager"};

/// What `ports` of a zone, a policy or a service lists: a port or a range, and a protocol.
using Ports = std::vector<std::pair<std::string, std::string>>;

/// By name, what is bound to a zone ("interfaces", "sources") or a policy ("ingress_zones", "egress_zones").
using Bindings = std::map<std::string, std::map<std::string, std::vector<std::string>>>;

/// Settings of a zone, a policy or a service, as far as they say who is let in.
struct Settings {
    std::string target;
    std::vector<std::string> services;
    std::vector<std::string> includes; ///< of a service: others that belong to it
    std::vector<std::string> protocols;
    Ports ports;
    Ports sourcePorts;
    Ports forwardPorts;
    std::vector<std::string> rules;  ///< in firewalld's own language
    bool isForSomeAddresses = false; ///< of a service: only some addresses of this computer have it
};

/// Whether connections to the port are let in by what was read, from the least to the most.
enum class WayIn {
    none,  ///< not by this
    maybe, ///< from somewhere, or under a condition, or it was not to be read
    open   ///< from everywhere
};

std::string contentOf(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// ---- reading answers; false if they are not what was asked for

bool readText(sd_bus_message* message, std::string& text, char type = SD_BUS_TYPE_STRING) {
    const char* found = nullptr;
    if (systemd().sd_bus_message_read_basic(message, type, static_cast<void*>(&found)) <= 0) {
        return false;
    }
    text = found;
    return true;
}

bool readFlag(sd_bus_message* message, bool& flag) {
    int found = 0;
    if (systemd().sd_bus_message_read_basic(message, SD_BUS_TYPE_BOOLEAN, static_cast<void*>(&found)) <= 0) {
        return false;
    }
    flag = found != 0;
    return true;
}

/// What is in a container, which `read` reads.
template <typename Read>
bool readInside(sd_bus_message* message, char type, const char* contents, Read read) {
    return systemd().sd_bus_message_enter_container(message, type, contents) > 0 && read() &&
           systemd().sd_bus_message_exit_container(message) >= 0;
}

bool readTexts(sd_bus_message* message, std::vector<std::string>& texts) {
    return readInside(message, SD_BUS_TYPE_ARRAY, "s", [&] {
        for (std::string text; readText(message, text);) {
            texts.push_back(text);
        }
        return true;
    });
}

/// Of structures that begin with these two texts, of `fields` in all.
bool readPorts(sd_bus_message* message, const char* structure, int fields, Ports& ports) {
    const auto readPort = [&] {
        std::pair<std::string, std::string> port;
        const bool isRead = readInside(message, SD_BUS_TYPE_STRUCT, structure, [&] {
            std::string rest;
            bool isGood = readText(message, port.first) && readText(message, port.second);
            for (int i = 2; i < fields; ++i) {
                isGood = isGood && readText(message, rest);
            }
            return isGood;
        });
        if (isRead) {
            ports.push_back(std::move(port));
        }
        return isRead;
    };
    const std::string contents = "(" + std::string(structure) + ")";
    return readInside(message, SD_BUS_TYPE_ARRAY, contents.c_str(), [&] {
        while (readPort()) {
        }
        return true;
    });
}

bool readSetting(sd_bus_message* message, const std::string& key, Settings& settings) {
    const auto inVariant = [message](const char* contents, auto read) {
        return readInside(message, SD_BUS_TYPE_VARIANT, contents, read);
    };
    if (key == "target") {
        return inVariant("s", [&] { return readText(message, settings.target); });
    }
    const std::map<std::string, std::vector<std::string>*> texts{{"services", &settings.services},
                                                                 {"includes", &settings.includes},
                                                                 {"protocols", &settings.protocols},
                                                                 {"rules_str", &settings.rules},
                                                                 {"rich_rules", &settings.rules}};
    if (const auto found = texts.find(key); found != texts.end()) {
        return inVariant("as", [&] { return readTexts(message, *found->second); });
    }
    if (key == "ports" || key == "source_ports") {
        Ports& ports = key == "ports" ? settings.ports : settings.sourcePorts;
        return inVariant("a(ss)", [&] { return readPorts(message, "ss", 2, ports); });
    }
    if (key == "forward_ports") {
        return inVariant("a(ssss)", [&] { return readPorts(message, "ssss", 4, settings.forwardPorts); });
    }
    settings.isForSomeAddresses = settings.isForSomeAddresses || key == "destination";
    return systemd().sd_bus_message_skip(message, "v") >= 0;
}

/// The entries of a dictionary, each of which `read` reads.
template <typename Read>
bool readEntries(sd_bus_message* message, const char* entry, Read read) {
    const std::string contents = "{" + std::string(entry) + "}";
    bool isGood = true;
    const auto readEntry = [&] {
        if (systemd().sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, entry) <= 0) {
            return false; // the end
        }
        std::string key;
        isGood = readText(message, key) && read(key) && systemd().sd_bus_message_exit_container(message) >= 0;
        return isGood;
    };
    return readInside(message, SD_BUS_TYPE_ARRAY, contents.c_str(), [&] {
        while (readEntry()) {
        }
        return isGood;
    });
}

bool readSettings(sd_bus_message* message, Settings& settings) {
    return readEntries(message, "sv", [&](const std::string& key) { return readSetting(message, key, settings); });
}

bool readBindings(sd_bus_message* message, Bindings& bindings) {
    return readEntries(message, "sa{sas}", [&](const std::string& name) {
        auto& bound = bindings[name];
        return readEntries(message, "sas", [&](const std::string& kind) { return readTexts(message, bound[kind]); });
    });
}

/// Whether an array of these structures has any.
bool readWhetherAny(sd_bus_message* message, const char* structure, bool& isAny) {
    const std::string contents = "(" + std::string(structure) + ")";
    if (systemd().sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, contents.c_str()) <= 0) {
        return false;
    }
    isAny = systemd().sd_bus_message_enter_container(message, SD_BUS_TYPE_STRUCT, structure) > 0;
    return true;
}

// ---- judging them

bool isIn(const Ports& ports, std::uint16_t port) {
    return std::ranges::any_of(
        ports, [port](const auto& entry) { return entry.second == "tcp" && includesPort(entry.first, port); });
}

bool holds(const std::vector<std::string>& names, const std::string& name) {
    return std::ranges::find(names, name) != names.end();
}

/// Of firewalld's settings without the services that they name.
WayIn wayIn(const Settings& settings, std::uint16_t port) {
    const auto isTcp = [](const std::string& protocol) { return protocol == "tcp" || protocol == "6"; };
    const bool isOpen =
        settings.target == "ACCEPT" || isIn(settings.ports, port) || std::ranges::any_of(settings.protocols, isTcp);
    if (isOpen) {
        return settings.isForSomeAddresses ? WayIn::maybe : WayIn::open;
    }
    const bool isFromSomePorts =
        std::ranges::any_of(settings.sourcePorts, [](const auto& entry) { return entry.second == "tcp"; });
    const bool isByRule = std::ranges::any_of(settings.rules, mayAcceptConnections);
    return isFromSomePorts || isByRule || isIn(settings.forwardPorts, port) ? WayIn::maybe : WayIn::none;
}

/// Whether a zone or a policy may keep out, or lead elsewhere, what it lets in otherwise. Its target does not count.
bool mayKeepOut(const Settings& settings, std::uint16_t port) {
    return isIn(settings.forwardPorts, port) || std::ranges::any_of(settings.rules, mayRefuseConnections);
}

/// Whether a policy passes on to other rules what it does not let in itself.
bool isHarmlessTarget(const std::string& target) {
    return target.empty() || target == "CONTINUE" || target == "ACCEPT";
}

/// "wl+" means every interface whose name begins so.
bool mayBindInterface(const std::string& pattern, const std::string& interface) {
    return pattern.ends_with('+') && interface.starts_with(pattern.substr(0, pattern.size() - 1));
}

/// Whether what comes in by the interface may belong to another zone than the one that it is said to be in: by who
/// sends it, or by a pattern for names of interfaces.
bool mayBeInOtherZones(const Bindings& zones, const std::string& interface, const std::string& own) {
    return std::ranges::any_of(zones, [&](const auto& zone) {
        if (zone.first == own) {
            return false;
        }
        const auto& bound = zone.second;
        const auto sources = bound.find("sources");
        const auto interfaces = bound.find("interfaces");
        return (sources != bound.end() && !sources->second.empty()) ||
               (interfaces != bound.end() && std::ranges::any_of(interfaces->second, [&](const std::string& pattern) {
                    return mayBindInterface(pattern, interface);
                }));
    });
}

/// Whether a policy is about what comes from the zone to this computer itself.
bool isPolicyFor(const std::map<std::string, std::vector<std::string>>& bound, const std::string& zone) {
    const auto ingress = bound.find("ingress_zones");
    const auto egress = bound.find("egress_zones");
    return ingress != bound.end() && egress != bound.end() && holds(egress->second, "HOST") &&
           (holds(ingress->second, zone) || holds(ingress->second, "ANY"));
}

/// Questions to services on the system's bus, one at a time. Lives in the frame of who asks.
class Questions {
public:
    using Read = std::function<bool(sd_bus_message*)>;
    using Write = std::function<bool(sd_bus_message*)>;

    Questions(const Executor& executor, BusEnvironment environment)
        : hasEnded_(executor), loop_(executor, environment, answerLimit, [this] { hasEnded_.set(); }) {}
    Questions(const Questions&) = delete;
    Questions& operator=(const Questions&) = delete;
    ~Questions() { slot_.reset(); }

    /// Returns whether there was an answer, and `read` could read it.
    Task<bool> ask(BusObject object, const char* member, std::vector<std::string> arguments, Read read) {
        const auto append = [arguments = std::move(arguments)](sd_bus_message* message) {
            return std::ranges::all_of(arguments, [message](const std::string& argument) {
                return systemd().sd_bus_message_append(message, "s", argument.c_str()) >= 0;
            });
        };
        return askWith(object, member, append, std::move(read));
    }
    /// The same with other arguments than texts; `write` appends them, and returns whether it could.
    Task<bool> askWith(BusObject object, const char* member, Write write, Read read) {
        hasEnded_.reset();
        isGood_ = false;
        isUnknown_ = false;
        isNobodyThere_ = false;
        read_ = std::move(read);
        if (!begin(object, member, write)) {
            co_return false;
        }
        co_await hasEnded_.wait();
        slot_.reset();
        co_return isGood_;
    }
    /// Whether that was because the bus knows no such service, and cannot start one.
    [[nodiscard]] bool isNobodyThere() const noexcept { return isNobodyThere_; }

    /// The name of this connection on the bus; "" if the bus has given it none yet.
    [[nodiscard]] std::string ownName() const {
        const char* name = nullptr;
        const bool isReady = loop_.get() != nullptr && systemd().sd_bus_is_ready(loop_.get()) > 0; // or it would wait
        return isReady && systemd().sd_bus_get_unique_name(loop_.get(), &name) >= 0 ? name : "";
    }

    /// Of the last question: whoever was asked does not know it.
    [[nodiscard]] bool isUnknown() const noexcept { return isUnknown_; }

private:
    bool begin(const BusObject& object, const char* member, const Write& write) {
        if (!loop_.open()) {
            return false;
        }
        sd_bus_message* made = nullptr;
        if (systemd().sd_bus_message_new_method_call(loop_.get(), &made, object.service, object.path, object.interface,
                                                     member) < 0) {
            return false;
        }
        const BusMessageRef message(made);
        if (!write(made)) {
            return false;
        }
        sd_bus_slot* slot = nullptr;
        const auto limit = std::chrono::microseconds(answerLimit).count();
        if (systemd().sd_bus_call_async(loop_.get(), &slot, made, onAnswer, this, static_cast<std::uint64_t>(limit)) <
            0) {
            return false;
        }
        slot_.reset(slot);
        loop_.wake();
        return true;
    }

    static int onAnswer(sd_bus_message* message, void* data, sd_bus_error* /*error*/) {
        auto& self = *static_cast<Questions*>(data);
        const auto isError = [message](const char* name) {
            return systemd().sd_bus_message_is_method_error(message, name) > 0;
        };
        self.isUnknown_ = isError("org.freedesktop.DBus.Error.UnknownMethod") ||
                          isError("org.freedesktop.DBus.Error.UnknownInterface");
        self.isGood_ = !isError(nullptr) && self.read_(message);
        self.isNobodyThere_ = isError(SD_BUS_ERROR_SERVICE_UNKNOWN);
        self.hasEnded_.set();
        return 0;
    }

    Event hasEnded_;
    bool isGood_ = false;
    bool isUnknown_ = false;
    bool isNobodyThere_ = false;
    Read read_;
    BusLoop loop_;
    BusSlotRef slot_;
};

/// Of a service that is active for sure; false also if that cannot be found out. `questions` outlives the task.
Task<bool> isUnitActive(Questions& questions, std::string unit) {
    std::string path;
    const Questions::Read readPath = [&path](sd_bus_message* answer) {
        return readText(answer, path, SD_BUS_TYPE_OBJECT_PATH);
    };
    std::vector<std::string> name{std::move(unit)};
    const bool isKnown = co_await questions.ask(services, "GetUnit", std::move(name), readPath);
    if (!isKnown) {
        co_return false;
    }
    std::string state;
    const Questions::Read readState = [&state](sd_bus_message* answer) {
        return readInside(answer, SD_BUS_TYPE_VARIANT, "s", [&] { return readText(answer, state); });
    };
    const BusObject object{services.service, path.c_str(), "org.freedesktop.DBus.Properties"};
    std::vector<std::string> property{"org.freedesktop.systemd1.Unit", "ActiveState"};
    const bool isRead = co_await questions.ask(object, "Get", std::move(property), readState);
    co_return isRead&& state == "active";
}

/// What polkit calls questions about which zones and policies are in use, what is in them, and rules of iptables.
constexpr const char* infoAction = "org.fedoraproject.FirewallD1.info";
constexpr const char* settingsAction = "org.fedoraproject.FirewallD1.config.info";
constexpr const char* directRulesAction = "org.fedoraproject.FirewallD1.direct.info";

/// Whether firewalld answers questions of this kind without a password. It has polkit ask the person at the screen for
/// one, so polkit is asked first, and may ask nobody. Without polkit firewalld decides alone. `questions` outlives the
/// task, and `action` is a constant.
Task<bool> mayAskFirewalld(Questions& questions, const char* action) {
    const Questions::Write writeQuestion = [&questions, action](sd_bus_message* message) {
        const std::string name = questions.ownName();
        constexpr std::uint32_t noInteraction = 0;
        return !name.empty() &&
               systemd().sd_bus_message_append(message, "(sa{sv})sa{ss}us", "system-bus-name", 1, "name", "s",
                                               name.c_str(), action, 0, noInteraction, "") >= 0;
    };
    bool isAuthorized = false;
    const Questions::Read readAnswer = [&isAuthorized](sd_bus_message* answer) {
        return readInside(answer, SD_BUS_TYPE_STRUCT, "bba{ss}", [&] {
            return readFlag(answer, isAuthorized) && systemd().sd_bus_message_skip(answer, "ba{ss}") >= 0;
        });
    };
    const bool isAnswered = co_await questions.askWith(authority, "CheckAuthorization", writeQuestion, readAnswer);
    co_return isAnswered ? isAuthorized : questions.isNobodyThere();
}

/// firewalld's answers about one interface and one port. Lives in the frame of who asks.
class FirewalldCheck {
public:
    /// `questions` outlives this.
    FirewalldCheck(Questions& questions, std::string interface, std::uint16_t port)
        : questions_(questions), interface_(std::move(interface)), port_(port) {}

    /// Nothing if firewalld is not there.
    Task<std::optional<FirewallReport>> report() {
        bool isThere = false;
        const Questions::Read readPresence = [&isThere](sd_bus_message* answer) { return readFlag(answer, isThere); };
        std::vector<std::string> serviceName{firewalld.service};
        static_cast<void>(co_await questions_.ask(bus, "NameHasOwner", std::move(serviceName), readPresence));
        if (!isThere) {
            co_return std::nullopt;
        }
        FirewallReport report{
            .verdict = FirewallReport::Verdict::unknown, .name = "firewalld", .zone = {}, .isUnread = true};
        const bool mayAskForZone = co_await mayAskFirewalld(questions_, infoAction);
        if (!mayAskForZone) {
            co_return report;
        }
        const std::optional<std::string> defaultZone = co_await askText(firewalld, "getDefaultZone", {});
        std::vector<std::string> interface{interface_};
        std::optional<std::string> zone = co_await askText(firewalldZones, "getZoneOfInterface", std::move(interface));
        if (zone && zone->empty()) { // the interface is in none
            zone = defaultZone;
        }
        report.zone = zone.value_or("");
        report.isDefaultZone = !report.zone.empty() && zone == defaultZone;
        if (report.zone.empty()) {
            co_return report;
        }
        const bool mayAskForSettings = co_await mayAskFirewalld(questions_, settingsAction);
        if (!mayAskForSettings) {
            co_return report;
        }
        std::string zoneName = report.zone;
        const std::optional<Settings> settings =
            co_await askSettings(firewalldZones, "getZoneSettings2", std::move(zoneName));
        if (!settings) {
            co_return report;
        }
        report.isUnread = false;
        const WayIn way = co_await wayInByZone(*settings);
        report.verdict = co_await verdictOf(way, report.zone);
        co_return report;
    }

private:
    /// Nothing if there is no answer.
    Task<std::optional<std::string>> askText(BusObject object, const char* member, std::vector<std::string> arguments) {
        std::string text;
        const Questions::Read read = [&text](sd_bus_message* answer) { return readText(answer, text); };
        const bool isRead = co_await questions_.ask(object, member, std::move(arguments), read);
        co_return isRead ? std::optional(std::move(text)) : std::nullopt;
    }

    Task<std::optional<Settings>> askSettings(BusObject object, const char* member, std::string name) {
        Settings settings;
        const Questions::Read read = [&settings](sd_bus_message* answer) { return readSettings(answer, settings); };
        std::vector<std::string> names{std::move(name)};
        const bool isRead = co_await questions_.ask(object, member, std::move(names), read);
        co_return isRead ? std::optional(std::move(settings)) : std::nullopt;
    }

    /// What there is of a kind; nothing if that is not to be read, and empty if this firewalld has no such thing.
    Task<std::optional<Bindings>> askBindings(BusObject object, const char* member) {
        Bindings bindings;
        const Questions::Read read = [&bindings](sd_bus_message* answer) { return readBindings(answer, bindings); };
        const bool isRead = co_await questions_.ask(object, member, {}, read);
        co_return isRead || questions_.isUnknown() ? std::optional(std::move(bindings)) : std::nullopt;
    }

    /// What the zone does by itself.
    Task<WayIn> wayInByZone(Settings settings) {
        WayIn way = wayIn(settings, port_);
        if (way != WayIn::open) {
            const WayIn byServices = co_await wayInByServices(settings.services);
            way = std::max(way, byServices);
        }
        if (way == WayIn::open && mayKeepOut(settings, port_)) {
            way = WayIn::maybe;
        }
        co_return way;
    }

    /// By these services, and those that they include.
    Task<WayIn> wayInByServices(std::vector<std::string> names) {
        constexpr std::size_t maxServices = 64; // more than a zone has; what comes behind them is not read
        WayIn way = WayIn::none;
        std::set<std::string> known(names.begin(), names.end());
        for (std::size_t i = 0; i < names.size() && way != WayIn::open; ++i) {
            if (i == maxServices) {
                co_return WayIn::maybe;
            }
            std::string name = names[i];
            const std::optional<Settings> service =
                co_await askSettings(firewalld, "getServiceSettings2", std::move(name));
            way = std::max(way, service ? wayIn(*service, port_) : WayIn::maybe);
            for (const std::string& other : service ? service->includes : std::vector<std::string>()) {
                if (known.insert(other).second) {
                    names.push_back(other);
                }
            }
        }
        co_return way;
    }

    /// Of what the zone does by itself, unless something beside it may do otherwise.
    Task<FirewallReport::Verdict> verdictOf(WayIn way, std::string zone) {
        using Verdict = FirewallReport::Verdict;
        if (way == WayIn::maybe) {
            co_return Verdict::unknown;
        }
        const bool mayDiffer = co_await mayDifferBesideZone(way, std::move(zone));
        if (mayDiffer) {
            co_return Verdict::unknown;
        }
        co_return way == WayIn::open ? Verdict::open : Verdict::closed;
    }

    /// Whether something beside the zone may let in what the zone keeps out (`way` is `none`), or the other way round.
    Task<bool> mayDifferBesideZone(WayIn way, std::string zone) {
        const std::optional<Bindings> zones = co_await askBindings(firewalldZones, "getActiveZones");
        if (!zones || mayBeInOtherZones(*zones, interface_, zone)) {
            co_return true;
        }
        const std::optional<Bindings> policies = co_await askBindings(firewalldPolicies, "getActivePolicies");
        if (!policies) {
            co_return true;
        }
        for (const auto& [name, bound] : *policies) {
            if (!isPolicyFor(bound, zone)) {
                continue;
            }
            const bool mayDiffer = co_await mayDifferByPolicy(way, name);
            if (mayDiffer) {
                co_return true; // or not: by its priority it may come behind the zone
            }
        }
        co_return co_await mayHaveDirectRules();
    }

    Task<bool> mayDifferByPolicy(WayIn way, std::string name) {
        const std::optional<Settings> settings =
            co_await askSettings(firewalldPolicies, "getPolicySettings", std::move(name));
        if (!settings) {
            co_return true;
        }
        if (way == WayIn::open) {
            co_return !isHarmlessTarget(settings->target) || mayKeepOut(*settings, port_);
        }
        if (wayIn(*settings, port_) != WayIn::none) {
            co_return true;
        }
        const WayIn byServices = co_await wayInByServices(settings->services);
        co_return byServices != WayIn::none;
    }

    /// Rules of iptables that somebody has added through firewalld, which are not judged.
    Task<bool> mayHaveDirectRules() {
        const bool mayAsk = co_await mayAskFirewalld(questions_, directRulesAction);
        if (!mayAsk) {
            co_return true;
        }
        const bool hasRules = co_await mayHaveDirect("getAllRules", "sssias");
        if (hasRules) {
            co_return true;
        }
        co_return co_await mayHaveDirect("getAllPassthroughs", "sas");
    }

    Task<bool> mayHaveDirect(const char* member, const char* structure) {
        bool isAny = false;
        const Questions::Read read = [&isAny, structure](sd_bus_message* answer) {
            return readWhetherAny(answer, structure, isAny);
        };
        const bool isRead = co_await questions_.ask(firewalldDirect, member, {}, read);
        co_return isAny || (!isRead && !questions_.isUnknown());
    }

    Questions& questions_;
    const std::string interface_;
    const std::uint16_t port_;
};

/// Whether a rule in firewalld's own language does any of these, and not only with ICMP.
bool hasAnyAction(std::string_view rule, std::initializer_list<std::string_view> actions) {
    std::string bare; // without what is in quotation marks
    bool isQuoted = false;
    for (const char character : rule) {
        isQuoted = isQuoted != (character == '"');
        if (!isQuoted) {
            bare += character;
        }
    }
    std::istringstream stream(bare);
    const std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
    const auto has = [&words](std::string_view word) { return std::ranges::find(words, word) != words.end(); };
    const bool isAboutIcmp = has("icmp-type") || has("icmp-block");
    return !isAboutIcmp && std::ranges::any_of(actions, has);
}

} // namespace

bool includesPort(std::string_view setting, std::uint16_t port) noexcept {
    const auto number = [](std::string_view text) {
        std::uint16_t value = 0;
        const auto [at, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        return error == std::errc() && at == text.data() + text.size() ? value : std::uint16_t{0};
    };
    const std::size_t dash = setting.find('-');
    const std::uint16_t first = number(setting.substr(0, dash));
    const std::uint16_t last = dash == std::string_view::npos ? first : number(setting.substr(dash + 1));
    return first != 0 && first <= port && port <= last;
}

bool mayAcceptConnections(std::string_view rule) {
    return hasAnyAction(rule, {"accept", "forward-port"});
}

bool mayRefuseConnections(std::string_view rule) {
    return hasAnyAction(rule, {"drop", "reject", "forward-port"});
}

std::string shellSetting(std::string_view text, std::string_view name) {
    std::istringstream lines{std::string(text)};
    std::string value;
    for (std::string line; std::getline(lines, line);) {
        line.erase(0, line.find_first_not_of(" \t"));
        const std::size_t equals = line.find('=');
        if (equals == std::string::npos || line.compare(0, equals, name) != 0) {
            continue;
        }
        value = line.substr(equals + 1);
        value.erase(value.find_last_not_of(" \t\r") + 1);
        if (value.size() >= 2 && value.front() == value.back() && (value.front() == '"' || value.front() == '\'')) {
            value = value.substr(1, value.size() - 2);
        }
    }
    return value;
}

bool keepsAnythingOut(std::string_view rules) {
    std::istringstream lines{std::string(rules)};
    for (std::string line; std::getline(lines, line);) {
        line.erase(std::min(line.find('#'), line.size()));
        for (const char* const word : {"drop", "reject", "queue", "include"}) { // an include may hold any of the others
            if (line.find(word) != std::string::npos) {
                return true;
            }
        }
    }
    return false;
}

FirewallReport LinuxFirewall::byFiles(bool isNftablesActive) const {
    using Verdict = FirewallReport::Verdict;
    if (shellSetting(contentOf(root_ / "etc/ufw/ufw.conf"), "ENABLED") == "yes") {
        const bool letsAllIn = shellSetting(contentOf(root_ / "etc/default/ufw"), "DEFAULT_INPUT_POLICY") == "ACCEPT";
        return {.verdict = letsAllIn ? Verdict::open : Verdict::unknown, .name = "ufw", .zone = {}};
    }
    if (isNftablesActive) {
        const std::string rules = contentOf(root_ / "etc/nftables.conf");
        const bool isHarmless = !rules.empty() && !keepsAnythingOut(rules);
        return {.verdict = isHarmless ? Verdict::open : Verdict::unknown, .name = "nftables", .zone = {}};
    }
    return {};
}

Task<FirewallReport> LinuxFirewall::incoming(std::string interface, std::uint16_t port, Executor executor) {
    Questions questions(executor, environment_);
    FirewalldCheck firewalldCheck(questions, std::move(interface), port);
    const std::optional<FirewallReport> said = co_await firewalldCheck.report();
    if (said) {
        co_return *said;
    }
    const bool isNftablesActive = co_await isUnitActive(questions, "nftables.service");
    co_return byFiles(isNftablesActive);
}

} // namespace orlinth::platform
