#pragma once

#include "fakes/World.h"
#include "platform/SystemError.h"

#include <cerrno>

namespace orlinth::fakes {

/// A phone that sends some bytes and then waits for the end.
struct PairPhone {
    /// What it sees of the connection's end.
    enum class End { none, closed, reset, refused };

    Bytes data;
    bool thenFinishes = false;   ///< says that nothing more will come
    Seconds connectsAt = 1s;     ///< on the world's clock
    Seconds timePerByte{0};      ///< sends byte by byte, if above 0
    std::size_t connections = 1; ///< opens so many at once and uses the last

    End end = End::none;
    double endedAt = 0;
    Bytes received = {};
};

/// A connection from the phone; any host is this computer.
[[nodiscard]] inline Task<std::unique_ptr<platform::Stream>> connect(World& world, std::uint16_t to) {
    co_return co_await world.network.connect("192.168.1.23", to, world.context.get_executor());
}

[[nodiscard]] inline Task<> send(World& world, platform::Stream& stream, PairPhone& phone) {
    if (phone.timePerByte <= 0s) {
        co_await stream.writeAll(phone.data);
    } else {
        for (const std::byte& byte : phone.data) {
            co_await world.clock.sleep(phone.timePerByte);
            co_await stream.writeAll(ByteView(&byte, 1));
        }
    }
    if (phone.thenFinishes) {
        stream.finishWriting();
    }
}

/// Throws where the connection does not end in an orderly way.
[[nodiscard]] inline Task<> receiveToTheEnd(platform::Stream& stream, PairPhone& phone) {
    for (;;) {
        std::byte byte{};
        const std::size_t count = co_await stream.readExact(MutableBytes(&byte, 1));
        if (count == 0) {
            phone.end = PairPhone::End::closed;
            co_return;
        }
        phone.received.push_back(byte);
    }
}

[[nodiscard]] inline Task<> talk(World& world, std::uint16_t to, PairPhone& phone) {
    std::vector<std::unique_ptr<platform::Stream>> streams;
    for (std::size_t i = 0; i < phone.connections; ++i) {
        std::unique_ptr<platform::Stream> stream = co_await connect(world, to);
        streams.push_back(std::move(stream));
    }
    co_await send(world, *streams.back(), phone);
    co_await receiveToTheEnd(*streams.back(), phone);
}

/// The phone's whole part; tells in `phone` how it ended.
[[nodiscard]] inline Task<> play(World& world, std::uint16_t to, PairPhone& phone) {
    co_await world.clock.sleep(phone.connectsAt - Seconds(world.clock.elapsed()));
    try {
        co_await talk(world, to, phone);
    } catch (const platform::SystemError& error) {
        phone.end = error.code().value() == ECONNREFUSED ? PairPhone::End::refused : PairPhone::End::reset;
    }
    phone.endedAt = world.clock.elapsed();
}

} // namespace orlinth::fakes
