#pragma once

#include <exception>
#include <mutex>
#include <optional>
#include <utility>

namespace orlinth {

/// One result that several events race to settle: the first wins, every later one is dropped.
///
/// Threading: any thread may settle; take() is called once, by the one who waited, after it was settled.
template <typename T>
class OneShot {
public:
    /// Settles with a value. Returns false, and drops the value, if it was settled before.
    bool resolve(T value) {
        const std::lock_guard guard(lock_);
        if (resolved_) {
            return false;
        }
        resolved_ = true;
        value_.emplace(std::move(value));
        return true;
    }

    /// Settles with an error. Returns false, and drops the error, if it was settled before.
    bool fail(std::exception_ptr error) {
        const std::lock_guard guard(lock_);
        if (resolved_) {
            return false;
        }
        resolved_ = true;
        error_ = std::move(error);
        return true;
    }

    [[nodiscard]] bool isResolved() const {
        const std::lock_guard guard(lock_);
        return resolved_;
    }

    /// The value; throws the error if that came first. Settled is a precondition.
    [[nodiscard]] T take() {
        const std::lock_guard guard(lock_);
        if (error_) {
            std::rethrow_exception(std::exchange(error_, nullptr));
        }
        return std::move(value_).value();
    }

private:
    mutable std::mutex lock_;
    bool resolved_ = false;
    std::optional<T> value_;
    std::exception_ptr error_;
};

} // namespace orlinth
