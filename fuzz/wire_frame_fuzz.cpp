// Arbitrary bytes as incoming frames: the outcome is that of a simple model, and memory follows the bytes that came.
//
// Input: how the stream ends | limit (2 bytes) | kilobytes of filler behind the rest | the stream.

#include "FuzzSupport.h"
#include "OrlinthCore/SecureChannel/WireConnection.h"
#include "base/Endian.h"

#include <variant>

using namespace orlinth;
using namespace orlinth::fuzzing;

namespace {

using Case = WireConnection::Error::Case;
using Outcome = std::variant<Bytes, Case>;

/// What has to come of the stream's next frame; moves `cursor` behind it.
Outcome expectedFrame(const PlaybackStream::State& state, std::size_t& cursor, std::size_t limit) {
    const Case cutOff = state.breaks ? Case::underlying : Case::eof;
    const ByteView rest = ByteView(state.incoming).subspan(cursor);
    if (rest.size() < 4) {
        return cutOff;
    }
    const std::size_t length = loadBigEndian32(rest.first<4>());
    if (length > limit) {
        return Case::oversize;
    }
    if (length > rest.size() - 4) {
        return cutOff;
    }
    cursor += 4 + length;
    return toBytes(rest.subspan(4, length));
}

Task<> receive(WireConnection& wire, FrameBuffer& buffer, std::size_t limit, Outcome& outcome) {
    try {
        co_await wire.receiveFrame(buffer, limit);
        outcome = toBytes(buffer.body());
    } catch (const WireConnection::Error& error) {
        outcome = error.which();
    }
}

Task<> receiveCopy(WireConnection& wire, Outcome& outcome) {
    try {
        outcome = co_await wire.receiveLengthPrefixed();
    } catch (const WireConnection::Error& error) {
        outcome = error.which();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const std::size_t mode = input.byte();
    const std::size_t chosen = input.twoBytes();
    const std::size_t limit = chosen == 0 ? WireConnection::maxFrameBytes : chosen * 16;
    const std::size_t filler = input.byte() * 4096;
    PlaybackStream::State state;
    state.incoming = toBytes(input.rest());
    state.incoming.resize(state.incoming.size() + filler, std::byte{0});
    state.breaks = (mode & 1) != 0;

    asio::io_context context;
    NoClock clock;
    WireConnection wire(std::make_unique<PlaybackStream>(context.get_executor(), state), clock);
    FrameBuffer buffer;
    state.beforeRead = [&] {
        demand(buffer.bodyCapacity() <= 2 * state.consumed + 65'536, "memory follows what has arrived");
    };
    std::size_t cursor = 0;
    for (int frames = 0; frames < 64; ++frames) {
        Outcome outcome;
        const bool copying = (mode & 2) != 0;
        const Outcome expected = expectedFrame(state, cursor, copying ? WireConnection::maxFrameBytes : limit);
        run(context, copying ? receiveCopy(wire, outcome) : receive(wire, buffer, limit, outcome));
        demand(outcome == expected, "the frame is the model's");
        if (std::holds_alternative<Case>(outcome)) {
            break;
        }
        demand(state.consumed == cursor, "exactly the frame was read");
    }
    return 0;
}
