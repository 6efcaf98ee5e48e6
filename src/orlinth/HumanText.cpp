#include "orlinth/HumanText.h"

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

/// The length of the character that begins with this byte.
std::size_t lengthOfCharacter(unsigned char first) {
    if (first < 0xC0) {
        return 1;
    }
    return first < 0xE0 ? 2 : (first < 0xF0 ? 3 : 4);
}

/// Wide scripts begin at U+1100 (Hangul Jamo), in UTF-8 at E1 84 80.
std::size_t columnsOfCharacter(std::string_view character) {
    const bool threeBytesOrMore = character.size() >= 3;
    if (!threeBytesOrMore) {
        return 1;
    }
    const auto first = static_cast<unsigned char>(character[0]);
    const auto second = static_cast<unsigned char>(character[1]);
    const bool generalPunctuation = first == 0xE2 && second <= 0x81;
    return (first == 0xE0 || (first == 0xE1 && second < 0x84) || generalPunctuation) ? 1 : 2;
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

std::string humanDuration(double seconds) {
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

std::string humanTime(std::int64_t epochMilliseconds) {
    const auto seconds = static_cast<std::time_t>(epochMilliseconds / 1000);
    std::tm parts{};
    std::array<char, 64> text{};
    if (localtime_r(&seconds, &parts) == nullptr) {
        return "?";
    }
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M", &parts);
    return {text.data(), length};
}

std::size_t columnsOf(std::string_view utf8) {
    std::size_t columns = 0;
    for (std::size_t at = 0; at < utf8.size();) {
        const std::size_t length = lengthOfCharacter(static_cast<unsigned char>(utf8[at]));
        columns += columnsOfCharacter(utf8.substr(at, length));
        at += length;
    }
    return columns;
}

std::string fitted(std::string_view utf8, std::size_t columns) {
    if (columnsOf(utf8) <= columns) {
        return std::string(utf8);
    }
    if (columns == 0) {
        return {};
    }
    std::size_t end = 0;
    for (std::size_t used = 0; end < utf8.size();) {
        const std::size_t length = lengthOfCharacter(static_cast<unsigned char>(utf8[end]));
        used += columnsOfCharacter(utf8.substr(end, length));
        if (used > columns - 1) {
            break;
        }
        end += length;
    }
    return std::string(utf8.substr(0, end)) + "…";
}

std::string padded(std::string text, std::size_t columns) {
    const std::size_t taken = columnsOf(text);
    if (taken < columns) {
        text.append(columns - taken, ' ');
    }
    return text;
}

} // namespace orlinth::host
