#pragma once

#include "orlinth/Program/SettingsText.h"

#include <optional>
#include <string_view>

namespace orlinth::cli {

/// Where a character beyond ASCII first stands outside of strings and comments, where TOML 1.0 has none. A byte order
/// mark at the beginning does not count. Nothing is found behind a string that is not closed in its line, since that is
/// an error itself. Columns are counted in characters.
[[nodiscard]] std::optional<SettingsPlace> findForeignCharacter(std::string_view toml) noexcept;

} // namespace orlinth::cli
