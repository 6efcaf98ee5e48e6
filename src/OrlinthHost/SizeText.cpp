#include "OrlinthHost/SizeText.h"

#include "base/Text.h"

#include <charconv>
#include <cmath>
#include <string>

namespace orlinth::host {
namespace {

/// Bytes in a unit, in lower case; 0 for none that there is.
double bytesIn(std::string_view unit) {
    constexpr std::string_view prefixes = "kmgt";
    if (unit.empty() || unit == "b") {
        return 1;
    }
    const std::size_t power = prefixes.find(unit.front());
    const std::string_view rest = unit.substr(1);
    if (power == std::string_view::npos || !(rest.empty() || rest == "b" || rest == "ib")) {
        return 0;
    }
    return std::pow(rest == "b" ? 1000.0 : 1024.0, static_cast<double>(power + 1));
}

} // namespace

std::optional<std::int64_t> parseSize(std::string_view text) {
    const std::size_t digits = text.find_first_not_of("0123456789.");
    const std::string_view figure = text.substr(0, digits);
    const std::string unit = lowerCased(trimmed(text.substr(figure.size())));
    double number = 0;
    const auto [end, error] = std::from_chars(figure.data(), figure.data() + figure.size(), number);
    const bool isNumber =
        error == std::errc() && end == figure.data() + figure.size() && figure.front() != '.' && figure.back() != '.';
    const double factor = bytesIn(unit);
    constexpr double tooMany = 9223372036854775808.0; // 2^63
    if (!isNumber || factor == 0 || number * factor >= tooMany) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(number * factor);
}

} // namespace orlinth::host
