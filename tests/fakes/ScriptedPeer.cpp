#include "fakes/ScriptedPeer.h"

#include "fakes/World.h"

namespace orlinth::fakes {

Task<std::unique_ptr<ScriptedPeer>> ScriptedPeer::accept(World& world, const platform::PrivateKey& key,
                                                         std::string prologue) {
    const std::unique_ptr<platform::Listener> listener =
        world.network.listen({.port = World::phonePort, .keepAlive = std::nullopt}, world.context.get_executor());
    std::unique_ptr<platform::Stream> stream = co_await listener->accept(world.context.get_executor());
    auto wire = std::make_unique<WireConnection>(std::move(stream), world.clock);
    NoiseHandshake handshake(NoiseRole::responder, key.clone(), asBytes(prologue));
    co_await exchangeAsResponder(*wire, handshake);
    co_return std::make_unique<ScriptedPeer>(std::move(wire), std::move(handshake).finalize());
}

Task<std::unique_ptr<ScriptedPeer>> ScriptedPeer::connect(World& world, std::uint16_t port,
                                                          const platform::PrivateKey& key, std::string prologue) {
    std::unique_ptr<platform::Stream> stream =
        co_await world.network.connect("203.0.113.1", port, world.context.get_executor());
    auto wire = std::make_unique<WireConnection>(std::move(stream), world.clock);
    NoiseHandshake handshake(NoiseRole::initiator, key.clone(), asBytes(prologue));
    co_await exchangeAsInitiator(*wire, handshake);
    co_return std::make_unique<ScriptedPeer>(std::move(wire), std::move(handshake).finalize());
}

Task<> ScriptedPeer::send(TransportMessage message) {
    const Bytes body = framer_.encodeJSON(message);
    co_await wire_->sendLengthPrefixed(body);
}

Task<> ScriptedPeer::sendBinary(Bytes data) {
    const Bytes body = framer_.encodeBinary(data);
    co_await wire_->sendLengthPrefixed(body);
}

Task<DecodedFrame> ScriptedPeer::receive() {
    const Bytes body = co_await wire_->receiveLengthPrefixed();
    co_return framer_.decode(body);
}

Task<Bytes> ScriptedPeer::receiveUntilDone() {
    Bytes data;
    for (;;) {
        const DecodedFrame frame = co_await receive();
        if (const auto* piece = std::get_if<Bytes>(&frame)) {
            data.insert(data.end(), piece->begin(), piece->end());
            continue;
        }
        if (std::get<TransportMessage>(frame).tag() != TransportMessage::Tag::Done) {
            throw std::logic_error("a message came in the middle of the data");
        }
        co_return data;
    }
}

Task<bool> ScriptedPeer::seesTheEnd() {
    try {
        const Bytes body = co_await wire_->receiveLengthPrefixed();
        co_return false;
    } catch (const WireConnection::Error&) {
        co_return true;
    }
}

Task<std::string> ScriptedPeer::howItEnds() {
    try {
        const Bytes body = co_await wire_->receiveLengthPrefixed();
        co_return "a frame came";
    } catch (const WireConnection::Error& error) {
        co_return error.description();
    }
}

} // namespace orlinth::fakes
