#pragma once

#include "platform/SystemError.h"

#include <cerrno>
#include <unistd.h>
#include <utility>

/// What calls of the kernel give back: descriptors, and errors in errno.
namespace orlinth::platform::detail {

/// Makes a call again for as long as signals interrupt it.
template <typename Call>
auto retried(Call call) {
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR) {
            return result;
        }
    }
}

/// The same; what fails for another reason is thrown.
template <typename Call>
auto checked(Call call) {
    const auto result = retried(std::move(call));
    if (result == -1) {
        throw SystemError::fromErrno();
    }
    return result;
}

/// An open file, socket or the like; destroying it closes it. -1: none. Used on one thread at a time.
class Descriptor {
public:
    Descriptor() noexcept = default;
    /// Takes the number over; -1 is fine, so that the result of a call can be looked at afterwards.
    explicit Descriptor(int number) noexcept : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        Descriptor taken(std::move(other)); // first: one that is moved onto itself stays open
        std::swap(number_, taken.number_);
        return *this;
    }
    ~Descriptor() { close(); }

    /// A call's result that must be a descriptor. @throws SystemError by errno for -1
    [[nodiscard]] static Descriptor require(int number) {
        if (number == -1) {
            throw SystemError::fromErrno();
        }
        return Descriptor(number);
    }

    [[nodiscard]] int get() const noexcept { return number_; }
    [[nodiscard]] bool isOpen() const noexcept { return number_ != -1; }
    /// The number is the caller's from now on.
    [[nodiscard]] int release() noexcept { return std::exchange(number_, -1); }
    /// Now instead of at the end. Leaves errno alone.
    void close() noexcept {
        if (number_ != -1) {
            const int before = errno;
            ::close(std::exchange(number_, -1)); // not made again: Linux lets go of the number even if interrupted
            errno = before;
        }
    }

private:
    int number_ = -1;
};

} // namespace orlinth::platform::detail
