#include "OrlinthCore/SecureChannel/TransportFrame.h"

#include "OrlinthCore/SecureChannel/WireConnection.h"
#include "base/Hex.h"
#include "platform/Blocking.h"

#include <algorithm>
#include <array>
#include <cassert>

namespace orlinth {

static_assert(TransportFramer::maxPlaintextBytes + CipherState::tagBytes <= WireConnection::maxFrameBytes,
              "the largest sealed frame fits the wire");

namespace {

using Tag = TransportMessage::Tag;

/// In the order of Tag.
constexpr std::array<std::string_view, 9> tagNames{"FileOffer", "Resume",     "Done",   "TokenUpdate", "Clipboard",
                                                   "SetName",   "NameUpdate", "Unpair", "Decline"};

Tag tagNamed(std::string_view text) {
    const auto found = std::ranges::find(tagNames, text);
    if (found == tagNames.end()) {
        throw JsonError("key \"type\": no message of that name"); // not quoted: it may be long, and is not ours
    }
    return static_cast<Tag>(found - tagNames.begin());
}

Tag tagOf(const TransportMessage::FileOffer&) noexcept {
    return Tag::FileOffer;
}
Tag tagOf(const TransportMessage::Resume&) noexcept {
    return Tag::Resume;
}
Tag tagOf(const TransportMessage::TokenUpdate&) noexcept {
    return Tag::TokenUpdate;
}
Tag tagOf(const TransportMessage::Clipboard&) noexcept {
    return Tag::Clipboard;
}
Tag tagOf(const TransportMessage::SetName&) noexcept {
    return Tag::SetName;
}
Tag tagOf(const TransportMessage::NameUpdate&) noexcept {
    return Tag::NameUpdate;
}
Tag tagOf(const TransportMessage::Done&) noexcept {
    return Tag::Done;
}
Tag tagOf(const TransportMessage::Unpair&) noexcept {
    return Tag::Unpair;
}
Tag tagOf(const TransportMessage::Decline&) noexcept {
    return Tag::Decline;
}

/// Adds the members of each kind.
struct MemberWriter {
    using Keys = TransportMessage::CodingKeys;
    Json& object;

    void operator()(const TransportMessage::FileOffer& offer) const {
        object[Keys::name] = offer.name;
        object[Keys::size] = offer.size;
        object[Keys::mime] = offer.mime;
        object[Keys::transfer_id] = offer.transfer_id;
    }
    void operator()(const TransportMessage::Resume& resume) const {
        object[Keys::transfer_id] = resume.transfer_id;
        object[Keys::accepted_offset] = resume.accepted_offset.bytesBefore();
    }
    void operator()(const TransportMessage::TokenUpdate& update) const {
        object[Keys::peer_fcm_token] = update.peer_fcm_token;
    }
    void operator()(const TransportMessage::Clipboard& clipboard) const {
        object[Keys::text] = clipboard.text;
        object[Keys::mime] = clipboard.mime;
    }
    void operator()(const TransportMessage::SetName& message) const { object[Keys::name] = message.name; }
    void operator()(const TransportMessage::NameUpdate& message) const { object[Keys::name] = message.name; }
    void operator()(const TransportMessage::Done&) const {}
    void operator()(const TransportMessage::Unpair&) const {}
    void operator()(const TransportMessage::Decline&) const {}
};

TransportMessage readMembers(Tag tag, const Json& object) {
    using Keys = TransportMessage::CodingKeys;
    switch (tag) {
    case Tag::FileOffer:
        return TransportMessage::fileOffer(requireString(object, Keys::name), requireInt64(object, Keys::size),
                                           requireString(object, Keys::mime), requireString(object, Keys::transfer_id));
    case Tag::Resume:
        return TransportMessage::resume(requireString(object, Keys::transfer_id),
                                        ByteOffset(requireInt64(object, Keys::accepted_offset)));
    case Tag::Done:
        return TransportMessage::done();
    case Tag::TokenUpdate:
        return TransportMessage::tokenUpdate(requireString(object, Keys::peer_fcm_token));
    case Tag::Clipboard:
        return TransportMessage::clipboard(requireString(object, Keys::text),
                                           optionalString(object, Keys::mime).value_or("text/plain"));
    case Tag::SetName:
        return TransportMessage::setName(requireString(object, Keys::name));
    case Tag::NameUpdate:
        return TransportMessage::nameUpdate(requireString(object, Keys::name));
    case Tag::Unpair:
        return TransportMessage::unpair();
    case Tag::Decline:
        return TransportMessage::decline();
    }
    throw JsonError("unknown message type"); // not reached: the switch has every tag
}

TransportMessage readMessage(ByteView json) {
    try {
        return TransportMessage::fromJson(json);
    } catch (const JsonError& error) {
        throw TransportFramer::Error::malformed("JSON decode: " + describe(error));
    }
}

/// Cuts the type byte off an opened frame.
FrameView readPlaintext(MutableBytes plaintext) {
    if (plaintext.empty()) {
        throw TransportFramer::Error::malformed("empty plaintext");
    }
    const MutableBytes rest = plaintext.subspan(1);
    if (plaintext.front() == TransportFramer::typeByteBinary) {
        return rest;
    }
    if (plaintext.front() == TransportFramer::typeByteJSON) {
        return readMessage(rest);
    }
    throw TransportFramer::Error::unknownType(plaintext.front());
}

void checkPlaintextSize(std::size_t bodyBytes) {
    const std::size_t plaintextBytes = bodyBytes + 1;
    if (plaintextBytes > TransportFramer::maxPlaintextBytes) {
        throw TransportFramer::Error::plaintextTooLarge(plaintextBytes);
    }
}

} // namespace

// --- TransportMessage ---

TransportMessage TransportMessage::fileOffer(std::string name, std::int64_t size, std::string mime,
                                             std::string transfer_id) {
    return FileOffer{std::move(name), size, std::move(mime), std::move(transfer_id)};
}
TransportMessage TransportMessage::resume(std::string transfer_id, ByteOffset accepted_offset) {
    return Resume{std::move(transfer_id), accepted_offset};
}
TransportMessage TransportMessage::tokenUpdate(std::string peer_fcm_token) {
    return TokenUpdate{std::move(peer_fcm_token)};
}
TransportMessage TransportMessage::clipboard(std::string text, std::string mime) {
    return Clipboard{std::move(text), std::move(mime)};
}
TransportMessage TransportMessage::setName(std::string name) {
    return SetName{std::move(name)};
}
TransportMessage TransportMessage::nameUpdate(std::string name) {
    return NameUpdate{std::move(name)};
}
TransportMessage TransportMessage::done() {
    return Done{};
}
TransportMessage TransportMessage::unpair() {
    return Unpair{};
}
TransportMessage TransportMessage::decline() {
    return Decline{};
}

TransportMessage::Tag TransportMessage::tag() const noexcept {
    return std::visit([](const auto& row) { return tagOf(row); }, value_);
}

std::string TransportMessage::toJson() const {
    Json object = Json::object();
    object[TransportMessage::CodingKeys::type] = orlinth::name(tag());
    std::visit(MemberWriter{object}, value_);
    return compactJson(object);
}

TransportMessage TransportMessage::fromJson(ByteView text) {
    const Json object = parseJson(text, maxJsonMessageValues);
    return readMembers(tagNamed(requireString(object, TransportMessage::CodingKeys::type)), object);
}

std::string_view name(TransportMessage::Tag tag) noexcept {
    return tagNames[static_cast<std::size_t>(tag)];
}

std::string describeFrame(const FrameView& frame) {
    if (const auto* message = std::get_if<TransportMessage>(&frame)) {
        return std::string(name(message->tag())) + " message";
    }
    return "binary frame of " + std::to_string(std::get<MutableBytes>(frame).size()) + " bytes";
}

// --- TransportFramer ---

TransportFramer::TransportFramer(NoiseTransport session) : session_(std::move(session)) {}

Bytes TransportFramer::encodeJSON(const TransportMessage& message) {
    return sealFrame(typeByteJSON, asBytes(message.toJson()));
}

Bytes TransportFramer::encodeBinary(ByteView data) {
    return sealFrame(typeByteBinary, data);
}

Bytes TransportFramer::sealFrame(std::byte type, ByteView body) {
    checkPlaintextSize(body.size());
    Bytes frame;
    frame.reserve(body.size() + overheadBytes);
    frame.push_back(type);
    frame.insert(frame.end(), body.begin(), body.end());
    frame.resize(frame.size() + CipherState::tagBytes);
    session_.encryptInPlace(frame, {});
    return frame;
}

MutableBytes TransportFramer::binaryPayload(FrameBuffer& buffer, std::size_t capacity) {
    buffer.resizeBody(capacity + overheadBytes);
    return buffer.body().subspan(1, capacity);
}

void TransportFramer::sealBinary(FrameBuffer& buffer, std::size_t length) {
    checkPlaintextSize(length);
    assert(length + overheadBytes <= buffer.body().size());
    buffer.resizeBody(length + overheadBytes);
    buffer.body().front() = typeByteBinary;
    session_.encryptInPlace(buffer.body(), {});
}

DecodedFrame TransportFramer::decode(ByteView body) {
    Bytes copy = toBytes(body);
    FrameView view = decodeInPlace(copy);
    if (const auto* data = std::get_if<MutableBytes>(&view)) {
        return toBytes(*data);
    }
    return std::get<TransportMessage>(std::move(view));
}

FrameView TransportFramer::decodeInPlace(MutableBytes body) {
    return readPlaintext(openInPlace(body));
}

Task<FrameView> TransportFramer::decodeInPlace(platform::WorkQueues& queues, MutableBytes body) {
    const MutableBytes plaintext = openInPlace(body);
    const bool isLong = plaintext.size() > longMessageBytes && plaintext.front() == typeByteJSON;
    if (!isLong) {
        co_return readPlaintext(plaintext);
    }
    co_return co_await platform::blocking(queues, [plaintext] { return readPlaintext(plaintext); });
}

MutableBytes TransportFramer::openInPlace(MutableBytes body) {
    try {
        return session_.decryptInPlace(body, {});
    } catch (const orlinth::Error& error) {
        throw Error::decrypt(describe(error));
    }
}

// --- TransportFramer::Error ---

TransportFramer::Error TransportFramer::Error::plaintextTooLarge(std::size_t length) {
    Error error(Case::plaintextTooLarge, "plaintext frame too large: " + std::to_string(length) + " bytes");
    error.length_ = length;
    return error;
}

TransportFramer::Error TransportFramer::Error::malformed(const std::string& text) {
    return {Case::malformed, "malformed frame: ", text};
}

TransportFramer::Error TransportFramer::Error::decrypt(const std::string& text) {
    return {Case::decrypt, "frame decrypt failed: ", text};
}

TransportFramer::Error TransportFramer::Error::unknownType(std::byte type) {
    Error error(Case::unknownType, "unknown type byte 0x" + shortHex(type));
    error.typeByte_ = type;
    return error;
}

} // namespace orlinth
