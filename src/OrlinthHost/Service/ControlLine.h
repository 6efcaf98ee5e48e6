#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/HostError.h"
#include "base/Bytes.h"
#include "base/Json.h"
#include "base/OneShot.h"
#include "platform/Deadline.h"
#include "platform/Network.h"

#include <cstddef>
#include <string>

/// How the lines of ControlMessage.h get through the control socket, for both of its ends.
namespace orlinth::host {

/// Bytes of a line, without its end.
inline constexpr std::size_t maxControlLine = 4096;
/// The time for a whole request to come, and for a whole line to be taken by the other end.
inline constexpr Seconds controlLineLimit = 5s;

/// The other end of the control socket has gone.
class ConnectionEnded : public HostError {
public:
    ConnectionEnded() : HostError("the connection has ended") {}
};

/// Where the running service of this data folder listens.
[[nodiscard]] platform::Path controlSocket(const Home& home);

/// What `operation` returns, if it does so in time. @throws HostError if it does not
/// `operation` outlives the call, whose caller awaits it in the expression that makes it; so does `clock`.
template <typename T>
[[nodiscard]] Task<T> withinLimit(platform::Clock& clock, Seconds limit, Task<T> operation) {
    OneShot<T> outcome;
    co_await platform::settleFirst(outcome, clock, limit, std::make_exception_ptr(HostError("no answer in time")),
                                   std::move(operation));
    co_return outcome.take();
}

/// The next line, without its end, and not a byte further: a socket may follow. What is referred to outlives the call.
/// @throws HostError if it is longer than `most` bytes, or comes too late; ConnectionEnded, also within a line;
///         SystemError
[[nodiscard]] Task<std::string> readControlLine(platform::Stream& stream, platform::Clock& clock, Seconds limit,
                                                std::size_t most = maxControlLine);
/// The same, however long it takes to come.
[[nodiscard]] Task<std::string> readControlLine(platform::Stream& stream, std::size_t most = maxControlLine);

/// Sends a line, and its end. What is referred to outlives the call.
/// @throws HostError if the other end does not take it in time; SystemError
[[nodiscard]] Task<> sendControlLine(platform::Stream& stream, platform::Clock& clock, std::string line);

/// Passes bytes that may be secret, in memory of their own (UnixSockets::sendSecret()), behind a line that says so.
/// What is referred to outlives the call.
/// @throws HostError if the other end does not take them in time; SystemError
[[nodiscard]] Task<> sendControlSecret(platform::Stream& stream, Home& home, ByteView bytes);

/// A request that was not done, as whoever made it reads it.
[[nodiscard]] HostError notDone(const std::string& problem);
/// @throws notDone() if this is `{"error":"…"}`; JsonError if that is no text
void throwIfRefused(const Json& line);

} // namespace orlinth::host
