#pragma once

#include "base/Bytes.h"
#include "base/Error.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace orlinth::cli {

/// The settings file is there and cannot be used; the text says where and why.
class SettingsError : public Error {
public:
    explicit SettingsError(std::string text) : Error(std::move(text)) {}
};

/// Where something stands in the settings file; lines and columns count from 1.
struct SettingsPlace {
    std::uint32_t line = 1;
    std::uint32_t column = 1;

    /// ", line 3, column 8: "
    [[nodiscard]] std::string prefix() const;
};

/// One value of the settings file, or a list of values.
struct Setting {
    enum class Kind { text, number, truth };
    struct Value {
        Kind kind = Kind::text;
        std::string text; ///< as a flag takes it

        friend bool operator==(const Value&, const Value&) = default;
    };

    std::vector<std::string> tables = {}; ///< from the outermost on; none for a setting above all tables
    std::string name = {};
    bool isList = false;
    std::vector<Value> values = {}; ///< exactly one unless it is a list
    SettingsPlace place = {};       ///< of the name

    /// "peers.add.name"
    [[nodiscard]] std::string fullName() const;
};

/// The file's content may be this large; no settings need a hundredth of it.
inline constexpr std::size_t maxSettingsBytes = 64 * 1024;

/// The values of a settings file, TOML 1.0, in the order in which they stand there. Touches no file.
///
/// Tables without a value have no part in it. Values are texts, numbers and booleans, or lists of those. How deep they
/// may lie is bounded, so that no content can exhaust the stack.
/// @throws SettingsError, which begins with SettingsPlace::prefix() if it is about a place
[[nodiscard]] std::vector<Setting> readSettings(ByteView content);

} // namespace orlinth::cli
