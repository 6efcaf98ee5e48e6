#include "OrlinthCore/SecureChannel/TransportFrame.h"

#include "OrlinthCore/SecureChannel/WireConnection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

namespace orlinth {
namespace {

using Message = TransportMessage;

/// Two ends of one session; the bare one seals whatever plaintext a test wants.
struct Session {
    static NoiseTransport transport(bool first) {
        const SecretBytes one(Bytes(32, std::byte{1}));
        const SecretBytes two(Bytes(32, std::byte{2}));
        const platform::PublicKey nobody(std::array<std::byte, 32>{});
        return first ? NoiseTransport({}, nobody, CipherState(one), CipherState(two))
                     : NoiseTransport({}, nobody, CipherState(two), CipherState(one));
    }
    NoiseTransport bare = transport(true);
    TransportFramer sender{transport(true)};
    TransportFramer receiver{transport(false)};
};

/// The error of opening a frame of this plaintext.
TransportFramer::Error errorOfPlaintext(ByteView plaintext) {
    Session session;
    const Bytes body = session.bare.encrypt(plaintext, {});
    try {
        static_cast<void>(session.receiver.decode(body));
    } catch (const TransportFramer::Error& error) {
        return error;
    }
    ADD_FAILURE() << "no error";
    return TransportFramer::Error::malformed("");
}

Bytes jsonPlaintext(std::string_view json) {
    return concatenate({Bytes{TransportFramer::typeByteJSON}, asBytes(json)});
}

TransportFramer::Error errorOfJson(std::string_view json) {
    return errorOfPlaintext(jsonPlaintext(json));
}

Message messageOfJson(std::string_view json) {
    return Message::fromJson(asBytes(json));
}

std::vector<Message> oneOfEach() {
    return {Message::fileOffer("a.png", 1024, "image/png", "0F3A"),
            Message::resume("0F3A", ByteOffset(512)),
            Message::tokenUpdate("token"),
            Message::clipboard("text", "text/html"),
            Message::setName("name"),
            Message::nameUpdate("new name"),
            Message::done(),
            Message::unpair(),
            Message::decline()};
}

// --- messages ---

TEST(TransportMessage, IsWrittenCompactWithSortedKeys) {
    const std::vector<std::string> expected{
        R"({"mime":"image/png","name":"a.png","size":1024,"transfer_id":"0F3A","type":"FileOffer"})",
        R"({"accepted_offset":512,"transfer_id":"0F3A","type":"Resume"})",
        R"({"peer_fcm_token":"token","type":"TokenUpdate"})",
        R"({"mime":"text/html","text":"text","type":"Clipboard"})",
        R"({"name":"name","type":"SetName"})",
        R"({"name":"new name","type":"NameUpdate"})",
        R"({"type":"Done"})",
        R"({"type":"Unpair"})",
        R"({"type":"Decline"})",
    };
    std::vector<std::string> written;
    for (const Message& message : oneOfEach()) {
        written.push_back(message.toJson());
    }
    EXPECT_EQ(written, expected);
}

TEST(TransportMessage, ComesBackEqual) {
    for (const Message& message : oneOfEach()) {
        EXPECT_EQ(messageOfJson(message.toJson()), message) << message.toJson();
    }
    const Message extreme = Message::fileOffer("ü/\"\\\n\u2028😀", std::numeric_limits<std::int64_t>::max(), "", "");
    EXPECT_EQ(messageOfJson(extreme.toJson()), extreme);
    EXPECT_EQ(messageOfJson(Message::resume("", ByteOffset(std::numeric_limits<std::int64_t>::min())).toJson()),
              Message::resume("", ByteOffset(std::numeric_limits<std::int64_t>::min())));
}

TEST(TransportMessage, DoesNotEscapeSlashes) {
    EXPECT_EQ(Message::setName("a/b").toJson(), R"({"name":"a/b","type":"SetName"})");
}

TEST(TransportMessage, IsPlainTextWhereAClipboardDoesNotSay) {
    EXPECT_EQ(messageOfJson(R"({"type":"Clipboard","text":"x"})"), Message::clipboard("x", "text/plain"));
    EXPECT_EQ(messageOfJson(R"({"type":"Clipboard","text":"x","mime":null})"), Message::clipboard("x", "text/plain"));
    EXPECT_EQ(messageOfJson(R"({"type":"Clipboard","text":"x","mime":""})"), Message::clipboard("x", ""));
}

TEST(TransportMessage, IgnoresUnknownKeysAndThoseOfOtherMessages) {
    EXPECT_EQ(messageOfJson(R"({"type":"Done","name":7,"colour":["red"]})"), Message::done());
    EXPECT_EQ(messageOfJson(R"({"type":"SetName","name":"n","size":"not a number"})"), Message::setName("n"));
}

TEST(TransportMessage, TakesTheLastOfDuplicateKeys) {
    EXPECT_EQ(messageOfJson(R"({"type":"Unpair","name":"first","name":"last","type":"SetName"})"),
              Message::setName("last"));
}

TEST(TransportMessage, LeavesJudgingNegativeSizesToItsReaders) {
    const Message offer = messageOfJson(R"({"type":"FileOffer","name":"","size":-1,"mime":"","transfer_id":""})");
    EXPECT_EQ(offer.as<Message::FileOffer>()->size, -1);
}

TEST(TransportMessage, KnowsItsTag) {
    std::vector<std::string> names;
    for (const Message& message : oneOfEach()) {
        names.emplace_back(name(message.tag()));
    }
    EXPECT_EQ(names, (std::vector<std::string>{"FileOffer", "Resume", "TokenUpdate", "Clipboard", "SetName",
                                               "NameUpdate", "Done", "Unpair", "Decline"}));
    EXPECT_EQ(Message::done().as<Message::Unpair>(), nullptr);
}

TEST(TransportMessage, IsRefusedWhereARequiredKeyIsMissingOrOfAnotherType) {
    const char* const texts[] = {
        R"({})",
        R"({"type":7})",
        R"({"type":null})",
        R"({"type":"done"})",
        R"({"type":"Done "})",
        R"({"type":"Hello"})",
        R"([])",
        R"("Done")",
        R"({"type":"FileOffer","size":1,"mime":"","transfer_id":""})",
        R"({"type":"FileOffer","name":"","mime":"","transfer_id":""})",
        R"({"type":"FileOffer","name":"","size":1,"transfer_id":""})",
        R"({"type":"FileOffer","name":"","size":1,"mime":""})",
        R"({"type":"FileOffer","name":"","size":"1","mime":"","transfer_id":""})",
        R"({"type":"FileOffer","name":"","size":1.5,"mime":"","transfer_id":""})",
        R"({"type":"FileOffer","name":"","size":9223372036854775808,"mime":"","transfer_id":""})",
        R"({"type":"FileOffer","name":"","size":true,"mime":"","transfer_id":""})",
        R"({"type":"FileOffer","name":null,"size":1,"mime":"","transfer_id":""})",
        R"({"type":"Resume","transfer_id":""})",
        R"({"type":"Resume","accepted_offset":0})",
        R"({"type":"TokenUpdate"})",
        R"({"type":"Clipboard","mime":"text/plain"})",
        R"({"type":"Clipboard","text":"","mime":7})",
        R"({"type":"SetName"})",
        R"({"type":"NameUpdate"})",
        R"({"type":"Done"} x)",
        R"({"type":"Done")",
        "{\"type\":\"SetName\",\"name\":\"\xFF\"}",
        "\xEF\xBB\xBF{\"type\":\"Don",
    };
    for (const char* text : texts) {
        EXPECT_THROW(static_cast<void>(messageOfJson(text)), JsonError) << text;
        EXPECT_TRUE(errorOfJson(text).description().starts_with("malformed frame: JSON decode: ")) << text;
    }
}

TEST(TransportMessage, IsNotQuotedInAnErrorText) {
    const std::string text = errorOfJson(R"({"type":"a secret"})").description();
    EXPECT_EQ(text.find("a secret"), std::string::npos) << text;
}

// --- frames ---

TEST(TransportFramer, CarriesEveryMessage) {
    Session session;
    for (const Message& message : oneOfEach()) {
        const Bytes body = session.sender.encodeJSON(message);
        EXPECT_EQ(body.size(), message.toJson().size() + TransportFramer::overheadBytes);
        EXPECT_EQ(session.receiver.decode(body), DecodedFrame(message));
    }
}

TEST(TransportFramer, CarriesBinaryData) {
    Session session;
    for (const std::size_t size : {0U, 1U, 17U, 1'048'576U}) {
        const Bytes data(size, std::byte{0x99});
        const Bytes body = session.sender.encodeBinary(data);
        EXPECT_EQ(body.size(), size + 17);
        EXPECT_EQ(session.receiver.decode(body), DecodedFrame(data));
    }
}

TEST(TransportFramer, PutsTheTypeByteFirstAndNoAssociatedData) {
    Session session;
    NoiseTransport peer = Session::transport(false);
    EXPECT_EQ(peer.decrypt(session.sender.encodeBinary(asBytes("ab")), {}), toBytes("\x02"
                                                                                    "ab"));
    EXPECT_EQ(peer.decrypt(session.sender.encodeJSON(Message::done()), {}), jsonPlaintext(R"({"type":"Done"})"));
}

TEST(TransportFramer, OpensAnEmptyBinaryFrame) {
    Session session;
    const Bytes body = session.bare.encrypt(Bytes{std::byte{0x02}}, {});
    EXPECT_EQ(session.receiver.decode(body), DecodedFrame(Bytes()));
}

TEST(TransportFramer, RefusesAnEmptyPlaintext) {
    const TransportFramer::Error error = errorOfPlaintext({});
    EXPECT_EQ(error.which(), TransportFramer::Error::Case::malformed);
    EXPECT_EQ(error.description(), "malformed frame: empty plaintext");
}

TEST(TransportFramer, RefusesAnEmptyJsonFrame) {
    const TransportFramer::Error error = errorOfPlaintext(Bytes{std::byte{0x01}});
    EXPECT_EQ(error.which(), TransportFramer::Error::Case::malformed);
    EXPECT_TRUE(error.description().starts_with("malformed frame: JSON decode: ")) << error.description();
}

TEST(TransportFramer, NamesAnUnknownTypeByteInHexadecimalWithoutLeadingZeros) {
    EXPECT_EQ(errorOfPlaintext(toBytes("\x07rest")).description(), "unknown type byte 0x7");
    EXPECT_EQ(errorOfPlaintext(toBytes("\xab")).description(), "unknown type byte 0xab");
    EXPECT_EQ(errorOfPlaintext(Bytes(1)).description(), "unknown type byte 0x0");
    EXPECT_EQ(errorOfPlaintext(toBytes("\x03")).which(), TransportFramer::Error::Case::unknownType);
}

TEST(TransportFramer, RefusesABodyTooShortForItsTag) {
    Session session;
    try {
        static_cast<void>(session.receiver.decode(Bytes(3)));
        FAIL() << "no error";
    } catch (const TransportFramer::Error& error) {
        EXPECT_EQ(error.which(), TransportFramer::Error::Case::decrypt);
        EXPECT_EQ(error.description(), "frame decrypt failed: noise message too short (expected ≥ 16, got 3)");
    }
}

TEST(TransportFramer, RefusesATamperedFrameAndStillOpensTheGenuineOne) {
    Session session;
    const Bytes body = session.sender.encodeBinary(asBytes("data"));
    for (std::size_t at = 0; at < body.size(); ++at) {
        Bytes tampered = body;
        tampered[at] ^= std::byte{0x20};
        try {
            static_cast<void>(session.receiver.decode(tampered));
            FAIL() << "byte " << at;
        } catch (const TransportFramer::Error& error) {
            EXPECT_EQ(error.which(), TransportFramer::Error::Case::decrypt);
            EXPECT_TRUE(error.description().starts_with("frame decrypt failed: noise decrypt failed: "));
        }
    }
    EXPECT_EQ(session.receiver.decode(body), DecodedFrame(toBytes("data")));
}

TEST(TransportFramer, OpensFramesOnlyInTheOrderTheyWereSealed) {
    Session session;
    const Bytes first = session.sender.encodeBinary(asBytes("1"));
    const Bytes second = session.sender.encodeBinary(asBytes("2"));
    EXPECT_THROW(static_cast<void>(session.receiver.decode(second)), TransportFramer::Error);
    EXPECT_EQ(session.receiver.decode(first), DecodedFrame(toBytes("1")));
    EXPECT_THROW(static_cast<void>(session.receiver.decode(first)), TransportFramer::Error);
    EXPECT_EQ(session.receiver.decode(second), DecodedFrame(toBytes("2")));
}

TEST(TransportFramer, CountsTheTypeByteInItsLimit) {
    Session session;
    const Bytes largest(TransportFramer::maxPlaintextBytes - 1, std::byte{0x44});
    const Bytes body = session.sender.encodeBinary(largest);
    EXPECT_EQ(body.size(), 16'777'232u);
    EXPECT_TRUE(session.receiver.decode(body) == DecodedFrame(largest));
    const Bytes tooLarge(TransportFramer::maxPlaintextBytes);
    try {
        static_cast<void>(session.sender.encodeBinary(tooLarge));
        FAIL() << "no error";
    } catch (const TransportFramer::Error& error) {
        EXPECT_EQ(error.which(), TransportFramer::Error::Case::plaintextTooLarge);
        EXPECT_EQ(error.description(), "plaintext frame too large: 16777217 bytes");
    }
    EXPECT_EQ(session.receiver.decode(session.sender.encodeBinary({})), DecodedFrame(Bytes()))
        << "the refused frame has used up a number";
}

TEST(TransportFramer, RefusesAMessageThatIsTooLarge) {
    Session session;
    const Message message = Message::clipboard(std::string(TransportFramer::maxPlaintextBytes, 'x'), "text/plain");
    EXPECT_THROW(static_cast<void>(session.sender.encodeJSON(message)), TransportFramer::Error);
}

// --- without copies ---

TEST(TransportFramer, SealsInTheBufferWhatItSealsWithCopies) {
    Session copying;
    Session inPlace;
    FrameBuffer buffer;
    for (const std::size_t size : {0U, 5U, 1'048'576U, 3U}) {
        const Bytes data(size, std::byte{0x12});
        const MutableBytes place = TransportFramer::binaryPayload(buffer, 1'048'576);
        ASSERT_EQ(place.size(), 1'048'576u);
        std::ranges::copy(data, place.begin());
        inPlace.sender.sealBinary(buffer, size);
        EXPECT_EQ(toBytes(buffer.body()), copying.sender.encodeBinary(data));
        EXPECT_EQ(place.data(), buffer.body().data() + 1) << "the payload has moved";
    }
}

TEST(TransportFramer, OpensInTheBuffer) {
    Session session;
    Bytes body = session.sender.encodeBinary(asBytes("data"));
    const FrameView view = session.receiver.decodeInPlace(body);
    const MutableBytes data = std::get<MutableBytes>(view);
    EXPECT_EQ(toText(data), "data");
    EXPECT_EQ(data.data(), body.data() + 1);
    Bytes message = session.sender.encodeJSON(Message::decline());
    EXPECT_EQ(std::get<Message>(session.receiver.decodeInPlace(message)), Message::decline());
}

TEST(TransportFramer, RefusesToSealMoreThanTheLimitInTheBuffer) {
    Session session;
    FrameBuffer buffer;
    static_cast<void>(TransportFramer::binaryPayload(buffer, TransportFramer::maxPlaintextBytes));
    EXPECT_THROW(session.sender.sealBinary(buffer, TransportFramer::maxPlaintextBytes), TransportFramer::Error);
    session.sender.sealBinary(buffer, TransportFramer::maxPlaintextBytes - 1);
    EXPECT_LE(buffer.body().size(), WireConnection::maxFrameBytes);
}

TEST(DescribeFrame, NamesTheKindWithoutTheContent) {
    Bytes data(12);
    EXPECT_EQ(describeFrame(MutableBytes(data)), "binary frame of 12 bytes");
    EXPECT_EQ(describeFrame(Message::fileOffer("secret", 1, "", "")), "FileOffer message");
    EXPECT_EQ(describeFrame(Message::clipboard("secret", "")), "Clipboard message");
}

TEST(TransportFramerError, HasItsPayload) {
    using Error = TransportFramer::Error;
    EXPECT_EQ(Error::plaintextTooLarge(16777217).length(), 16777217U);
    EXPECT_EQ(Error::malformed("empty plaintext").detail(), "empty plaintext");
    EXPECT_EQ(Error::decrypt("why").detail(), "why");
    EXPECT_EQ(Error::unknownType(std::byte{0xab}).typeByte(), std::byte{0xab});
    EXPECT_EQ(Error::unknownType(std::byte{0xab}).detail(), "");
}

TEST(TransportMessage, HasNoOtherKeysThanItsCodingKeys) {
    using Keys = TransportMessage::CodingKeys;
    const Json offer = parseJson(TransportMessage::fileOffer("n", 1, "m", "t").toJson());
    EXPECT_EQ(offer, (Json{{Keys::type, "FileOffer"},
                           {Keys::name, "n"},
                           {Keys::size, 1},
                           {Keys::mime, "m"},
                           {Keys::transfer_id, "t"}}));
    EXPECT_EQ(parseJson(TransportMessage::resume("t", ByteOffset(2)).toJson()),
              (Json{{Keys::type, "Resume"}, {Keys::transfer_id, "t"}, {Keys::accepted_offset, 2}}));
    EXPECT_EQ(parseJson(TransportMessage::tokenUpdate("f").toJson()),
              (Json{{Keys::type, "TokenUpdate"}, {Keys::peer_fcm_token, "f"}}));
    EXPECT_EQ(parseJson(TransportMessage::clipboard("x", "m").toJson()),
              (Json{{Keys::type, "Clipboard"}, {Keys::text, "x"}, {Keys::mime, "m"}}));
}

} // namespace
} // namespace orlinth
