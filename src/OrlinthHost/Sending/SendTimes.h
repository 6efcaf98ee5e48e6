#pragma once

namespace orlinth::host {

/// The four times of a send, in seconds: for a phone that is awake, then for one that was woken, for each attempt to
/// connect to that, and from one such attempt to the next.
struct SendTimes {
    double warm = 5;
    double wake = 30;
    double attempt = 5;
    double retry = 1;
};

} // namespace orlinth::host
