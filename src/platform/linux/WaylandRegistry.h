#pragma once

#include "base/Bytes.h"

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

namespace orlinth::platform {

/// What a Wayland compositor offers its programs, read from what it says on its socket ("The Wayland Protocol", wire
/// format and wl_registry). No socket here: the bytes come from another program and may be anything.
///
///     request() ─▶ compositor        take() ◀─ wl_registry.global, once for each interface
///                                    take() ◀─ wl_callback.done: those were all
///
/// Numbers are in this machine's byte order, as Wayland has them.
class WaylandRegistry {
public:
    enum class State {
        listing,  ///< more is to come
        complete, ///< interfaces() is the whole list
        failed,   ///< the compositor has reported an error, or said what makes no sense or is too much
    };

    /// Desktops have about 50 interfaces and say so in less than 4 kB.
    static constexpr std::size_t maxInterfaces = 512;
    static constexpr std::size_t maxMessages = 2048;
    static constexpr std::size_t maxMessageBytes = 4096; ///< more fits in no compositor's buffer
    static constexpr std::size_t maxBytes = std::size_t{128} << 10;

    /// What has to be sent, whole, before anything is read: wl_display.get_registry and wl_display.sync.
    [[nodiscard]] static Bytes request();

    /// Takes the next bytes, however they are cut. Bytes that come once the list is complete, or after a failure, are
    /// not looked at.
    State take(ByteView bytes);

    [[nodiscard]] State state() const noexcept { return state_; }
    /// The names, so far. An interface that was taken back is not among them.
    [[nodiscard]] std::set<std::string> interfaces() const;

private:
    struct Global {
        std::uint32_t number = 0;
        std::string interface;
        bool operator<(const Global& other) const noexcept { return number < other.number; }
    };

    /// Both throw for what cannot be read.
    void takeMessages();
    void takeEvent(std::uint32_t object, std::uint32_t event, ByteView body);

    State state_ = State::listing;
    Bytes unread_; ///< the beginning of a message; shorter than maxMessageBytes between calls
    std::size_t bytes_ = 0;
    std::size_t messages_ = 0;
    std::set<Global> globals_;
};

} // namespace orlinth::platform
