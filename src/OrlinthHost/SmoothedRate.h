#pragma once

#include "base/Time.h"

#include <algorithm>
#include <cstdint>

namespace orlinth::host {

/// How fast a transfer is, as people like to see it: half of what is older than about two seconds is forgotten.
///
/// A plain value.
class SmoothedRate {
public:
    /// So many bytes more, in the time that has passed since the last call, which is more than none.
    void add(std::int64_t bytes, Seconds passed) noexcept {
        const double now = static_cast<double>(bytes) / passed.count();
        perSecond_ = perSecond_ == 0 ? now : perSecond_ + (now - perSecond_) * std::min(1.0, passed / memory);
    }
    /// Bytes; 0 as long as nothing is known.
    [[nodiscard]] double perSecond() const noexcept { return perSecond_; }

private:
    static constexpr Seconds memory{2};
    double perSecond_ = 0;
};

} // namespace orlinth::host
