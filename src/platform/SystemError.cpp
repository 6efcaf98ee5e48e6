#include "platform/SystemError.h"

#include "platform/Cancelled.h"

#include <asio/error.hpp>
#include <asio/system_error.hpp>

#include <cerrno>

namespace orlinth::platform {

namespace {

/// Asio's category for errno does not compare equal to std::errc; the standard library's does.
std::error_code comparable(std::error_code code) {
    return code.category() == asio::error::get_system_category()
               ? std::error_code(code.value(), std::generic_category())
               : code;
}

} // namespace

SystemError::SystemError(std::error_code code) : Error(code.message()), code_(comparable(code)) {}

SystemError SystemError::fromErrno() {
    return fromErrno(errno);
}

SystemError SystemError::fromErrno(int number) {
    return SystemError(std::error_code(number, std::generic_category()));
}

bool isCancellation(const std::exception& error) noexcept {
    if (dynamic_cast<const Cancelled*>(&error) != nullptr) {
        return true;
    }
    const auto* systemError = dynamic_cast<const asio::system_error*>(&error);
    return systemError != nullptr && systemError->code() == asio::error::operation_aborted;
}

std::string textOfFailure(const std::exception& error) {
    if (isCancellation(error)) {
        throw;
    }
    return describe(error);
}

void throwFromAwait(const std::exception& error) {
    if (isCancellation(error)) {
        throw Cancelled();
    }
    throw;
}

void throwIfFailed(const std::error_code& code) {
    if (code == asio::error::operation_aborted) {
        throw Cancelled();
    }
    if (code) {
        throw SystemError(code);
    }
}

bool isShortage(const std::error_code& code) noexcept {
    return code == std::errc::too_many_files_open || code == std::errc::too_many_files_open_in_system ||
           code == std::errc::no_buffer_space || code == std::errc::not_enough_memory ||
           code == std::errc::no_space_on_device ||           // watches of epoll
           code == std::errc::resource_unavailable_try_again; // threads
}

} // namespace orlinth::platform
