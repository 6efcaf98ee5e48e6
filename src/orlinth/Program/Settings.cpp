#include "orlinth/Program/Settings.h"

#include "OrlinthCore/Peers/PeerNames.h"
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

/// The one value of a setting that is a text for people.
std::string textOf(const Setting& setting) {
    std::string text = setting.isList ? "" : trimmed(setting.values.front().text);
    if (text.empty()) {
        throw SettingsError("'" + setting.fullName() + "' must be one text, not empty");
    }
    return text;
}

/// Whether it is one of those that are no flag's; takes it then.
bool takeBesideFlags(SettingsBesideFlags& beside, const Setting& setting) {
    if (setting.fullName() == "send.to") {
        beside.defaultPhone = textOf(setting);
        return true;
    }
    if (setting.fullName() == "id.name") {
        beside.computerName = textOf(setting);
        if (!isUsableName(beside.computerName)) {
            throw SettingsError("'id.name' must be at most " + std::to_string(maxPeerNameBytes) +
                                " bytes, without control characters");
        }
        return true;
    }
    if (setting.name == "to") {
        throw SettingsError("unknown setting '" + setting.fullName() +
                            "': the default phone of every command is 'to' in [send]");
    }
    return false;
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

SettingsBesideFlags applySettings(CLI::App& program, platform::FileSystem& files,
                                  const platform::UserDirectories& directories) {
    SettingsBesideFlags beside;
    const Path file = directories.config / "orlinth" / "config.toml";
    const std::string which = "settings file " + file.string();
    try {
        const std::optional<Bytes> content = contentOf(files, file);
        if (!content) {
            return beside;
        }
        for (const Setting& setting : readSettings(*content)) {
            try {
                if (!takeBesideFlags(beside, setting)) {
                    apply(program, setting, directories.home);
                }
            } catch (const SettingsError& error) {
                throw SettingsError(setting.place.prefix() + error.description());
            }
        }
    } catch (const SettingsError& error) {
        throw SettingsError(which + error.description());
    } catch (const platform::SystemError& error) {
        throw SettingsError(which + ": " + error.description());
    }
    return beside;
}

} // namespace orlinth::cli
