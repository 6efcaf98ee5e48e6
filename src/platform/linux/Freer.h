#pragma once

namespace orlinth::platform::detail {

/// The deleter of a std::unique_ptr to what a C library frees with this function.
template <auto free>
struct Freer {
    template <typename T>
    void operator()(T* object) const noexcept {
        free(object);
    }
};

} // namespace orlinth::platform::detail
