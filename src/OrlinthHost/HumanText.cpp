#include "OrlinthHost/HumanText.h"

#include "base/Text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <ctime>

namespace orlinth::host {

namespace {

/// With so many digits behind the point.
std::string decimal(double value, int digits) {
    std::array<char, 64> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed, digits);
    return {text.data(), end.ptr};
}

std::string twoDigits(std::int64_t number) {
    return (number < 10 ? "0" : "") + std::to_string(number);
}

} // namespace

std::string humanSize(std::int64_t bytes) {
    if (bytes < 1000) {
        return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    }
    static constexpr std::array units{"kB", "MB", "GB", "TB", "PB", "EB"};
    double value = static_cast<double>(bytes) / 1000;
    std::size_t unit = 0;
    while (value >= 999.5 && unit + 1 < units.size()) {
        value /= 1000;
        ++unit;
    }
    return decimal(value, value < 9.95 ? 1 : 0) + " " + units.at(unit);
}

std::string humanRate(double bytesPerSecond) {
    const double bounded = std::isfinite(bytesPerSecond) ? std::min(std::max(bytesPerSecond, 0.0), 1e18) : 0;
    return humanSize(std::llround(bounded)) + "/s";
}

std::string humanDuration(Seconds duration) {
    const double seconds = duration.count();
    if (seconds < 9.95) {
        return decimal(seconds, 1) + " s";
    }
    const std::int64_t whole = std::llround(std::min(seconds, 1e9));
    if (whole < 60) {
        return std::to_string(whole) + " s";
    }
    if (whole < 3600) {
        return std::to_string(whole / 60) + ":" + twoDigits(whole % 60);
    }
    return std::to_string(whole / 3600) + ":" + twoDigits(whole / 60 % 60) + ":" + twoDigits(whole % 60);
}

std::string countOfFiles(std::size_t count) {
    return std::to_string(count) + (count == 1 ? " file" : " files");
}

std::string humanTime(EpochMilliseconds moment) {
    const std::time_t seconds = std::chrono::duration_cast<std::chrono::seconds>(moment.time_since_epoch()).count();
    std::tm parts{};
    std::array<char, 64> text{};
    if (localtime_r(&seconds, &parts) == nullptr) {
        return "?";
    }
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M", &parts);
    return {text.data(), length};
}

std::string humanSince(EpochMilliseconds moment, EpochMilliseconds now) {
    const std::string then = humanTime(moment);
    const std::size_t space = then.find(' ');
    const bool isToday = space != std::string::npos && humanTime(now).starts_with(then.substr(0, space + 1));
    return isToday ? then.substr(space + 1) : then.substr(0, space);
}

std::string fitted(std::string_view utf8, std::size_t columns) {
    if (columnsOf(utf8) <= columns) {
        return std::string(utf8);
    }
    if (columns == 0) {
        return {};
    }
    return std::string(firstColumns(utf8, columns - 1)) + "…";
}

std::string padded(std::string text, std::size_t columns) {
    const std::size_t taken = columnsOf(text);
    if (taken < columns) {
        text.append(columns - taken, ' ');
    }
    return text;
}

std::vector<std::string> wrapped(std::string_view utf8, std::size_t columns) {
    std::vector<std::string> lines;
    while (!utf8.empty()) {
        const std::size_t end = utf8.find(' ');
        const std::string word(utf8.substr(0, end));
        utf8.remove_prefix(end == std::string_view::npos ? utf8.size() : end + 1);
        const bool fits = !lines.empty() && columnsOf(lines.back()) + 1 + columnsOf(word) <= columns;
        if (fits) {
            lines.back() += " " + word;
        } else {
            lines.push_back(word);
        }
    }
    return lines;
}

} // namespace orlinth::host
