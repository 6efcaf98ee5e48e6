#pragma once

#include "OrlinthCore/SecureChannel/HandshakeExchange.h"
#include "fakes/MemoryProbe.h"
#include "fakes/World.h"
#include "platform/Spawn.h"

#include <functional>
#include <memory>
#include <utility>

namespace orlinth::fakes {

namespace detail {

/// Answers the first message of a handshake, and waits for the end. `key` outlives the task.
inline Task<> answerFirstMessage(platform::Clock* clock, std::unique_ptr<MemoryStream> stream,
                                 const platform::PrivateKey* key) {
    WireConnection wire(std::move(stream), *clock);
    NoiseHandshake handshake(NoiseRole::responder, key->clone(), asBytes(kOrlinthPrologue));
    try {
        const Bytes first = co_await wire.receiveLengthPrefixed();
        static_cast<void>(handshake.readMessage(first));
        const Bytes second = handshake.writeMessage({});
        co_await wire.sendLengthPrefixed(second);
        const Bytes more = co_await wire.receiveLengthPrefixed();
        ADD_FAILURE() << "a third message came, " << more.size() << " bytes";
    } catch (const WireConnection::Error&) {
        // it has hung up, as it should
    }
}

/// Takes what comes, and says nothing.
inline Task<> sayNothing(std::unique_ptr<MemoryStream> stream) {
    Bytes bytes(1000);
    try {
        static_cast<void>(co_await stream->readExact(bytes));
    } catch (const std::exception&) {
        // it was broken off
    }
}

/// Says something of another protocol, and ends.
inline Task<> sayHello(std::unique_ptr<MemoryStream> stream) {
    const Bytes bytes = toBytes("HTTP/1.1 400 Bad Request\r\n\r\n");
    co_await stream->writeAll(bytes);
    stream->finishWriting();
}

} // namespace detail

/// At this address somebody listens who proves `key`, which outlives the world's tasks.
inline void proveAt(World& world, const platform::IpAddress& address, const platform::PrivateKey& key,
                    Seconds after = 0s, std::uint16_t port = World::phonePort) {
    world.probe.accept(
        address, port,
        [&world, &key](std::unique_ptr<MemoryStream> stream) {
            world.alongside(detail::answerFirstMessage(&world.clock, std::move(stream), &key));
        },
        after);
}

/// Somebody who takes connections and says nothing.
inline void beSilentAt(World& world, const platform::IpAddress& address) {
    world.probe.accept(address, World::phonePort, [&world](std::unique_ptr<MemoryStream> stream) {
        world.alongside(detail::sayNothing(std::move(stream)));
    });
}

/// Somebody who speaks HTTP.
inline void speakHttpAt(World& world, const platform::IpAddress& address) {
    world.probe.accept(address, World::phonePort, [&world](std::unique_ptr<MemoryStream> stream) {
        world.alongside(detail::sayHello(std::move(stream)));
    });
}

} // namespace orlinth::fakes
