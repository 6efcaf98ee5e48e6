#include "platform/linux/LinuxLog.h"

#include "base/Text.h"
#include "platform/linux/SystemdLibrary.h"

#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

namespace orlinth::platform {
namespace {

constexpr const char* journalSocket = "/run/systemd/journal/socket";

int priority(LogLevel level) noexcept {
    switch (level) {
    case LogLevel::debug:
        return LOG_DEBUG;
    case LogLevel::info:
        return LOG_INFO;
    case LogLevel::notice:
        return LOG_NOTICE;
    case LogLevel::warning:
        return LOG_WARNING;
    case LogLevel::error:
        return LOG_ERR;
    }
    return LOG_ERR;
}

bool sendToJournal(const std::vector<std::string>& fields) {
    // sd_journal_sendv() reports success where there is no journal
    if (::access(journalSocket, W_OK) != 0 || !hasSystemd()) {
        return false;
    }
    std::vector<iovec> pieces;
    pieces.reserve(fields.size());
    for (const std::string& field : fields) {
        pieces.push_back({const_cast<char*>(field.data()), field.size()});
    }
    return systemd().sd_journal_sendv(pieces.data(), static_cast<int>(pieces.size())) == 0;
}

} // namespace

std::vector<std::string> journalFields(LogLevel level, std::string_view subsystem, std::string_view category,
                                       std::string_view message) {
    return {
        "MESSAGE=" + forDisplay(message, maxLineColumns),
        "PRIORITY=" + std::to_string(priority(level)),
        "SYSLOG_IDENTIFIER=orlinth",
        "ORLINTH_SUBSYSTEM=" + forDisplay(subsystem),
        "ORLINTH_CATEGORY=" + forDisplay(category),
    };
}

std::string syslogLine(std::string_view subsystem, std::string_view category, std::string_view message) {
    return forDisplay(subsystem) + " " + forDisplay(category) + ": " + forDisplay(message, maxLineColumns);
}

void LinuxLog::write(LogLevel level, std::string_view subsystem, std::string_view category,
                     std::string_view message) noexcept {
    try {
        if (!sendToJournal(journalFields(level, subsystem, category, message))) {
            const std::string line = "orlinth: " + syslogLine(subsystem, category, message);
            ::syslog(LOG_USER | priority(level), "%s", line.c_str());
        }
    } catch (...) {
        // Only memory can run out here. A log line is not worth the operation it tells of.
    }
}

} // namespace orlinth::platform
