// Arbitrary bytes as the one frame of a pairing connection, and as its payload.

#include "FuzzSupport.h"
#include "OrlinthCore/Pairing/PairWire.h"

using namespace orlinth;
using namespace orlinth::fuzzing;

namespace {

using Case = PairWire::Error::Case;

/// The length that four bytes announce, computed in a way of its own.
std::size_t announcedBy(ByteView frame) {
    std::size_t length = 0;
    for (const std::byte byte : frame.first(4)) {
        length = length * 256 + std::to_integer<std::size_t>(byte);
    }
    return length;
}

void readAsFrame(ByteView frame) {
    try {
        const std::size_t length = PairWire::parseLengthPrefix(frame);
        demand(frame.size() >= 4 && length == announcedBy(frame), "the length is what the prefix says");
        demand(length <= PairWire::maxFrameBytes, "no frame is larger than the largest");
        demand(PairWire::parseLengthPrefix(frame.first(4)) == length, "only the prefix is looked at");
        if (const ByteView rest = frame.subspan(4); rest.size() >= length) {
            const Bytes again = PairWire::encodeFrame(rest.first(length));
            demand(again == toBytes(frame.first(4 + length)), "what decodes encodes back");
        }
    } catch (const PairWire::Error& error) {
        if (error.which() == Case::frameTooShort) {
            demand(frame.size() < 4, "only a cut prefix is too short");
        } else {
            demand(frame.size() >= 4 && announcedBy(frame) > PairWire::maxFrameBytes, "only a long frame is too large");
        }
    }
}

void writeAsPayload(ByteView payload) {
    try {
        const Bytes frame = PairWire::encodeFrame(payload);
        demand(frame.size() == 4 + payload.size(), "a frame is its prefix and its payload");
        demand(PairWire::parseLengthPrefix(frame) == payload.size(), "what was encoded decodes");
        demand(toBytes(ByteView(frame).subspan(4)) == toBytes(payload), "the payload is left alone");
    } catch (const PairWire::Error& error) {
        demand(error.which() == Case::frameTooLarge && payload.size() > PairWire::maxFrameBytes,
               "only a long payload is too large");
    }
}

} // namespace

// Input: how many kilobytes of filler follow | the frame, or the payload.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const std::size_t filler = input.byte() * 1024;
    Bytes bytes = toBytes(input.rest());
    bytes.resize(bytes.size() + filler, std::byte{0x61});
    readAsFrame(bytes);
    writeAsPayload(bytes);
    return 0;
}
