#include "OrlinthShare/ComputerName.h"

#include "OrlinthShare/SheetLook.h"
#include "base/Text.h"
#include "platform/WholeFile.h"

#include <QSysInfo>

namespace orlinth::share {
namespace {

/// Without its quotes and the backslashes that keep a character from being one.
std::string unquoted(std::string_view value) {
    std::string text;
    char quote = '\0';
    for (std::size_t i = 0; i < value.size(); ++i) {
        const char character = value[i];
        if (character == '\\' && quote != '\'' && i + 1 < value.size()) {
            text.push_back(value[++i]);
        } else if (quote == '\0' && (character == '"' || character == '\'')) {
            quote = character;
        } else if (character == quote) {
            quote = '\0';
        } else {
            text.push_back(character);
        }
    }
    return text;
}

} // namespace

std::string prettyHostname(std::string_view machineInfo) {
    constexpr std::string_view key = "PRETTY_HOSTNAME=";
    while (!machineInfo.empty()) {
        const std::size_t end = std::min(machineInfo.find('\n'), machineInfo.size());
        const std::string line = trimmed(machineInfo.substr(0, end));
        if (line.starts_with(key)) {
            return unquoted(std::string_view(line).substr(key.size()));
        }
        machineInfo.remove_prefix(std::min(end + 1, machineInfo.size()));
    }
    return {};
}

QString computerName(platform::FileSystem& files) {
    try {
        const platform::Path machineInfo = "/etc/machine-info";
        if (files.exists(machineInfo)) {
            if (const QString name = oneLine(prettyHostname(toText(platform::readWholeFile(files, machineInfo))));
                !name.isEmpty()) {
                return name;
            }
        }
    } catch (const std::exception&) {
        return QSysInfo::machineHostName(); // the name below is as good
    }
    return QSysInfo::machineHostName();
}

} // namespace orlinth::share
