#pragma once

#include <string>

namespace orlinth::platform {

/// A name of DNS-SD as the program has it: with the dot at its end.
[[nodiscard]] inline std::string withDot(std::string name) {
    return name.ends_with('.') ? name : name + ".";
}

/// A name of DNS-SD as Avahi has it: without the dot at its end.
[[nodiscard]] inline std::string withoutDot(std::string name) {
    if (name.ends_with('.')) {
        name.pop_back();
    }
    return name;
}

} // namespace orlinth::platform
