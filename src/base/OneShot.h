#pragma once

#include "base/Mutex.h"

#include <exception>
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
        const MutexLock guard(lock_);
        if (resolved_) {
            return false;
        }
        resolved_ = true;
        value_.emplace(std::move(value));
        return true;
    }

    /// Settles with an error. Returns false, and drops the error, if it was settled before.
    bool fail(std::exception_ptr error) {
        const MutexLock guard(lock_);
        if (resolved_) {
            return false;
        }
        resolved_ = true;
        error_ = std::move(error);
        return true;
    }

    [[nodiscard]] bool isResolved() const {
        const MutexLock guard(lock_);
        return resolved_;
    }

    /// The value; throws the error if that came first. Settled is a precondition.
    [[nodiscard]] T take() {
        const MutexLock guard(lock_);
        if (error_) {
            std::rethrow_exception(std::exchange(error_, nullptr));
        }
        return std::move(value_).value();
    }

private:
    mutable Mutex lock_;
    bool resolved_ ORLINTH_GUARDED_BY(lock_) = false;
    std::optional<T> value_ ORLINTH_GUARDED_BY(lock_);
    std::exception_ptr error_ ORLINTH_GUARDED_BY(lock_);
};

} // namespace orlinth
