#pragma once

#include "base/Error.h"

#include <system_error>

namespace orlinth::platform {

/// A failure that the operating system or its libraries reported, in their own words (strerror and the like).
class SystemError : public Error {
public:
    explicit SystemError(std::error_code code);
    /// For a library without error codes.
    explicit SystemError(std::string text) : Error(std::move(text)) {}

    /// The code, if there is one; empty (zero) otherwise.
    [[nodiscard]] std::error_code code() const noexcept { return code_; }

    /// The failure of the call that has just set errno.
    [[nodiscard]] static SystemError fromErrno();
    [[nodiscard]] static SystemError fromErrno(int number);

private:
    std::error_code code_;
};

/// What a wait of Asio's has ended with: nothing for no error. @throws Cancelled; SystemError
void throwIfFailed(const std::error_code& code);

/// Whether the system has run out of something, which passes by itself when others have given some of it back:
/// descriptors, buffers, memory, watches of epoll, threads. Not for writing to a disk: there a lack of space is final.
[[nodiscard]] bool isShortage(const std::error_code& code) noexcept;

} // namespace orlinth::platform
