#include "platform/SystemError.h"

#include "platform/Cancelled.h"

#include <asio/error.hpp>
#include <asio/system_error.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>

namespace orlinth::platform {
namespace {

TEST(Shortage, IsWhatPassesWhenOthersGiveSomethingBack) {
    for (const int number : {EMFILE, ENFILE, ENOBUFS, ENOMEM, ENOSPC, EAGAIN}) {
        EXPECT_TRUE(isShortage(SystemError::fromErrno(number).code())) << number;
    }
    for (const int number : {EACCES, ECONNRESET, EADDRINUSE, ENOENT, EIO, EINTR, EDQUOT}) {
        EXPECT_FALSE(isShortage(SystemError::fromErrno(number).code())) << number;
    }
    EXPECT_FALSE(isShortage(SystemError("no code").code()));
}

TEST(Shortage, IsTheSameInAsiosWords) {
    const std::error_code code(EMFILE, asio::error::get_system_category());
    EXPECT_TRUE(isShortage(SystemError(code).code()));
}

std::string quoted(const std::exception& thrown) {
    return describe(thrown);
}

/// What a handler makes of this exception.
template <typename Exception>
std::string textOf(const Exception& exception) {
    try {
        throw exception;
    } catch (const std::exception& error) {
        return textOfFailure(error);
    }
}

TEST(TextOfFailure, IsTheTextOfTheError) {
    EXPECT_EQ(textOf(std::runtime_error("broken")), "broken");
    const SystemError error = SystemError::fromErrno(ENOENT);
    EXPECT_EQ(textOf(error), quoted(error));
}

TEST(TextOfFailure, ThrowsCancellationOnAsItIs) {
    EXPECT_THROW(static_cast<void>(textOf(Cancelled())), Cancelled);
    EXPECT_THROW(static_cast<void>(textOf(asio::system_error(asio::error::operation_aborted))), asio::system_error);
}

TEST(WaitsOfAsio, EndWellWithCancelledOrWithTheSystemsError) {
    EXPECT_NO_THROW(throwIfFailed({}));
    EXPECT_THROW(throwIfFailed(asio::error::operation_aborted), Cancelled);
    try {
        throwIfFailed(std::error_code(ECONNRESET, std::generic_category()));
        ADD_FAILURE() << "nothing was thrown";
    } catch (const SystemError& error) {
        EXPECT_EQ(error.code(), std::errc::connection_reset);
    }
}

/// Thrown on from a handler, as whoever awaits does.
template <typename Thrown>
void throwOn(const Thrown& thrown) {
    try {
        throw thrown;
    } catch (const std::exception& error) {
        throwFromAwait(error);
    }
}

TEST(WaitsOfAsio, ThrowCancelledIfTheTaskWasCancelledBefore) {
    EXPECT_THROW(throwOn(asio::system_error(asio::error::operation_aborted)), Cancelled);
    EXPECT_THROW(throwOn(Cancelled()), Cancelled);
    EXPECT_THROW(throwOn(std::logic_error("something else")), std::logic_error);
}

} // namespace
} // namespace orlinth::platform
