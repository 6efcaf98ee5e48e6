#pragma once

#include "OrlinthCore/SecureChannel/HandshakeExchange.h"
#include "OrlinthCore/SecureChannel/TransportFrame.h"
#include "OrlinthCore/SecureChannel/WireConnection.h"
#include "platform/Crypto.h"
#include "platform/Task.h"

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>

namespace orlinth::fakes {

struct World;

/// The other end of an authenticated conversation, frame by frame. What a test scripts a phone with.
class ScriptedPeer {
public:
    /// Listens, takes one connection and answers the handshake.
    [[nodiscard]] static Task<std::unique_ptr<ScriptedPeer>>
    accept(World& world, const platform::PrivateKey& key, std::string prologue = std::string(kOrlinthPrologue));

    /// Connects and begins the handshake.
    [[nodiscard]] static Task<std::unique_ptr<ScriptedPeer>>
    connect(World& world, std::uint16_t port, const platform::PrivateKey& key,
            std::string prologue = std::string(kOrlinthPrologue));

    ScriptedPeer(std::unique_ptr<WireConnection> wire, NoiseTransport transport)
        : wire_(std::move(wire)), framer_(std::move(transport)) {}

    [[nodiscard]] Task<> send(TransportMessage message);

    [[nodiscard]] Task<> sendBinary(Bytes data);

    [[nodiscard]] Task<DecodedFrame> receive();

    /// The next frame, which must be a message of this kind.
    template <typename Row>
    [[nodiscard]] Task<Row> expect() {
        const DecodedFrame frame = co_await receive();
        const auto* message = std::get_if<TransportMessage>(&frame);
        const Row* row = message != nullptr ? message->as<Row>() : nullptr;
        if (row == nullptr) {
            throw std::logic_error("another frame came than the one expected");
        }
        co_return *row;
    }

    /// Takes frames up to Done; returns the data of the binary ones.
    [[nodiscard]] Task<Bytes> receiveUntilDone();

    /// Waits until the other side closes; true if it did so without another frame.
    [[nodiscard]] Task<bool> seesTheEnd();

    /// Waits until the other side ends the connection; what the wire says of it.
    [[nodiscard]] Task<std::string> howItEnds();

    void close() { wire_->close(); }
    [[nodiscard]] WireConnection& wire() { return *wire_; }
    [[nodiscard]] const platform::PublicKey& remoteKey() const { return framer_.session().remoteStaticPublicKey(); }

private:
    std::unique_ptr<WireConnection> wire_;
    TransportFramer framer_;
};

} // namespace orlinth::fakes
