#pragma once

#include <cstddef>

namespace orlinth {

/// One more in a count, for as long as this lives. The count outlives it. Not thread-safe.
class Counted {
public:
    explicit Counted(std::size_t& count) noexcept : count_(count) { ++count_; }
    ~Counted() { --count_; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

private:
    std::size_t& count_;
};

} // namespace orlinth
