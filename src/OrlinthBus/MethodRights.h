#pragma once

#include <optional>
#include <string_view>

namespace orlinth::bus {

/// Who may call a method.
enum class MethodRight {
    everybody, ///< also programs in a sandbox: what they can do is add to what is sent, and steer that
    unjailed,  ///< programs that could read the private key as well
};

/// Of this method of the service's interfaces; nothing if there is none in the table, and nobody may call it then.
[[nodiscard]] std::optional<MethodRight> rightOf(std::string_view interface, std::string_view member) noexcept;

} // namespace orlinth::bus
