#pragma once

#include <chrono>
#include <cstdint>

namespace orlinth {

using namespace std::chrono_literals; // every part writes its times as 10s, 250ms

/// A length of time, with decimals. Chrono's durations and literals convert to it; a bare number does not.
using Seconds = std::chrono::duration<double>;

/// A moment by the wall clock, in whole milliseconds since the Unix epoch. Any 64-bit number may come from a file, so
/// such a moment is compared with milliseconds only: in a finer unit it may not fit.
using EpochMilliseconds = std::chrono::sys_time<std::chrono::milliseconds>;

/// The same in nanoseconds, as file systems tell it.
using EpochNanoseconds = std::chrono::sys_time<std::chrono::nanoseconds>;

/// The moments of numbers in files and JSON.
[[nodiscard]] constexpr EpochMilliseconds fromEpochMilliseconds(std::int64_t number) noexcept {
    return EpochMilliseconds(std::chrono::milliseconds(number));
}
[[nodiscard]] constexpr EpochNanoseconds fromEpochNanoseconds(std::int64_t number) noexcept {
    return EpochNanoseconds(std::chrono::nanoseconds(number));
}

/// The number in files and JSON for a moment, in the moment's own unit.
template <typename Unit>
[[nodiscard]] constexpr std::int64_t toNumber(std::chrono::sys_time<Unit> moment) noexcept {
    return moment.time_since_epoch().count();
}

/// A moment without what is less than a millisecond.
[[nodiscard]] constexpr EpochMilliseconds inMilliseconds(EpochNanoseconds moment) noexcept {
    return std::chrono::time_point_cast<std::chrono::milliseconds>(moment);
}

} // namespace orlinth
