#pragma once

#include <asio/any_io_executor.hpp>
#include <asio/awaitable.hpp>

namespace orlinth {

/// An asynchronous operation that throws its failures. It starts when it is awaited.
///
/// Cancelling (Asio's terminal cancellation, sent to the outermost task) makes the pending wait throw `Cancelled`,
/// which every layer lets through unchanged: it is not a failure, and nobody wraps it into one.
template <typename T = void>
using Task = asio::awaitable<T>;

/// Where an operation's steps run. A serial queue is a strand held as an Executor.
using Executor = asio::any_io_executor;

} // namespace orlinth
