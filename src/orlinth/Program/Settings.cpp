#include "orlinth/Program/Settings.h"

#include "platform/SystemError.h"
#include "platform/WholeFile.h"

#include <sstream>

namespace orlinth::cli {

namespace {

/// CLI11 marks where a table begins and ends by items of these names.
bool isTableMark(const CLI::ConfigItem& item) {
    return item.name == "++" || item.name == "--";
}

CLI::Option& optionFor(CLI::App& program, const CLI::ConfigItem& item) {
    CLI::App* table = &program;
    for (const std::string& name : item.parents) {
        const auto tables = table->get_subcommands([&name](const CLI::App* one) { return one->get_name() == name; });
        if (tables.empty()) {
            throw SettingsError("there is no command '" + name + "'");
        }
        table = tables.front();
    }
    CLI::Option* option = item.name.empty() ? nullptr : table->get_option_no_throw("--" + item.name);
    if (option == nullptr || !option->get_configurable()) {
        throw SettingsError("unknown setting '" + item.fullname() + "'");
    }
    return *option;
}

void apply(CLI::App& program, const CLI::ConfigItem& item) {
    CLI::Option& option = optionFor(program, item);
    if (item.inputs.size() != 1) {
        throw SettingsError("'" + item.fullname() + "' takes exactly one value");
    }
    try {
        option.default_val(item.inputs.front());
    } catch (const CLI::Error& error) {
        throw SettingsError(std::string("'") + item.fullname() + "': " + error.what());
    }
    option.required(false); // it has a value now
}

} // namespace

void applySettings(CLI::App& program, platform::FileSystem& files, const platform::Path& file) {
    try {
        const auto status = files.status(file);
        if (!status) {
            return;
        }
        std::istringstream text(toText(platform::readWholeFile(files, file)));
        for (const CLI::ConfigItem& item : CLI::ConfigTOML().from_config(text)) {
            if (!isTableMark(item)) {
                apply(program, item);
            }
        }
    } catch (const std::exception& error) {
        throw SettingsError("settings file " + file.string() + ": " + describe(error));
    }
}

} // namespace orlinth::cli
