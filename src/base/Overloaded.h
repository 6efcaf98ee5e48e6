#pragma once

namespace orlinth {

/// A function object that has the calls of several, for std::visit(): the one whose parameter fits best is called.
template <typename... Cases>
struct Overloaded : Cases... {
    using Cases::operator()...;
};

} // namespace orlinth
