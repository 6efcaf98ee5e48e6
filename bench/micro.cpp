// What the pieces of a transfer cost, each beside what it is built on: the difference is ours.

#include "OrlinthCore/SecureChannel/HandshakeExchange.h"
#include "OrlinthCore/SecureChannel/NoiseXX.h"
#include "OrlinthCore/SecureChannel/TransportFrame.h"
#include "OrlinthCore/SecureChannel/WireConnection.h"
#include "base/Base64.h"
#include "platform/Spawn.h"

#include <asio/io_context.hpp>
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

namespace {

using namespace orlinth;

constexpr std::size_t chunkBytes = std::size_t{1} << 20;
constexpr std::size_t tagBytes = CipherState::tagBytes;

void countChunks(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(chunkBytes));
}

// --- Bare EVP: the yardstick for sealing and opening ---

/// ChaCha20-Poly1305 with a counter nonce and no code of ours.
class BareCipher {
public:
    explicit BareCipher(bool sealing) : sealing_(sealing) {
        const std::array<unsigned char, 32> key{};
        check(EVP_CipherInit_ex(context_.get(), EVP_chacha20_poly1305(), nullptr, key.data(), nullptr, sealing));
    }

    void seal(unsigned char* data, std::size_t length, std::uint64_t counter) {
        transform(data, length, counter);
        finish();
        check(EVP_CIPHER_CTX_ctrl(context_.get(), EVP_CTRL_AEAD_GET_TAG, tagBytes, data + length));
    }

    void open(unsigned char* data, std::size_t length, std::uint64_t counter) {
        check(EVP_CIPHER_CTX_ctrl(context_.get(), EVP_CTRL_AEAD_SET_TAG, tagBytes, data + length));
        transform(data, length, counter);
        finish();
    }

private:
    struct Free {
        void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
    };

    static void check(int result) {
        if (result <= 0) {
            throw std::runtime_error("the cipher refused");
        }
    }

    void transform(unsigned char* data, std::size_t length, std::uint64_t counter) {
        std::array<unsigned char, 12> nonce{};
        std::memcpy(nonce.data() + 4, &counter, sizeof counter);
        int count = 0;
        check(EVP_CipherInit_ex(context_.get(), nullptr, nullptr, nullptr, nonce.data(), sealing_));
        check(EVP_CipherUpdate(context_.get(), data, &count, data, static_cast<int>(length)));
    }

    void finish() {
        unsigned char none = 0;
        int count = 0;
        check(EVP_CipherFinal_ex(context_.get(), &none, &count));
    }

    std::unique_ptr<EVP_CIPHER_CTX, Free> context_{EVP_CIPHER_CTX_new()};
    int sealing_;
};

unsigned char* octets(MutableBytes bytes) {
    return reinterpret_cast<unsigned char*>(bytes.data());
}

/// A frame's memory, the size of a frame of file data.
FrameBuffer frameOfZeros() {
    FrameBuffer buffer;
    const MutableBytes payload = TransportFramer::binaryPayload(buffer, chunkBytes);
    std::memset(payload.data(), 0, payload.size());
    buffer.resizeBody(chunkBytes + TransportFramer::overheadBytes);
    return buffer;
}

void sealBareEvp(benchmark::State& state) {
    BareCipher cipher(true);
    FrameBuffer buffer = frameOfZeros();
    std::uint64_t counter = 0;
    for ([[maybe_unused]] auto _ : state) {
        cipher.seal(octets(buffer.body()), chunkBytes + 1, counter++);
        benchmark::ClobberMemory();
    }
    countChunks(state);
}
BENCHMARK(sealBareEvp);

/// Opening what was sealed needs the sealed bytes afresh each time; untimed pauses being dearer, each opening copies
/// them out of one of so many frames in turn.
constexpr std::size_t framesInTurn = 16;

std::vector<FrameBuffer> framesOfZeros() {
    std::vector<FrameBuffer> frames;
    for (std::size_t i = 0; i < framesInTurn; ++i) {
        frames.push_back(frameOfZeros());
    }
    return frames;
}

/// The copy alone, to be subtracted from both openings.
void copyOneFrame(benchmark::State& state) {
    const std::vector<FrameBuffer> frames = framesOfZeros();
    FrameBuffer buffer = frameOfZeros();
    std::size_t next = 0;
    for ([[maybe_unused]] auto _ : state) {
        std::memcpy(buffer.body().data(), frames[next++ % framesInTurn].body().data(), buffer.body().size());
        benchmark::ClobberMemory();
    }
    countChunks(state);
}
BENCHMARK(copyOneFrame);

void openBareEvp(benchmark::State& state) {
    std::vector<FrameBuffer> frames = framesOfZeros();
    BareCipher sealer(true);
    for (std::size_t i = 0; i < framesInTurn; ++i) {
        sealer.seal(octets(frames[i].body()), chunkBytes + 1, i);
    }
    BareCipher cipher(false);
    FrameBuffer buffer = frameOfZeros();
    std::size_t next = 0;
    for ([[maybe_unused]] auto _ : state) {
        std::memcpy(buffer.body().data(), frames[next].body().data(), buffer.body().size());
        cipher.open(octets(buffer.body()), chunkBytes + 1, next);
        benchmark::ClobberMemory();
        next = (next + 1) % framesInTurn;
    }
    countChunks(state);
}
BENCHMARK(openBareEvp);

// --- Handshake ---

struct Keys {
    platform::PrivateKey computer = platform::PrivateKey::generate();
    platform::PrivateKey phone = platform::PrivateKey::generate();
};

struct Sessions {
    NoiseTransport initiator;
    NoiseTransport responder;
};

Sessions shakeHands(const Keys& keys) {
    const ByteView prologue = asBytes(kOrlinthPrologue);
    NoiseHandshake initiator(NoiseRole::initiator, keys.computer.clone(), prologue);
    NoiseHandshake responder(NoiseRole::responder, keys.phone.clone(), prologue);
    static_cast<void>(responder.readMessage(initiator.writeMessage({})));
    static_cast<void>(initiator.readMessage(responder.writeMessage({})));
    static_cast<void>(responder.readMessage(initiator.writeMessage({})));
    return {.initiator = std::move(initiator).finalize(), .responder = std::move(responder).finalize()};
}

/// All three messages, both sides.
void handshake(benchmark::State& state) {
    const Keys keys;
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(shakeHands(keys).initiator.handshakeHash().data());
    }
    state.counters["handshakes"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(handshake)->Unit(benchmark::kMicrosecond);

/// What a handshake cannot do without: two fresh keys, and three agreements a side.
void handshakeKeysAlone(benchmark::State& state) {
    const Keys keys;
    for ([[maybe_unused]] auto _ : state) {
        const Keys ephemeral;
        for (const platform::PrivateKey* own : {&ephemeral.computer, &keys.computer, &ephemeral.computer}) {
            benchmark::DoNotOptimize(own->agree(ephemeral.phone.publicKey()));
        }
        for (const platform::PrivateKey* own : {&ephemeral.phone, &keys.phone, &ephemeral.phone}) {
            benchmark::DoNotOptimize(own->agree(ephemeral.computer.publicKey()));
        }
    }
}
BENCHMARK(handshakeKeysAlone)->Unit(benchmark::kMicrosecond);

// --- Frames ---

void sealFrame(benchmark::State& state) {
    TransportFramer framer(shakeHands(Keys()).initiator);
    FrameBuffer buffer = frameOfZeros();
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(TransportFramer::binaryPayload(buffer, chunkBytes).data());
        framer.sealBinary(buffer, chunkBytes);
        benchmark::ClobberMemory();
    }
    countChunks(state);
}
BENCHMARK(sealFrame);

/// Frames open in the order they were sealed, so a session opens its frames once; sessions and frames are made while
/// the clock stands.
void openFrame(benchmark::State& state) {
    std::vector<FrameBuffer> frames = framesOfZeros();
    FrameBuffer buffer = frameOfZeros();
    std::optional<TransportFramer> receiver;
    std::size_t next = framesInTurn;
    for ([[maybe_unused]] auto _ : state) {
        if (next == framesInTurn) {
            state.PauseTiming();
            Sessions sessions = shakeHands(Keys());
            TransportFramer sender(std::move(sessions.initiator));
            receiver.emplace(std::move(sessions.responder));
            for (FrameBuffer& frame : frames) {
                static_cast<void>(TransportFramer::binaryPayload(frame, chunkBytes));
                sender.sealBinary(frame, chunkBytes);
            }
            next = 0;
            state.ResumeTiming();
        }
        std::memcpy(buffer.body().data(), frames[next].body().data(), buffer.body().size());
        const FrameView opened = receiver->decodeInPlace(buffer.body());
        benchmark::DoNotOptimize(&opened);
        ++next;
    }
    countChunks(state);
}
BENCHMARK(openFrame);

void sealAndOpenOffer(benchmark::State& state) {
    Sessions sessions = shakeHands(Keys());
    TransportFramer sender(std::move(sessions.initiator));
    TransportFramer receiver(std::move(sessions.responder));
    const TransportMessage offer = TransportMessage::fileOffer("Holiday pictures.zip", 1'073'741'824, "application/zip",
                                                               "7D0F9C1A-53B1-4A0C-9B56-0E7B7B7C2F11");
    for ([[maybe_unused]] auto _ : state) {
        const Bytes sealed = sender.encodeJSON(offer);
        benchmark::DoNotOptimize(receiver.decode(sealed));
    }
}
BENCHMARK(sealAndOpenOffer);

void base64OfOneKey(benchmark::State& state) {
    const platform::PublicKey key = platform::PrivateKey::generate().publicKey();
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(base64Decode(base64Encode(key.raw())));
    }
}
BENCHMARK(base64OfOneKey);

// --- Wire ---

/// A stream that swallows what is written and plays one frame for ever. Never waits.
class LoopedStream : public platform::Stream {
public:
    LoopedStream(Executor executor, ByteView frame) : executor_(std::move(executor)), frame_(toBytes(frame)) {}

    [[nodiscard]] Task<> writeAll(ByteView data) override {
        benchmark::DoNotOptimize(data.data());
        co_return;
    }
    [[nodiscard]] Task<std::size_t> readExact(MutableBytes into) override {
        for (std::size_t filled = 0; filled < into.size();) {
            const std::size_t count = std::min(into.size() - filled, frame_.size() - position_);
            std::memcpy(into.data() + filled, frame_.data() + position_, count);
            filled += count;
            position_ = (position_ + count) % frame_.size();
        }
        co_return into.size();
    }
    void finishWriting() noexcept override {}
    void cancel() noexcept override {}
    [[nodiscard]] Executor executor() const override { return executor_; }
    [[nodiscard]] std::string remoteEndpoint() const override { return "memory"; }
    [[nodiscard]] std::string localAddress() const override { return "memory"; }

private:
    Executor executor_;
    Bytes frame_;
    std::size_t position_ = 0;
};

/// Timers are asked for only by connections with an idle time-out.
class NoClock : public platform::Clock {
public:
    [[nodiscard]] EpochMilliseconds epochMilliseconds() const override { return {}; }
    [[nodiscard]] Instant now() const override { return {}; }
    [[nodiscard]] Task<> sleep(Seconds) override { throw std::logic_error("no clock"); }
    [[nodiscard]] std::unique_ptr<platform::Timer> makeTimer(Executor) override { throw std::logic_error("no clock"); }
};

Task<> sendFrames(benchmark::State& state, WireConnection& wire, FrameBuffer& buffer) {
    for ([[maybe_unused]] auto _ : state) {
        co_await wire.sendFrame(buffer);
    }
}

Task<> receiveFrames(benchmark::State& state, WireConnection& wire, FrameBuffer& buffer) {
    for ([[maybe_unused]] auto _ : state) {
        co_await wire.receiveFrame(buffer);
    }
}

using FrameLoop = Task<> (*)(benchmark::State&, WireConnection&, FrameBuffer&);

/// The argument is the size of the body. Receiving counts one copy out of the stream's memory.
void runFrames(benchmark::State& state, FrameLoop loop) {
    FrameBuffer buffer;
    buffer.resizeBody(static_cast<std::size_t>(state.range(0)));
    std::memset(buffer.body().data(), 0, buffer.body().size());
    asio::io_context context(1);
    NoClock clock;
    WireConnection wire(std::make_unique<LoopedStream>(context.get_executor(), buffer.frame()), clock);
    std::exception_ptr failure;
    platform::spawn(context.get_executor(), loop(state, wire, buffer),
                    [&failure](const std::exception_ptr& error) { failure = error; });
    context.run();
    if (failure) {
        std::rethrow_exception(failure);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

void wireSend(benchmark::State& state) {
    runFrames(state, sendFrames);
}
BENCHMARK(wireSend)->Arg(64)->Arg(chunkBytes);

void wireReceive(benchmark::State& state) {
    runFrames(state, receiveFrames);
}
BENCHMARK(wireReceive)->Arg(64)->Arg(chunkBytes);

} // namespace

BENCHMARK_MAIN();
