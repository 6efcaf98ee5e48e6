#include "platform/linux/LinuxFirewall.h"

#include "platform/Event.h"
#include "platform/linux/BusLoop.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
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
constexpr BusObject authority{"org.freedesktop.PolicyKit1", "/org/freedesktop/PolicyKit1/Authority",
                              "org.freedesktop.PolicyKit1.Authority"};
constexpr BusObject services{"org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                             "org.freedesktop.systemd1.Manager"};

/// What `ports` of a zone or a service lists: a port or a range, and a protocol.
using Ports = std::vector<std::pair<std::string, std::string>>;

/// A zone's settings, as far as they matter here; of a service only its ports.
struct Settings {
    std::string target;
    std::vector<std::string> services;
    Ports ports;
    bool hasRules = false; ///< rules in firewalld's own language, which may let anything in or keep it out
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

bool readPorts(sd_bus_message* message, Ports& ports) {
    const auto readPort = [&] {
        std::pair<std::string, std::string> port;
        const bool isRead = readInside(message, SD_BUS_TYPE_STRUCT, "ss",
                                       [&] { return readText(message, port.first) && readText(message, port.second); });
        if (isRead) {
            ports.push_back(std::move(port));
        }
        return isRead;
    };
    return readInside(message, SD_BUS_TYPE_ARRAY, "(ss)", [&] {
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
    if (key == "services") {
        return inVariant("as", [&] { return readTexts(message, settings.services); });
    }
    if (key == "ports") {
        return inVariant("a(ss)", [&] { return readPorts(message, settings.ports); });
    }
    if (key == "rules_str") {
        std::vector<std::string> rules;
        const bool isRead = inVariant("as", [&] { return readTexts(message, rules); });
        settings.hasRules = !rules.empty();
        return isRead;
    }
    return systemd().sd_bus_message_skip(message, "v") >= 0;
}

bool readSettings(sd_bus_message* message, Settings& settings) {
    bool isGood = true;
    const auto readEntry = [&] {
        if (systemd().sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv") <= 0) {
            return false; // the end
        }
        std::string key;
        isGood = readText(message, key) && readSetting(message, key, settings) &&
                 systemd().sd_bus_message_exit_container(message) >= 0;
        return isGood;
    };
    return readInside(message, SD_BUS_TYPE_ARRAY, "{sv}", [&] {
        while (readEntry()) {
        }
        return isGood;
    });
}

bool isIn(const Ports& ports, std::uint16_t port) {
    return std::ranges::any_of(
        ports, [port](const auto& entry) { return entry.second == "tcp" && includesPort(entry.first, port); });
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
        self.isGood_ = systemd().sd_bus_message_is_method_error(message, nullptr) == 0 && self.read_(message);
        self.isNobodyThere_ = systemd().sd_bus_message_is_method_error(message, SD_BUS_ERROR_SERVICE_UNKNOWN) > 0;
        self.hasEnded_.set();
        return 0;
    }

    Event hasEnded_;
    bool isGood_ = false;
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

/// Whether firewalld shows its settings without a password. It has polkit ask the person at the screen for one, so
/// polkit is asked first, and may ask nobody. Without polkit firewalld decides alone. `questions` outlives the task.
Task<bool> isShownSettings(Questions& questions) {
    const Questions::Write writeQuestion = [&questions](sd_bus_message* message) {
        const std::string name = questions.ownName();
        constexpr std::uint32_t noInteraction = 0;
        return !name.empty() && systemd().sd_bus_message_append(
                                    message, "(sa{sv})sa{ss}us", "system-bus-name", 1, "name", "s", name.c_str(),
                                    "org.fedoraproject.FirewallD1.config.info", 0, noInteraction, "") >= 0;
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

/// What firewalld says; nothing if it is not there, or does not say. `questions` outlives the task.
Task<std::optional<FirewallReport>> byFirewalld(Questions& questions, std::string interface, std::uint16_t port) {
    bool isThere = false;
    const Questions::Read readPresence = [&isThere](sd_bus_message* answer) { return readFlag(answer, isThere); };
    std::vector<std::string> serviceName{firewalld.service};
    static_cast<void>(co_await questions.ask(bus, "NameHasOwner", std::move(serviceName), readPresence));
    if (!isThere) {
        co_return std::nullopt;
    }
    FirewallReport report{.verdict = FirewallReport::Verdict::unknown, .name = "firewalld", .zone = {}};
    const Questions::Read readZone = [&report](sd_bus_message* answer) { return readText(answer, report.zone); };
    std::vector<std::string> interfaceName{std::move(interface)};
    static_cast<void>(co_await questions.ask(firewalldZones, "getZoneOfInterface", std::move(interfaceName), readZone));
    if (report.zone.empty()) {
        static_cast<void>(co_await questions.ask(firewalld, "getDefaultZone", {}, readZone));
    }
    const bool isShown = co_await isShownSettings(questions);
    if (!isShown) {
        co_return report;
    }
    Settings zone;
    const Questions::Read readZoneSettings = [&zone](sd_bus_message* answer) { return readSettings(answer, zone); };
    std::vector<std::string> zoneName{report.zone};
    const bool isKnown =
        co_await questions.ask(firewalldZones, "getZoneSettings2", std::move(zoneName), readZoneSettings);
    if (!isKnown) {
        co_return report;
    }
    bool isOpen = zone.target == "ACCEPT" || isIn(zone.ports, port);
    bool isComplete = !zone.hasRules;
    for (std::size_t i = 0; i < zone.services.size() && !isOpen; ++i) {
        Settings service;
        const Questions::Read readService = [&service](sd_bus_message* answer) {
            return readSettings(answer, service);
        };
        std::vector<std::string> serviceOfZone{zone.services[i]};
        const bool isRead =
            co_await questions.ask(firewalld, "getServiceSettings2", std::move(serviceOfZone), readService);
        isComplete = isComplete && isRead;
        isOpen = isIn(service.ports, port);
    }
    if (isOpen) {
        report.verdict = FirewallReport::Verdict::open;
    } else if (isComplete) {
        report.verdict = FirewallReport::Verdict::closed;
    }
    co_return report;
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
    const std::optional<FirewallReport> said = co_await byFirewalld(questions, std::move(interface), port);
    if (said) {
        co_return *said;
    }
    const bool isNftablesActive = co_await isUnitActive(questions, "nftables.service");
    co_return byFiles(isNftablesActive);
}

} // namespace orlinth::platform
