#pragma once

#include "base/Time.h"

namespace orlinth::host {

/// The four times of a send: for a phone that is awake, then for one that was woken, for each attempt to connect to
/// that, and from one such attempt to the next.
struct SendTimes {
    Seconds warm = 5s;
    Seconds wake = 30s;
    Seconds attempt = 5s;
    Seconds retry = 1s;
};

} // namespace orlinth::host
