#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace orlinth::host {

/// The host of a text that is one `https` address and nothing else, white space around it aside; nothing for any other
/// text. It is what a person can judge by: an address whose host may look like another one counts as any other text, be
/// it one with a user name before it, in other letters than those of the web's names, or too long to be shown whole.
[[nodiscard]] std::optional<std::string> hostOfLink(std::string_view text);

/// The address itself. There is a host.
[[nodiscard]] std::string addressOfLink(std::string_view text);

} // namespace orlinth::host
