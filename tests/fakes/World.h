#pragma once

#include "OrlinthCore/Peers/PeerRecord.h"
#include "OrlinthCore/SecureChannel/HandshakeExchange.h"
#include "OrlinthCore/SecureChannel/TransportFrame.h"
#include "fakes/FakeBusSignals.h"
#include "fakes/FakeClipboard.h"
#include "fakes/FakeFolderWatcher.h"
#include "fakes/FakeHttpsClient.h"
#include "fakes/FakeMachine.h"
#include "fakes/FakeMimeTypes.h"
#include "fakes/FakeNetworkInterfaces.h"
#include "fakes/FakeNotifications.h"
#include "fakes/FakeServiceDiscovery.h"
#include "fakes/FakeSleepNews.h"
#include "fakes/FakeUserServices.h"
#include "fakes/MemoryFileSystem.h"
#include "fakes/MemoryNeighbours.h"
#include "fakes/MemoryNetwork.h"
#include "fakes/MemoryNetworkNews.h"
#include "fakes/MemoryProbe.h"
#include "fakes/MemoryRoutes.h"
#include "fakes/MemoryUnixSockets.h"
#include "fakes/MemoryWorkQueues.h"
#include "fakes/RecordingLog.h"
#include "fakes/VirtualClock.h"
#include "platform/Spawn.h"
#include "platform/System.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>

namespace orlinth::fakes {

/// A whole computer in memory, with time that moves by itself to wherever something happens next, and a phone's key.
struct World {
    World() = default;
    World(const World&) = delete;
    World& operator=(const World&) = delete;
    /// Nothing may be left behind: no task that waits, no alarm that would ring.
    ~World() {
        runUntilIdle(context, clock);
        EXPECT_EQ(companionsRunning, 0) << "a task is left behind";
        EXPECT_EQ(clock.pendingAlarms(), 0U);
    }

    asio::io_context context;
    VirtualClock clock{context};
    MemoryNetwork network{context};
    MemoryWorkQueues queues{context};
    MemoryFileSystem files;
    FakeMimeTypes mimeTypes;
    RecordingLog log;
    FakeHttpsClient https;
    FakeClipboard clipboard;
    FakeNetworkInterfaces interfaces;
    MemoryNetworkNews networkNews;
    MemoryNeighbours neighbours;
    MemoryRoutes routes;
    MemoryProbe probe{clock};
    FakeFirewall firewall{clock};
    FakeMachine machine;
    FakeServiceDiscovery services{clock};
    MemoryUnixSockets unixSockets{context};
    FakeNotifications notifications;
    FakeBusSignals busSignals;
    FakeSleepNews sleepNews;
    FakeUserServices userServices;
    FakeFolderWatcher folders;
    /// This computer, with another disk in it, which outlives what is given it.
    [[nodiscard]] platform::System systemOn(platform::FileSystem& disk) {
        return {.network = network,
                .queues = queues,
                .clock = clock,
                .files = disk,
                .mimeTypes = mimeTypes,
                .log = log,
                .https = https,
                .clipboard = clipboard,
                .interfaces = interfaces,
                .networkNews = networkNews,
                .neighbours = neighbours,
                .routes = routes,
                .probe = probe,
                .firewall = firewall,
                .machine = machine,
                .services = services,
                .unixSockets = unixSockets,
                .notifications = notifications,
                .busSignals = busSignals,
                .sleepNews = sleepNews,
                .userServices = userServices,
                .folders = folders,
                .directories = {.data = "/home/ann/.local/share",
                                .config = "/home/ann/.config",
                                .downloads = "/home/ann/Downloads"}};
    }
    platform::System system = systemOn(files);
    platform::PrivateKey computerKey = platform::PrivateKey::generate();
    platform::PrivateKey phoneKey = platform::PrivateKey::generate();
    static constexpr std::uint16_t phonePort = 7000;

    [[nodiscard]] PeerRecord phoneRecord() const {
        PeerRecord record;
        record.peer_pubkey = phoneKey.publicKey().peerKey();
        record.peer_ip = "203.0.113.2";
        record.peer_port = phonePort;
        record.peer_hostname = "Pixel-8";
        return record;
    }

    /// Lets another task run beside those that follow; what escapes from it fails the test.
    void alongside(Task<> task) {
        ++companionsRunning;
        platform::spawn(context.get_executor(), std::move(task), [this](const std::exception_ptr& error) {
            --companionsRunning;
            EXPECT_FALSE(error) << describe(error);
        });
    }

    template <typename T>
    T run(Task<T> task) {
        return runVirtual(context, clock, std::move(task));
    }

    /// Runs a task that must throw an `E`, and returns that.
    template <typename E, typename T>
    E failure(Task<T> task) {
        try {
            static_cast<void>(runVirtual(context, clock, std::move(task)));
        } catch (const E& error) {
            return error;
        }
        throw std::logic_error("nothing was thrown");
    }

    int companionsRunning = 0;
};

/// The other end of an authenticated conversation, frame by frame. What a test scripts a phone with.
class ScriptedPeer {
public:
    /// Listens, takes one connection and answers the handshake.
    [[nodiscard]] static Task<std::unique_ptr<ScriptedPeer>>
    accept(World& world, const platform::PrivateKey& key, std::string prologue = std::string(kOrlinthPrologue)) {
        const std::unique_ptr<platform::Listener> listener =
            world.network.listen({.port = World::phonePort, .keepAlive = std::nullopt}, world.context.get_executor());
        std::unique_ptr<platform::Stream> stream = co_await listener->accept(world.context.get_executor());
        auto wire = std::make_unique<WireConnection>(std::move(stream), world.clock);
        NoiseHandshake handshake(NoiseRole::responder, key.clone(), asBytes(prologue));
        co_await exchangeAsResponder(*wire, handshake);
        co_return std::make_unique<ScriptedPeer>(std::move(wire), std::move(handshake).finalize());
    }

    /// Connects and begins the handshake.
    [[nodiscard]] static Task<std::unique_ptr<ScriptedPeer>>
    connect(World& world, std::uint16_t port, const platform::PrivateKey& key,
            std::string prologue = std::string(kOrlinthPrologue)) {
        std::unique_ptr<platform::Stream> stream =
            co_await world.network.connect("203.0.113.1", port, world.context.get_executor());
        auto wire = std::make_unique<WireConnection>(std::move(stream), world.clock);
        NoiseHandshake handshake(NoiseRole::initiator, key.clone(), asBytes(prologue));
        co_await exchangeAsInitiator(*wire, handshake);
        co_return std::make_unique<ScriptedPeer>(std::move(wire), std::move(handshake).finalize());
    }

    ScriptedPeer(std::unique_ptr<WireConnection> wire, NoiseTransport transport)
        : wire_(std::move(wire)), framer_(std::move(transport)) {}

    [[nodiscard]] Task<> send(TransportMessage message) {
        const Bytes body = framer_.encodeJSON(message);
        co_await wire_->sendLengthPrefixed(body);
    }

    [[nodiscard]] Task<> sendBinary(Bytes data) {
        const Bytes body = framer_.encodeBinary(data);
        co_await wire_->sendLengthPrefixed(body);
    }

    [[nodiscard]] Task<DecodedFrame> receive() {
        const Bytes body = co_await wire_->receiveLengthPrefixed();
        co_return framer_.decode(body);
    }

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
    [[nodiscard]] Task<Bytes> receiveUntilDone() {
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

    /// Waits until the other side closes; true if it did so without another frame.
    [[nodiscard]] Task<bool> seesTheEnd() {
        try {
            const Bytes body = co_await wire_->receiveLengthPrefixed();
            co_return false;
        } catch (const WireConnection::Error&) {
            co_return true;
        }
    }

    /// Waits until the other side ends the connection; what the wire says of it.
    [[nodiscard]] Task<std::string> howItEnds() {
        try {
            const Bytes body = co_await wire_->receiveLengthPrefixed();
            co_return "a frame came";
        } catch (const WireConnection::Error& error) {
            co_return error.description();
        }
    }

    void close() { wire_->close(); }
    [[nodiscard]] WireConnection& wire() { return *wire_; }
    [[nodiscard]] const platform::PublicKey& remoteKey() const { return framer_.session().remoteStaticPublicKey(); }

private:
    std::unique_ptr<WireConnection> wire_;
    TransportFramer framer_;
};

} // namespace orlinth::fakes
