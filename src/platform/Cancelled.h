#pragma once

#include <exception>
#include <string>

namespace orlinth::platform {

/// The operation was cancelled from outside (Ctrl-C, a service that stops). Not a failure of anything.
class Cancelled : public std::exception {
public:
    [[nodiscard]] const char* what() const noexcept override { return "cancelled"; }
};

/// Whether this exception means that the operation was cancelled from outside: `Cancelled`, or Asio's own
/// operation_aborted, which awaiting anything in a cancelled task throws.
///
/// Every handler that wraps errors or tries again asks this first and rethrows if so:
/// a loop that swallowed it would spin, because every further wait fails at once.
[[nodiscard]] bool isCancellation(const std::exception& error) noexcept;

/// The text of a failure, for an outer error that quotes it. A cancellation is none: it is thrown on.
/// Only in the handler that has caught `error`.
[[nodiscard]] std::string textOfFailure(const std::exception& error);

/// In the handler of what awaiting something of Asio's has thrown, whose own errors come as codes: Cancelled if the
/// task had been cancelled before it came there; anything else is thrown on.
[[noreturn]] void throwFromAwait(const std::exception& error);

} // namespace orlinth::platform
