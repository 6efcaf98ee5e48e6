#pragma once

/// How this process deals with memory that it does not need any more.
namespace orlinth::platform {

/// From now on large blocks go back to the system when they are freed. By default each thread may keep tens of
/// megabytes of what it once needed. For a program with many threads and, now and then, large messages; before those
/// start.
void returnFreedMemory() noexcept;

} // namespace orlinth::platform
