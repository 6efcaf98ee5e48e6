// Two parties after their handshake: one sends arbitrary messages, at most one byte of the stream is damaged on its
// way. The other receives every frame before the damage, in order, and then exactly one error.
//
// Input: place of the damage (2 bytes) | what is flipped there (0: nothing) | messages: kind, length (2 bytes), bytes.

#include "FuzzSupport.h"
#include "OrlinthCore/SecureChannel/TransportFrame.h"
#include "OrlinthCore/SecureChannel/WireConnection.h"
#include "base/Text.h"

#include <array>

using namespace orlinth;
using namespace orlinth::fuzzing;

namespace {

NoiseTransport session(bool sending) {
    const SecretBytes key(Bytes(32, std::byte{1}));
    const platform::PublicKey nobody(std::array<std::byte, 32>{});
    return sending ? NoiseTransport({}, nobody, CipherState(key), CipherState())
                   : NoiseTransport({}, nobody, CipherState(), CipherState(key));
}

/// How long they are each is transport_frame_fuzz's business; here it is how they follow each other.
std::vector<DecodedFrame> messagesOf(Input& input) {
    constexpr std::size_t mostMessages = 40;
    constexpr std::size_t mostBytes = 64 << 10;
    std::vector<DecodedFrame> messages;
    std::size_t total = 0;
    while (!input.empty() && messages.size() < mostMessages && total < mostBytes) {
        const std::size_t kind = input.byte();
        const std::size_t length = input.twoBytes();
        const ByteView bytes = input.bytes(length);
        const std::string text = toUtf8(toText(bytes));
        total += text.size();
        switch (kind % 8) {
        case 0:
            messages.emplace_back(TransportMessage::fileOffer(text, static_cast<std::int64_t>(length), text, text));
            break;
        case 1:
            messages.emplace_back(TransportMessage::resume(text, ByteOffset(-static_cast<std::int64_t>(length))));
            break;
        case 2:
            messages.emplace_back(TransportMessage::clipboard(text, "text/plain"));
            break;
        case 3:
            messages.emplace_back(TransportMessage::done());
            break;
        case 4:
            messages.emplace_back(Bytes(length * 4, static_cast<std::byte>(kind)));
            break;
        default:
            messages.emplace_back(toBytes(bytes));
            break;
        }
    }
    return messages;
}

Task<> sendAll(WireConnection& wire, const std::vector<DecodedFrame>& messages, PlaybackStream::State& state,
               std::vector<std::size_t>& ends) {
    TransportFramer framer(session(true));
    FrameBuffer buffer;
    for (const DecodedFrame& message : messages) {
        if (const auto* json = std::get_if<TransportMessage>(&message)) {
            const Bytes body = framer.encodeJSON(*json);
            co_await wire.sendLengthPrefixed(body);
        } else {
            const Bytes& data = std::get<Bytes>(message);
            std::ranges::copy(data, TransportFramer::binaryPayload(buffer, data.size()).begin());
            framer.sealBinary(buffer, data.size());
            co_await wire.sendFrame(buffer);
        }
        ends.push_back(state.sent.size());
    }
}

Task<> receiveAll(WireConnection& wire, std::vector<DecodedFrame>& received, bool& cleanEnd, std::size_t& consumed,
                  const PlaybackStream::State& state) {
    TransportFramer framer(session(false));
    FrameBuffer buffer;
    try {
        for (;;) {
            consumed = state.consumed;
            co_await wire.receiveFrame(buffer);
            const FrameView frame = framer.decodeInPlace(buffer.body());
            if (const auto* message = std::get_if<TransportMessage>(&frame)) {
                received.emplace_back(*message);
            } else {
                received.emplace_back(toBytes(std::get<MutableBytes>(frame)));
            }
        }
    } catch (const WireConnection::Error& error) {
        cleanEnd = error.which() == WireConnection::Error::Case::eof && consumed == state.incoming.size();
    } catch (const TransportFramer::Error&) {
        cleanEnd = false;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const std::size_t place = input.twoBytes();
    const std::size_t flip = input.byte();
    const std::vector<DecodedFrame> messages = messagesOf(input);

    asio::io_context context;
    NoClock clock;
    PlaybackStream::State sending;
    std::vector<std::size_t> ends;
    WireConnection sender(std::make_unique<PlaybackStream>(context.get_executor(), sending), clock);
    run(context, sendAll(sender, messages, sending, ends));

    PlaybackStream::State receiving;
    receiving.incoming = sending.sent;
    std::size_t intact = messages.size();
    if (flip != 0 && !receiving.incoming.empty()) {
        const std::size_t at = place % receiving.incoming.size();
        receiving.incoming[at] ^= static_cast<std::byte>(flip);
        intact = static_cast<std::size_t>(std::ranges::upper_bound(ends, at) - ends.begin());
    }
    std::vector<DecodedFrame> received;
    bool cleanEnd = false;
    std::size_t consumed = 0;
    WireConnection receiver(std::make_unique<PlaybackStream>(context.get_executor(), receiving), clock);
    run(context, receiveAll(receiver, received, cleanEnd, consumed, receiving));

    demand(received.size() == intact, "every frame before the damage arrives, and none after it");
    demand(std::equal(received.begin(), received.end(), messages.begin()), "frames arrive in order and unchanged");
    demand(cleanEnd == (intact == messages.size()), "damage is noticed, and nothing else is");
    return 0;
}
