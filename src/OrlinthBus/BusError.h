#pragma once

#include "base/Error.h"

#include <exception>
#include <string>

namespace orlinth::bus {

/// An argument that makes no sense. The text is for people.
class BadArgument : public Error {
public:
    explicit BadArgument(std::string text) : Error(std::move(text)) {}
};

/// An error as callers get it.
struct BusError {
    const char* name = "Failed"; ///< the last part of its name, which stays
    std::string text = {};       ///< for people; what to do is in a line of its own
};

/// What a caller is told of this exception.
[[nodiscard]] BusError busErrorOf(const std::exception& error);

} // namespace orlinth::bus
