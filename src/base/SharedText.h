#pragma once

#include "base/Mutex.h"

#include <string>
#include <utility>

namespace orlinth {

/// A text that may be replaced while others read it. Any thread.
class SharedText {
public:
    SharedText() = default;
    SharedText(const SharedText&) = delete;
    SharedText& operator=(const SharedText&) = delete;
    ~SharedText() = default;

    SharedText& operator=(std::string text) {
        const MutexLock guard(lock_);
        text_ = std::move(text);
        return *this;
    }

    /// As it is now.
    [[nodiscard]] std::string get() const {
        const MutexLock guard(lock_);
        return text_;
    }
    operator std::string() const { return get(); } // NOLINT(*-explicit-*): it is a text
    [[nodiscard]] bool empty() const { return get().empty(); }

private:
    mutable Mutex lock_;
    std::string text_ ORLINTH_GUARDED_BY(lock_);
};

} // namespace orlinth
