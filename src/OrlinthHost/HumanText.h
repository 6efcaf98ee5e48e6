#pragma once

#include "base/Time.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// Figures and names as people read them.
namespace orlinth::host {

/// Decimal units, as file managers show them: "0 bytes", "1 byte", "999 bytes", "1.5 kB", "12 MB", "5.4 GB".
[[nodiscard]] std::string humanSize(std::int64_t bytes);

/// "8.1 MB/s".
[[nodiscard]] std::string humanRate(double bytesPerSecond);

/// "0.4 s", "12 s", "3:07", "1:02:33".
[[nodiscard]] std::string humanDuration(Seconds duration);

/// "1 file", "3 files".
[[nodiscard]] std::string countOfFiles(std::size_t count);

/// Local date and time, "2026-03-09 17:05".
[[nodiscard]] std::string humanTime(EpochMilliseconds moment);

/// When a phone was last there: today's time, "17:05", or the day, "2026-03-09".
[[nodiscard]] std::string humanSince(EpochMilliseconds moment, EpochMilliseconds now);

/// The text, shortened with "…" until it takes at most `columns`.
[[nodiscard]] std::string fitted(std::string_view utf8, std::size_t columns);

/// The text, filled up with blanks to `columns`.
[[nodiscard]] std::string padded(std::string text, std::size_t columns);

/// The text in lines of at most `columns`, broken at single blanks. A longer word has a line of its own.
[[nodiscard]] std::vector<std::string> wrapped(std::string_view utf8, std::size_t columns);

} // namespace orlinth::host
