#include "platform/linux/WaylandRegistry.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace orlinth::platform {
namespace {

/// The display is object 1 by definition; the other numbers are ours to give.
constexpr std::uint32_t displayObject = 1;
constexpr std::uint32_t registryObject = 2;
constexpr std::uint32_t callbackObject = 3;

constexpr std::uint32_t syncRequest = 0;        // of wl_display
constexpr std::uint32_t getRegistryRequest = 1; // of wl_display
constexpr std::uint32_t errorEvent = 0;         // of wl_display
constexpr std::uint32_t globalEvent = 0;        // of wl_registry
constexpr std::uint32_t globalRemoveEvent = 1;  // of wl_registry
constexpr std::uint32_t doneEvent = 0;          // of wl_callback

constexpr std::size_t wordBytes = sizeof(std::uint32_t);
constexpr std::size_t headerBytes = 2 * wordBytes; // object; size of the whole message and number of the event
constexpr unsigned sizeShift = 16;
constexpr std::uint32_t eventMask = 0xFFFF;

/// The compositor says what makes no sense.
struct Nonsense {};

std::uint32_t wordAt(ByteView bytes, std::size_t place) noexcept {
    std::uint32_t word = 0;
    std::memcpy(&word, bytes.data() + place, sizeof word);
    return word;
}

std::uint32_t takeWord(ByteView& bytes) {
    if (bytes.size() < wordBytes) {
        throw Nonsense();
    }
    const std::uint32_t word = wordAt(bytes, 0);
    bytes = bytes.subspan(wordBytes);
    return word;
}

/// Its length with the zero byte at its end, the text, and zeros up to a whole word.
std::string takeString(ByteView& bytes) {
    const std::uint32_t size = takeWord(bytes);
    if (size == 0 || size > bytes.size()) {
        throw Nonsense();
    }
    const std::size_t padded = (std::size_t{size} + wordBytes - 1) / wordBytes * wordBytes;
    if (padded > bytes.size() || bytes[size - 1] != std::byte{0}) {
        throw Nonsense();
    }
    std::string text = toText(bytes.first(size - 1));
    if (text.find('\0') != std::string::npos) {
        throw Nonsense();
    }
    bytes = bytes.subspan(padded);
    return text;
}

void appendRequest(Bytes& bytes, std::uint32_t number, std::uint32_t newObject) {
    constexpr std::uint32_t size = headerBytes + wordBytes;
    for (const std::uint32_t word : {displayObject, size << sizeShift | number, newObject}) {
        const auto raw = std::as_bytes(std::span(&word, 1));
        bytes.insert(bytes.end(), raw.begin(), raw.end());
    }
}

} // namespace

Bytes WaylandRegistry::request() {
    Bytes bytes;
    appendRequest(bytes, getRegistryRequest, registryObject);
    appendRequest(bytes, syncRequest, callbackObject);
    return bytes;
}

WaylandRegistry::State WaylandRegistry::take(ByteView bytes) {
    // a piece at a time, so that little is kept however much comes at once
    while (state_ == State::listing && !bytes.empty()) {
        const ByteView piece = bytes.first(std::min({bytes.size(), maxMessageBytes, maxBytes - bytes_}));
        bytes = bytes.subspan(piece.size());
        bytes_ += piece.size();
        unread_.insert(unread_.end(), piece.begin(), piece.end());
        try {
            if (piece.empty()) {
                throw Nonsense(); // too much of it
            }
            takeMessages();
        } catch (const Nonsense&) {
            state_ = State::failed;
        }
    }
    return state_;
}

std::set<std::string> WaylandRegistry::interfaces() const {
    std::set<std::string> names;
    for (const Global& global : globals_) {
        names.insert(global.interface);
    }
    return names;
}

void WaylandRegistry::takeMessages() {
    ByteView rest = unread_;
    while (state_ == State::listing && rest.size() >= headerBytes) {
        const std::uint32_t object = wordAt(rest, 0);
        const std::uint32_t word = wordAt(rest, wordBytes);
        const std::size_t size = word >> sizeShift;
        if (size < headerBytes || size % wordBytes != 0 || size > maxMessageBytes) {
            throw Nonsense();
        }
        if (rest.size() < size) {
            break; // the rest of it is on its way
        }
        if (++messages_ > maxMessages) {
            throw Nonsense();
        }
        takeEvent(object, word & eventMask, rest.subspan(headerBytes, size - headerBytes));
        rest = rest.subspan(size);
    }
    unread_.erase(unread_.begin(), unread_.end() - static_cast<std::ptrdiff_t>(rest.size()));
}

void WaylandRegistry::takeEvent(std::uint32_t object, std::uint32_t event, ByteView body) {
    if (object == displayObject && event == errorEvent) {
        throw Nonsense(); // we have said nothing that a compositor objects to
    }
    if (object == callbackObject && event == doneEvent) {
        static_cast<void>(takeWord(body));
        state_ = State::complete;
    } else if (object == registryObject && event == globalEvent) {
        const std::uint32_t number = takeWord(body);
        std::string interface = takeString(body);
        static_cast<void>(takeWord(body)); // its version: every one has what the clipboard's programs need
        const bool isNew = globals_.insert({.number = number, .interface = std::move(interface)}).second;
        if (!isNew || globals_.size() > maxInterfaces) {
            throw Nonsense();
        }
    } else if (object == registryObject && event == globalRemoveEvent) {
        globals_.erase({.number = takeWord(body), .interface = {}});
    }
}

} // namespace orlinth::platform
