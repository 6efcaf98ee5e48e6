#pragma once

#include "platform/FileSystem.h"
#include "platform/Log.h"

namespace orlinth::platform {

/// What is logged is made fit for people here (forDisplay()), whoever has chosen it: a message has maxLineColumns at
/// most.

/// The fields of one journal entry, each "NAME=value" (sd_journal_sendv(3)).
[[nodiscard]] std::vector<std::string> journalFields(LogLevel level, std::string_view subsystem,
                                                     std::string_view category, std::string_view message);

/// The same as one line for syslog: "subsystem category: message".
[[nodiscard]] std::string syslogLine(std::string_view subsystem, std::string_view category, std::string_view message);

/// The systemd journal; where there is none, syslog.
class LinuxLog final : public Log {
public:
    void write(LogLevel level, std::string_view subsystem, std::string_view category,
               std::string_view message) noexcept override;
};

} // namespace orlinth::platform
