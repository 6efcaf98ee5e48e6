// The yardstick for many small files in bench/many: their handshakes and messages, and nothing else.
//
//     handshakes receive LANES FOLDER COUNT      prints its port, takes so many files, ends with the last one
//     handshakes send LANES PORT FILE...
//
// Every file has a connection of its own, as `orlinth send` makes it: the same handshake, the same offer and answer,
// one frame of data, the same end. So many connections at once, one thread for each; blocking calls, files read and
// written where they are. There is no event loop, no journal, no partial file and no flush: what `orlinth` takes beyond
// this goes into those.

#include "OrlinthCore/SecureChannel/FrameBuffer.h"
#include "OrlinthCore/SecureChannel/HandshakeExchange.h"
#include "OrlinthCore/SecureChannel/TransportFrame.h"
#include "bench/BlockingIo.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace {

using namespace bench;
using namespace orlinth;

/// Frames over a blocking socket: 4-byte big-endian length, then the body.
class Frames {
public:
    explicit Frames(Descriptor connection) : connection_(std::move(connection)) {}

    void send(ByteView body) {
        buffer_.resizeBody(body.size());
        std::memcpy(buffer_.body().data(), body.data(), body.size());
        send(buffer_);
    }
    void send(FrameBuffer& buffer) {
        const ByteView frame = buffer.frame();
        sendAll(connection_, frame.data(), frame.size());
    }
    /// The next body; valid until the next call. Empty at the end of the stream.
    MutableBytes receive() {
        std::uint32_t prefix = 0;
        if (!readExact(connection_, &prefix, sizeof prefix)) {
            return {};
        }
        const std::size_t length = ntohl(prefix);
        if (length > TransportFramer::maxPlaintextBytes + TransportFramer::overheadBytes) {
            throw std::runtime_error("receive: the frame is too large");
        }
        buffer_.resizeBody(length);
        if (!readExact(connection_, buffer_.body().data(), length)) {
            throw std::runtime_error("receive: the stream ended within a frame");
        }
        return buffer_.body();
    }

private:
    Descriptor connection_;
    FrameBuffer buffer_;
};

TransportFramer greet(Frames& frames, NoiseRole role, const platform::PrivateKey& key) {
    NoiseHandshake handshake(role, key.clone(), asBytes(kOrlinthPrologue));
    bool writing = role == NoiseRole::initiator;
    while (!handshake.isComplete()) {
        if (writing) {
            frames.send(handshake.writeMessage({}));
        } else {
            static_cast<void>(handshake.readMessage(frames.receive()));
        }
        writing = !writing;
    }
    return TransportFramer(std::move(handshake).finalize());
}

template <typename Row>
Row expect(Frames& frames, TransportFramer& framer) {
    const FrameView frame = framer.decodeInPlace(frames.receive());
    const auto* const message = std::get_if<TransportMessage>(&frame);
    if (message == nullptr || message->as<Row>() == nullptr) {
        throw std::runtime_error("another message was expected");
    }
    return *message->as<Row>();
}

void sendFile(const std::string& path, std::uint16_t port, const platform::PrivateKey& key, FrameBuffer& buffer) {
    const Descriptor file(checkSystem(open(path.c_str(), O_RDONLY | O_CLOEXEC), "open"));
    struct stat status{};
    checkSystem(fstat(file.get(), &status), "fstat");
    const auto size = static_cast<std::size_t>(status.st_size);

    Frames frames(connectToLoopback(port));
    TransportFramer framer = greet(frames, NoiseRole::initiator, key);
    const std::string name = path.substr(path.rfind('/') + 1);
    frames.send(framer.encodeJSON(TransportMessage::fileOffer(name, status.st_size, "application/octet-stream",
                                                              "0f3a3a44-7d5c-4d50-8f4e-6d2f6f9d7a11")));
    static_cast<void>(expect<TransportMessage::Resume>(frames, framer));
    const MutableBytes payload = TransportFramer::binaryPayload(buffer, size);
    if (checkSystem(read(file.get(), payload.data(), size), "read") != status.st_size) {
        throw std::runtime_error("the file has changed: " + path);
    }
    framer.sealBinary(buffer, size);
    frames.send(buffer);
    frames.send(framer.encodeJSON(TransportMessage::done()));
    static_cast<void>(frames.receive()); // until the other side has closed
}

void receiveFile(const Descriptor& listener, const std::string& folder, const platform::PrivateKey& key) {
    Frames frames(acceptFrom(listener));
    TransportFramer framer = greet(frames, NoiseRole::responder, key);
    const auto offer = expect<TransportMessage::FileOffer>(frames, framer);
    frames.send(framer.encodeJSON(TransportMessage::resume(offer.transfer_id, ByteOffset(0))));
    const std::string path = folder + "/" + offer.name;
    const Descriptor file(checkSystem(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666), "create"));
    const FrameView data = framer.decodeInPlace(frames.receive());
    const auto& bytes = std::get<MutableBytes>(data);
    writeAll(file, bytes.data(), bytes.size());
    static_cast<void>(expect<TransportMessage::Done>(frames, framer));
}

/// Calls `work(number, buffer)` for every number below `count`, on so many threads.
template <typename Work>
void shareOut(int lanes, int count, const Work& work) {
    std::atomic<int> next = 0;
    std::vector<std::jthread> threads; // last: their end is waited for
    for (int lane = 0; lane < lanes; ++lane) {
        threads.emplace_back([&] {
            try {
                FrameBuffer buffer;
                for (int number = next++; number < count; number = next++) {
                    work(number, buffer);
                }
            } catch (const std::exception& error) {
                std::fprintf(stderr, "handshakes: %s\n", error.what());
                std::_Exit(1); // other lanes may wait for what never comes
            }
        });
    }
}

void run(const std::vector<std::string>& words) {
    const platform::PrivateKey key = platform::PrivateKey::generate();
    if (words.size() == 4 && words[0] == "receive") {
        const int lanes = numberFrom(words[1]);
        const Descriptor listener = listenOnLoopback(lanes);
        shareOut(lanes, numberFrom(words[3]), [&](int, FrameBuffer&) { receiveFile(listener, words[2], key); });
    } else if (words.size() > 3 && words[0] == "send") {
        const auto port = static_cast<std::uint16_t>(numberFrom(words[2]));
        shareOut(numberFrom(words[1]), static_cast<int>(words.size()) - 3, [&](int number, FrameBuffer& buffer) {
            sendFile(words[static_cast<std::size_t>(number) + 3], port, key, buffer);
        });
    } else {
        throw std::invalid_argument("usage: handshakes receive LANES FOLDER COUNT | send LANES PORT FILE...");
    }
}

} // namespace

int main(int argc, char** argv) {
    try {
        run({argv + 1, argv + argc});
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "handshakes: %s\n", error.what());
        return 1;
    }
}
