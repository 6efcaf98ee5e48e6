#include "orlinth/Program/Settings.h"

#include "OrlinthHost/SizeText.h"
#include "base/Text.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace orlinth::cli {

namespace {

using platform::Path;

CLI::Option& optionFor(CLI::App& program, const Setting& setting) {
    CLI::App* table = &program;
    for (const std::string& name : setting.tables) {
        const auto tables = table->get_subcommands([&name](const CLI::App* one) { return one->get_name() == name; });
        if (tables.empty()) {
            throw SettingsError("there is no command '" + name + "'");
        }
        table = tables.front();
    }
    CLI::Option* option = setting.name.empty() ? nullptr : table->get_option_no_throw("--" + setting.name);
    if (option == nullptr || !option->get_configurable()) {
        throw SettingsError("unknown setting '" + setting.fullName() + "'");
    }
    return *option;
}

/// Flags whose values are paths are told by what `--help` calls these values.
bool takesPath(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    return type == "DIR" || type == "FILE" || type == "PNG";
}

std::string wholePath(const Setting& setting, const std::string& text, const Path& home) {
    if (text == "~" || text.starts_with("~/")) {
        return text == "~" ? home.string() : (home / Path(text.substr(2)).relative_path()).string();
    }
    if (!text.starts_with('/') && text != "-") { // which is standard input, where that may be
        throw SettingsError("'" + setting.fullName() + "' must be a path that begins with / or ~/");
    }
    return text;
}

std::string valueFor(const CLI::Option& option, const Setting& setting, const Setting::Value& value, const Path& home) {
    return takesPath(option) ? wholePath(setting, value.text, home) : value.text;
}

/// CLI11 takes several values as one text, "[a,b]".
std::string listFor(const CLI::Option& option, const Setting& setting, const Path& home) {
    std::string list;
    for (const Setting::Value& value : setting.values) {
        const std::string text = valueFor(option, setting, value, home);
        if (text.empty() || text.find_first_of(",[]\"'` ") != std::string::npos) {
            throw SettingsError("'" + setting.fullName() + "': '" + text + "' cannot be an element of a list");
        }
        list += (list.empty() ? "" : ",") + text;
    }
    return "[" + list + "]";
}

void apply(CLI::App& program, const Setting& setting, const Path& home) {
    CLI::Option& option = optionFor(program, setting);
    const bool takesSeveral = option.get_items_expected_max() > 1;
    if (setting.values.size() != 1 && (!takesSeveral || setting.values.empty())) {
        throw SettingsError("'" + setting.fullName() + "' takes " + (takesSeveral ? "at least" : "exactly") +
                            " one value");
    }
    const std::string value = setting.values.size() > 1 ? listFor(option, setting, home)
                                                        : valueFor(option, setting, setting.values.front(), home);
    const bool hadExtra = option.get_allow_extra_args(); // without it, it does not take a list apart
    option.allow_extra_args(hadExtra || setting.values.size() > 1);
    try {
        option.default_val(value);
    } catch (const CLI::Error& error) {
        throw SettingsError("'" + setting.fullName() + "': " + error.what());
    }
    option.allow_extra_args(hadExtra);
    option.required(false); // it has a value now
}

/// The value of a flag of `serve`, as it was given or else as the settings file has it.
host::SettingValue valueOf(const CLI::Option& option, const host::SettingRule& rule) {
    switch (rule.kind) {
    case host::SettingKind::truth:
        return option.as<bool>() != rule.isReversed;
    case host::SettingKind::size:
        return host::parseSize(option.as<std::string>()).value_or(0); // which the option has checked
    case host::SettingKind::text:
    case host::SettingKind::folder:
    case host::SettingKind::choice:
        break;
    }
    return option.as<std::string>();
}

host::SettingValue valueFrom(const Setting& setting) {
    if (setting.isList) {
        return false; // which is none of the texts that are asked for
    }
    return setting.values.front().text;
}

host::SettingValue checkedValue(const host::SettingRule& rule, const Setting& setting, const Path& home) {
    try {
        return host::checkedSetting(rule, valueFrom(setting), home);
    } catch (const host::SettingError& error) {
        throw SettingsError("'" + setting.fullName() + "' " + error.description());
    }
}

std::string whereIs(const SettingsPlace& place) {
    return "config.toml, line " + std::to_string(place.line);
}

constexpr const char* phonesTable = "phones";

/// A value of [phones."Pixel 8"].
void takeOfPhone(host::SettingSources& sources, const Setting& setting, const Path& home) {
    const bool isInTable = setting.tables.size() == 2;
    const host::SettingRule* const rule = isInTable ? host::findSettingRule(setting.name) : nullptr;
    if (rule == nullptr || !rule->isForPhones) {
        throw SettingsError("unknown setting '" + setting.fullName() +
                            "': a phone has 'dir' and 'accept', in a table such as [phones.\"Pixel 8\"]");
    }
    const std::string& selector = setting.tables.back();
    if (trimmed(selector).empty()) {
        throw SettingsError("'" + setting.fullName() + "': the phone needs a name");
    }
    auto phone = std::ranges::find(sources.phonesInConfig, selector, &host::PhoneInConfig::selector);
    if (phone == sources.phonesInConfig.end()) {
        sources.phonesInConfig.push_back({.selector = selector, .where = whereIs(setting.place), .settings = {}});
        phone = std::prev(sources.phonesInConfig.end());
    }
    phone->settings[rule->id] = {.value = checkedValue(*rule, setting, home), .where = whereIs(setting.place)};
}

void take(CLI::App& program, host::SettingSources& sources, const Setting& setting, const Path& home) {
    if (!setting.tables.empty() && setting.tables.front() == phonesTable) {
        takeOfPhone(sources, setting, home);
        return;
    }
    const host::SettingRule* const rule =
        setting.tables.size() == 1 ? host::findSettingRule(setting.tables.front(), setting.name) : nullptr;
    if (rule != nullptr && !rule->hasFlag()) {
        sources.config[rule->id] = {.value = checkedValue(*rule, setting, home), .where = whereIs(setting.place)};
        return;
    }
    if (setting.name == "to") {
        throw SettingsError("unknown setting '" + setting.fullName() +
                            "': the default phone of every command is 'to' in [send]");
    }
    apply(program, setting, home);
    if (rule != nullptr) {
        sources.config[rule->id] = {.value = valueOf(optionFor(program, setting), *rule),
                                    .where = whereIs(setting.place)};
    }
}

/// Nothing if there is no file. One byte more than may be is enough to know that it is too large.
std::optional<Bytes> contentOf(platform::FileSystem& files, const Path& file) {
    const auto status = files.status(file);
    if (!status) {
        return std::nullopt;
    }
    if (status->kind == platform::FileKind::other) {
        throw SettingsError(": it is no regular file"); // a pipe might never end
    }
    Bytes content(maxSettingsBytes + 1);
    content.resize(files.open(file, platform::OpenMode::read)->read(content));
    return content;
}

} // namespace

host::SettingSources applySettings(CLI::App& program, platform::FileSystem& files,
                                   const platform::UserDirectories& directories) {
    host::SettingSources sources;
    const Path file = directories.config / "orlinth" / "config.toml";
    const std::string which = "settings file " + file.string();
    try {
        const std::optional<Bytes> content = contentOf(files, file);
        if (!content) {
            return sources;
        }
        for (const Setting& setting : readSettings(*content)) {
            try {
                take(program, sources, setting, directories.home);
            } catch (const SettingsError& error) {
                throw SettingsError(setting.place.prefix() + error.description());
            }
        }
    } catch (const SettingsError& error) {
        throw SettingsError(which + error.description());
    } catch (const platform::SystemError& error) {
        throw SettingsError(which + ": " + error.description());
    }
    return sources;
}

host::GivenSettings settingsFromFlags(const CLI::App& serve) {
    host::GivenSettings given;
    for (const host::SettingRule& rule : host::settingRules()) {
        const CLI::Option* const option =
            rule.hasFlag() ? serve.get_option_no_throw("--" + std::string(rule.key)) : nullptr;
        if (option != nullptr && option->count() > 0) {
            given[rule.id] = {.value = valueOf(*option, rule), .where = "`--" + std::string(rule.key) + "`"};
        }
    }
    return given;
}

} // namespace orlinth::cli
