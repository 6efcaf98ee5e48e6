#include "orlinth/Program/SettingsText.h"

#include "base/Text.h"
#include "orlinth/Program/TomlScan.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <string_view>
#include <utility>

namespace {

/// The parser takes some things for certain that a file can break. It would end the process then, or, with NDEBUG, do
/// whatever the compiler has made of it.
struct BrokenAssumption {};

} // namespace

#undef NDEBUG
#define TOML_ASSERT(condition) ((condition) ? static_cast<void>(0) : throw BrokenAssumption())
#define TOML_HEADER_ONLY 1
#define TOML_EXCEPTIONS 1
#define TOML_ENABLE_FORMATTERS 0
#define TOML_MAX_NESTED_VALUES 8
#include <toml++/toml.h>

namespace orlinth::cli {

namespace {

/// Commands and their subcommands: nothing useful lies deeper.
constexpr std::size_t maxTables = 4;

/// The parser counts how deep values lie within each other, but not how many tables a dotted name opens, and what it
/// has built is taken down recursively. Names do not go over the end of a line, so this bounds them: together with
/// TOML_MAX_NESTED_VALUES to some thousand tables. A list of 60 addresses has as many dots.
constexpr std::ptrdiff_t maxDotsInLine = 240;

std::string describePlace(const toml::source_position& at, const std::string& what) {
    return SettingsPlace{.line = std::max(at.line, 1U), .column = std::max(at.column, 1U)}.prefix() + what;
}

/// The parser takes some of them for impossible, and goes on as if they could not come (U+025E, for one).
void refuseForeignCharacters(std::string_view text) {
    if (const std::optional<SettingsPlace> place = findForeignCharacter(text)) {
        throw SettingsError(place->prefix() + "this character is allowed only in quotes or in a comment");
    }
}

void refuseLongNames(std::string_view text) {
    std::uint32_t line = 1;
    for (std::size_t begin = 0; begin <= text.size(); ++line) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        const std::string_view content = text.substr(begin, end - begin);
        if (std::ranges::count(content, '.') > maxDotsInLine) {
            throw SettingsError(SettingsPlace{.line = line}.prefix() + "too many dots in one line");
        }
        begin = end + 1;
    }
}

/// @throws toml::parse_error, BrokenAssumption
toml::table parse(std::string_view text) {
    return toml::parse(text);
}

/// Whether the parser stumbles over this, whatever else is wrong with it.
bool breaksAssumption(std::string_view text) {
    try {
        static_cast<void>(parse(text));
    } catch (const BrokenAssumption&) {
        return true;
    } catch (const toml::parse_error&) {
        return false;
    }
    return false;
}

/// The line with which the text begins to break an assumption. The parser goes from the front to the back, so every
/// longer beginning breaks it too.
std::uint32_t lineOfBreak(std::string_view text) {
    std::vector<std::size_t> ends;
    for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n', end + 1)) {
        ends.push_back(end + 1);
    }
    const auto first =
        std::ranges::partition_point(ends, [text](std::size_t end) { return !breaksAssumption(text.substr(0, end)); });
    return static_cast<std::uint32_t>(first - ends.begin()) + 1;
}

std::string textOf(double number) {
    std::array<char, 32> digits{}; // the shortest form of a double has at most 24
    const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number);
    return {digits.data(), error == std::errc() ? end : digits.data()};
}

/// Turns the parser's tables into settings.
class Collector {
public:
    void takeTable(const toml::table& table) {
        if (tables_.size() > maxTables) {
            throw SettingsError(describePlace(table.source().begin, "tables lie too deep within each other"));
        }
        for (const auto& [key, node] : table) {
            const std::string name(key.str());
            if (const toml::table* const inner = node.as_table()) {
                tables_.push_back(name);
                takeTable(*inner);
                tables_.pop_back();
            } else {
                takeValue(name, key.source().begin, node);
            }
        }
    }

    [[nodiscard]] std::vector<Setting> inOrder() && {
        std::ranges::sort(settings_, {},
                          [](const Setting& setting) { return std::pair(setting.place.line, setting.place.column); });
        return std::move(settings_);
    }

private:
    void takeValue(const std::string& name, const toml::source_position& at, const toml::node& node) {
        Setting setting;
        setting.tables = tables_;
        setting.name = name;
        setting.place = {.line = at.line, .column = at.column};
        if (const toml::array* const list = node.as_array()) {
            setting.isList = true;
            for (const toml::node& element : *list) {
                setting.values.push_back(valueOf(setting, element));
            }
        } else {
            setting.values.push_back(valueOf(setting, node));
        }
        settings_.push_back(std::move(setting));
    }

    static Setting::Value valueOf(const Setting& setting, const toml::node& node) {
        using Kind = Setting::Kind;
        if (const auto* const text = node.as_string()) {
            if (text->get().find('\0') != std::string::npos) {
                throw SettingsError(describePlace(node.source().begin,
                                                  "'" + setting.fullName() + "' may not contain a null character"));
            }
            return {.kind = Kind::text, .text = text->get()};
        }
        if (const auto* const truth = node.as_boolean()) {
            return {.kind = Kind::truth, .text = truth->get() ? "true" : "false"};
        }
        if (const auto* const number = node.as_integer()) {
            return {.kind = Kind::number, .text = std::to_string(number->get())};
        }
        if (const auto* const number = node.as_floating_point()) {
            return {.kind = Kind::number, .text = textOf(number->get())};
        }
        throw SettingsError(describePlace(node.source().begin, "'" + setting.fullName() +
                                                                   "' must be text, a number, true or false, or a "
                                                                   "list of those"));
    }

    std::vector<std::string> tables_;
    std::vector<Setting> settings_;
};

} // namespace

std::string SettingsPlace::prefix() const {
    return ", line " + std::to_string(line) + ", column " + std::to_string(column) + ": ";
}

std::string Setting::fullName() const {
    std::string full;
    for (const std::string& table : tables) {
        full += table + ".";
    }
    return full + name;
}

std::vector<Setting> readSettings(ByteView content) {
    if (content.size() > maxSettingsBytes) {
        throw SettingsError(": larger than " + std::to_string(maxSettingsBytes / 1024) + " KiB");
    }
    const std::string text = toText(content);
    refuseForeignCharacters(text);
    refuseLongNames(text);
    toml::table whole;
    try {
        whole = parse(text);
    } catch (const BrokenAssumption&) {
        throw SettingsError(SettingsPlace{.line = lineOfBreak(text)}.prefix() + "this line is no TOML");
    } catch (const toml::parse_error& error) {
        throw SettingsError(describePlace(error.source().begin, forDisplay(error.description())));
    }
    Collector collector;
    collector.takeTable(whole);
    return std::move(collector).inOrder();
}

} // namespace orlinth::cli
