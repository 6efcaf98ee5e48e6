// A phone's part in one clipboard message, over real TCP: takes one connection, shakes hands as the responder, takes
// one message and prints it, then takes its leave.
//
//     clip_phone LEAVE PORT COMPUTER_KEY
//
// LEAVE: close        closes the connection
//        answer       answers with a message that means nothing here, and closes
//        unpair       answers Unpair, and closes
//        unpair-first says Unpair before it reads, and then reads to the end
//        silent       says nothing, and waits for the other side to close
//        break        closes after the handshake, without reading
//        stuck        reads nothing after the handshake, and waits for the other side to close
// PORT: where to listen; 0 for any free one. COMPUTER_KEY: the only caller that is served, in Base64.
//
// The phone's own key is that of the data folder, as with every orlinth. One JSON object a line on standard output:
// {"event":"listening","port":N}, {"event":"handshake"}, {"event":"message", ... the message itself},
// {"event":"closed"}. A failure is one line on standard error, status 1.

#include "OrlinthCore/SecureChannel/HandshakeExchange.h"
#include "OrlinthCore/SecureChannel/KeyVault.h"
#include "OrlinthCore/SecureChannel/TransportFrame.h"
#include "base/ConstantTime.h"
#include "platform/Spawn.h"
#include "platform/linux/LinuxSystem.h"

#include <charconv>
#include <cstdio>
#include <exception>
#include <stdexcept>

using namespace orlinth;

namespace {

/// How the phone was asked to behave.
struct Part {
    std::string leave;
    std::uint16_t port;
    platform::PublicKey computer;
};

void print(const char* event, Json fields = Json::object()) {
    fields["event"] = event;
    std::puts(compactJson(fields).c_str());
    std::fflush(stdout);
}

/// Waits until the other side has closed.
Task<> readToTheEnd(WireConnection& wire) {
    try {
        for (;;) {
            const Bytes body = co_await wire.receiveLengthPrefixed();
        }
    } catch (const WireConnection::Error&) {
        print("closed");
    }
}

Task<> say(WireConnection& wire, TransportFramer& framer, TransportMessage message) {
    const Bytes body = framer.encodeJSON(message);
    co_await wire.sendLengthPrefixed(body);
}

Task<> takeMessage(WireConnection& wire, TransportFramer& framer) {
    const Bytes body = co_await wire.receiveLengthPrefixed();
    const DecodedFrame frame = framer.decode(body);
    const auto* message = std::get_if<TransportMessage>(&frame);
    if (message == nullptr) {
        throw std::runtime_error("a binary frame instead of a message");
    }
    print("message", parseJson(asBytes(message->toJson())));
}

Task<TransportFramer> shakeHands(platform::System& system, WireConnection& wire, const Part& part) {
    NoiseHandshake handshake(NoiseRole::responder, KeyVault(system.files, system.directories).loadOrCreate(),
                             asBytes(kOrlinthPrologue));
    co_await exchangeAsResponder(wire, handshake);
    NoiseTransport session = std::move(handshake).finalize();
    if (!constantTimeEquals(session.remoteStaticPublicKey().raw(), part.computer.raw())) {
        throw std::runtime_error("the caller has another key");
    }
    print("handshake");
    co_return TransportFramer(std::move(session));
}

Task<> run(platform::System& system, const Part& part) {
    const Executor queue = co_await asio::this_coro::executor;
    const std::unique_ptr<platform::Listener> listener =
        system.network.listen({.port = part.port, .keepAlive = std::nullopt}, queue);
    print("listening", {{"port", listener->port()}});
    std::unique_ptr<platform::Stream> connection = co_await listener->accept(queue);
    listener->close();
    platform::Stream& stream = *connection;
    WireConnection wire(std::move(connection), system.clock);
    TransportFramer framer = co_await shakeHands(system, wire, part);

    if (part.leave == "break") {
        co_return;
    }
    if (part.leave == "stuck") { // the one who waits here reads nothing at all; whoever started us ends us
        co_await system.clock.sleep(3600s);
    }
    if (part.leave == "unpair-first") {
        co_await say(wire, framer, TransportMessage::unpair());
        stream.finishWriting();
        co_await readToTheEnd(wire);
        co_return;
    }
    co_await takeMessage(wire, framer);
    if (part.leave == "silent") {
        co_await readToTheEnd(wire);
    } else if (part.leave == "unpair") {
        co_await say(wire, framer, TransportMessage::unpair());
    } else if (part.leave == "answer") {
        co_await say(wire, framer, TransportMessage::done());
    }
}

Part parsePart(std::span<char*> words) {
    if (words.size() != 4) {
        throw std::invalid_argument("usage: clip_phone LEAVE PORT COMPUTER_KEY");
    }
    const std::string_view digits = words[2];
    std::uint16_t port = 0;
    if (std::from_chars(digits.data(), digits.data() + digits.size(), port).ec != std::errc()) {
        throw std::invalid_argument("no such port");
    }
    const auto computer = platform::PublicKey::fromBase64(words[3]);
    if (!computer) {
        throw std::invalid_argument("no such key");
    }
    return {.leave = words[1], .port = port, .computer = *computer};
}

} // namespace

int main(int count, char** arguments) {
    try {
        const Part part = parsePart({arguments, static_cast<std::size_t>(count)});
        asio::io_context context(1);
        platform::LinuxSystem linux(context);
        platform::System system = linux.system();
        std::exception_ptr failure;
        platform::spawn(context.get_executor(), run(system, part),
                        [&failure](const std::exception_ptr& error) { failure = error; });
        context.run();
        if (failure) {
            std::rethrow_exception(failure);
        }
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "clip_phone: %s\n", error.what());
        return 1;
    }
}
