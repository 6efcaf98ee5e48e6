// A paired phone that takes more than its share, over real TCP.
//
//     rude_phone PORT COMPUTER_KEY hold COUNT             connections that say nothing after the handshake
//     rude_phone PORT COMPUTER_KEY halves COUNT BYTES     connections with BYTES of a frame of 16 MiB each
//     rude_phone PORT COMPUTER_KEY tokens COUNT           one connection with so many tokens, "token 1" and so on
//     rude_phone PORT COMPUTER_KEY names COUNT            a connection for each name, "name 1" and so on
//     rude_phone PORT COMPUTER_KEY texts COUNT BYTES      a connection for each text
//     rude_phone PORT COMPUTER_KEY greedy SIZE BYTES      offers SIZE bytes, and sends BYTES once it may
//
// The phone's own key is that of the data folder, as with every orlinth. Says {"event":"ready"} on standard output when
// that is done, and then holds what it has open until standard input ends. With {"event":"ready"} comes "open": how
// many of its connections the other side has not ended. A failure is one line on standard error, status 1.

#include "OrlinthCore/SecureChannel/HandshakeExchange.h"
#include "OrlinthCore/SecureChannel/KeyVault.h"
#include "OrlinthCore/SecureChannel/TransportFrame.h"
#include "platform/Spawn.h"
#include "platform/linux/LinuxSystem.h"

#include <asio/steady_timer.hpp>
#include <asio/use_awaitable.hpp>

#include <cstdio>
#include <exception>
#include <iostream>
#include <stdexcept>

using namespace orlinth;

namespace {

struct Rudeness {
    std::uint16_t port;
    platform::PublicKey computer;
    std::string what;
    std::int64_t count;
    std::int64_t bytes;
};

/// One connection that has shaken hands. Its stream is kept beside the wire, to send what is no whole frame.
struct Connection {
    std::unique_ptr<WireConnection> wire;
    std::unique_ptr<TransportFramer> framer;
    platform::Stream* stream;
};

Task<Connection> connect(const platform::System& system, const Rudeness& rudeness, const platform::PrivateKey& key) {
    const Executor executor = co_await asio::this_coro::executor;
    std::unique_ptr<platform::Stream> stream = co_await system.network.connect("127.0.0.1", rudeness.port, executor);
    Connection connection;
    connection.stream = stream.get();
    connection.wire = std::make_unique<WireConnection>(std::move(stream), system.clock);
    NoiseHandshake handshake(NoiseRole::initiator, key.clone(), asBytes(kOrlinthPrologue));
    co_await exchangeAsInitiator(*connection.wire, handshake);
    connection.framer = std::make_unique<TransportFramer>(std::move(handshake).finalize());
    co_return connection;
}

Task<> say(Connection& connection, TransportMessage message) {
    const Bytes body = connection.framer->encodeJSON(message);
    co_await connection.wire->sendLengthPrefixed(body);
}

/// So much of the beginning of a frame of 16 MiB, as fast as it is taken.
Task<> sendHalf(Connection& connection, std::int64_t bytes) {
    Bytes frame(static_cast<std::size_t>(4 + bytes), std::byte{'x'});
    frame[0] = std::byte{1};
    frame[1] = frame[2] = frame[3] = std::byte{0};
    constexpr std::size_t piece = 64 << 10;
    ByteView rest = frame;
    while (!rest.empty()) {
        const ByteView next = rest.first(std::min(piece, rest.size()));
        co_await connection.stream->writeAll(next);
        rest = rest.subspan(next.size());
    }
}

Task<> beRude(platform::System system, Rudeness rudeness, std::vector<Connection>& open) {
    const platform::PrivateKey key = KeyVault(system.files, system.directories).loadOrCreate();
    const Executor executor = co_await asio::this_coro::executor;
    const bool isOneConnection = rudeness.what == "tokens" || rudeness.what == "greedy";
    for (std::int64_t i = 1; i <= rudeness.count; ++i) {
        if (i == 1 || !isOneConnection) {
            Connection fresh = co_await connect(system, rudeness, key);
            open.push_back(std::move(fresh));
        }
        Connection& connection = open.back();
        const std::string number = std::to_string(i);
        if (rudeness.what == "halves") {
            platform::spawn(executor, sendHalf(connection, rudeness.bytes), [](std::exception_ptr) {
                // the other side may have had enough
            });
        } else if (rudeness.what == "tokens") {
            co_await say(connection, TransportMessage::tokenUpdate("token " + number));
            if (i == rudeness.count) { // all are read when the other side closes
                constexpr Seconds patience = 60s;
                static_cast<void>(co_await connection.wire->closeAfterFarewell(patience));
            }
        } else if (rudeness.what == "names") {
            co_await say(connection, TransportMessage::setName("name " + number));
            static_cast<void>(co_await connection.wire->closeAfterFarewell(5s));
            open.pop_back();
        } else if (rudeness.what == "texts") {
            const std::string text = number + " " + std::string(static_cast<std::size_t>(rudeness.bytes), 'x');
            co_await say(connection, TransportMessage::clipboard(text, "text/plain"));
            static_cast<void>(co_await connection.wire->closeAfterFarewell(5s));
            open.pop_back();
        } else if (rudeness.what == "greedy") {
            co_await say(connection,
                         TransportMessage::fileOffer("greedy.bin", rudeness.count, "text/plain", "ID-greedy"));
            static_cast<void>(co_await connection.wire->receiveLengthPrefixed()); // the answer
            constexpr std::int64_t piece = 1 << 20;
            for (std::int64_t sent = 0; sent < rudeness.bytes; sent += piece) {
                const Bytes body = connection.framer->encodeBinary(Bytes(static_cast<std::size_t>(piece)));
                co_await connection.wire->sendLengthPrefixed(body);
            }
            co_return;
        }
    }
}

/// Until nothing more arrives at the other side.
Task<> settle(platform::Clock& clock) {
    constexpr Seconds time = 2s;
    co_await clock.sleep(time);
}

Task<> run(platform::System system, Rudeness rudeness, std::vector<Connection>& open) {
    co_await beRude(system, std::move(rudeness), open);
    co_await settle(system.clock);
}

int runProgram(const std::vector<std::string>& arguments) {
    if (arguments.size() < 4) {
        throw std::invalid_argument("rude_phone PORT COMPUTER_KEY WHAT COUNT [BYTES]");
    }
    const auto computer = platform::PublicKey::fromBase64(arguments[1]);
    if (!computer) {
        throw std::invalid_argument("this is no key");
    }
    const Rudeness rudeness{.port = static_cast<std::uint16_t>(std::stoi(arguments[0])),
                            .computer = *computer,
                            .what = arguments[2],
                            .count = std::stoll(arguments[3]),
                            .bytes = arguments.size() > 4 ? std::stoll(arguments[4]) : 0};
    asio::io_context context(1);
    platform::LinuxSystem linux(context);
    std::vector<Connection> open;
    open.reserve(static_cast<std::size_t>(rudeness.count)); // others refer to them
    std::exception_ptr failure;
    bool hasEnded = false;
    platform::spawn(context.get_executor(), run(linux.system(), rudeness, open), [&](std::exception_ptr error) {
        failure = std::move(error);
        hasEnded = true;
    });
    while (!hasEnded) {
        context.run_one();
    }
    std::int64_t count = 0;
    for (const Connection& connection : open) {
        count += connection.wire->hasEnded() ? 0 : 1;
    }
    Json ready{{"event", "ready"}, {"open", count}};
    if (failure) {
        ready["failure"] = describe(failure);
    }
    std::puts(compactJson(ready).c_str());
    std::fflush(stdout);
    while (std::cin.get() != std::char_traits<char>::eof()) {
    }
    for (const Connection& connection : open) {
        connection.wire->close();
    }
    context.restart();
    context.run();
    return 0;
}

} // namespace

int main(int count, char** values) {
    try {
        return runProgram(std::vector<std::string>(values + 1, values + count));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "rude_phone: %s\n", describe(error).c_str());
        return 1;
    }
}
