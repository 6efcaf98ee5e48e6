#include "OrlinthCore/Pairing/PairIntroduction.h"

#include "base/Base64.h"
#include "base/Hex.h"

#include <gtest/gtest.h>

#include <functional>

using namespace orlinth;
using platform::PrivateKey;
using platform::PublicKey;

namespace {

constexpr const char* phoneKey = "hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo="; // of RFC 7748 §6.1: Alice's

PublicKey ownKey() {
    // Bob's, of the same place.
    return PublicKey::fromBytes(*hexDecode("de9edb7d7b7dc1b4d35b61c2ece435373f8343c85b78674dadfc7e146f882b4f")).value();
}

Json whole() {
    return {
        {"peer_pubkey", phoneKey},
        {"peer_ip", "192.168.1.7"},
        {"peer_port", 40112},
        {"peer_hostname", "Füße's phone 📱"},
        {"peer_subnet", "192.168.1.0/24"},
        {"peer_mac", "3c:22:fb:01:02:0a"},
        {"peer_fcm_token", "token:APA9"},
        {"peer_android", "a1b2c3d4e5f60718"},
    };
}

Json with(const char* key, Json value) {
    Json json = whole();
    json[key] = std::move(value);
    return json;
}

Json without(const char* key) {
    Json json = whole();
    json.erase(key);
    return json;
}

/// What is wrong with an introduction, less the words in front of every such text; "" where it is taken.
std::string objectionToText(std::string_view text) {
    const std::string prefix = "not a valid introduction: ";
    try {
        static_cast<void>(PairIntroduction::decode(asBytes(text), ownKey()));
        return "";
    } catch (const PairIntroductionError& error) {
        EXPECT_TRUE(error.description().starts_with(prefix)) << error.description();
        EXPECT_LT(error.description().size(), 200u);
        return error.description().substr(std::min(prefix.size(), error.description().size()));
    }
}

std::string objectionTo(const Json& json) {
    return objectionToText(compactJson(json));
}

bool isRequired(std::string_view key) {
    return key == "peer_pubkey" || key == "peer_ip" || key == "peer_port" || key == "peer_hostname";
}

/// What is taken without one of its fields: why, else "". Such a field is empty.
std::string leftOutOf(const Json& json) {
    try {
        const PairIntroduction::Decoded decoded =
            PairIntroduction::decodeFrom("", asBytes(compactJson(json)), ownKey());
        EXPECT_LE(decoded.leftOut.size(), 1u);
        if (decoded.leftOut.empty()) {
            return "";
        }
        const PeerRecord& record = decoded.record;
        const bool isEmpty = record.peer_subnet.empty() || record.peer_mac.empty() || record.peer_fcm_token.empty() ||
                             record.peer_android.empty();
        EXPECT_TRUE(isEmpty);
        return decoded.leftOut.front();
    } catch (const PairIntroductionError&) {
        return "";
    }
}

std::string keyObjection(const char* hex) {
    return objectionToKey(PublicKey::fromBytes(hexDecode(hex).value()).value(), ownKey()).value_or("");
}

std::string addressObjection(const std::string& address) {
    return objectionToAddress(address).value_or("");
}

TEST(PairIntroduction, BecomesTheRecordOfThePhone) {
    const PeerRecord record = PairIntroduction::decode(asBytes(compactJson(whole())), ownKey());
    EXPECT_EQ(record, (PeerRecord{.peer_pubkey = PeerKey(phoneKey),
                                  .peer_ip = "192.168.1.7",
                                  .peer_port = 40112,
                                  .peer_subnet = "192.168.1.0/24",
                                  .peer_hostname = "Füße's phone 📱",
                                  .peer_mac = "3c:22:fb:01:02:0a",
                                  .paired_at_epoch_ms = {},
                                  .self_pubkey = ownKey().peerKey(),
                                  .peer_fcm_token = "token:APA9",
                                  .peer_android = "a1b2c3d4e5f60718"}));
}

TEST(PairIntroduction, ComesBackAsItWasWritten) {
    PeerRecord self = PairIntroduction::decode(asBytes(compactJson(whole())), ownKey());
    EXPECT_EQ(PairIntroduction::decode(PairIntroduction::encode(self), ownKey()), self);
    self.peer_subnet = self.peer_mac = self.peer_fcm_token = self.peer_android = "";
    EXPECT_EQ(PairIntroduction::decode(PairIntroduction::encode(self), ownKey()), self);
}

/// What is found of it, or the objection.
std::string verdictOn(const std::function<PairIntroduction::Decoded()>& look) {
    try {
        const PairIntroduction::Decoded decoded = look();
        std::string text = compactJson(decoded.record.toJson());
        for (const std::string& why : decoded.leftOut) {
            text += "\n" + why;
        }
        return text;
    } catch (const PairIntroductionError& error) {
        return error.description();
    }
}

TEST(PairIntroduction, IsCheckedAsARecordAsItIsCheckedAsJson) {
    const PeerRecord good = PairIntroduction::decode(asBytes(compactJson(whole())), ownKey());
    std::vector<PeerRecord> records{good};
    const auto spoil = [&](auto PeerRecord::* field, auto value) {
        records.push_back(good);
        records.back().*field = value;
    };
    const std::string tooLong(5000, 'x');
    const std::vector<std::string> unfit{
        "", " ", tooLong, "a\nb", std::string("a\0b", 3), "caf\xE9 !", ownKey().base64()};
    for (const std::string& value : unfit) {
        spoil(&PeerRecord::peer_pubkey, PeerKey(value));
    }
    for (std::string PeerRecord::* field :
         {&PeerRecord::peer_ip, &PeerRecord::peer_hostname, &PeerRecord::peer_subnet, &PeerRecord::peer_mac,
          &PeerRecord::peer_fcm_token, &PeerRecord::peer_android}) {
        for (const std::string& value : unfit) {
            spoil(field, value);
        }
    }
    for (const std::int64_t port : {-1, 0, 1, 65535, 65536}) {
        spoil(&PeerRecord::peer_port, port);
    }
    for (const PeerRecord& record : records) {
        const std::string asRecord = verdictOn([&] { return PairIntroduction::check(record, ownKey()); });
        const std::string asJson =
            verdictOn([&] { return PairIntroduction::decodeFrom("", PairIntroduction::encode(record), ownKey()); });
        EXPECT_EQ(asRecord, asJson);
    }
}

TEST(PairIntroduction, IsWrittenWithTheEightKeysOfAnIntroduction) {
    const PeerRecord self = PairIntroduction::decode(asBytes(compactJson(whole())), ownKey());
    EXPECT_EQ(toText(PairIntroduction::encode(self)), compactJson(whole()));
}

TEST(PairIntroduction, MayLackWhatIsOptional) {
    for (const auto& [key, field] :
         {std::pair{"peer_subnet", &PeerRecord::peer_subnet}, std::pair{"peer_mac", &PeerRecord::peer_mac},
          std::pair{"peer_fcm_token", &PeerRecord::peer_fcm_token},
          std::pair{"peer_android", &PeerRecord::peer_android}}) {
        EXPECT_EQ(PairIntroduction::decode(asBytes(compactJson(without(key))), ownKey()).*field, "") << key;
    }
}

TEST(PairIntroduction, IsTakenWithoutWhatIsOptionalAndCannotBeUsed) {
    Json json = whole();
    json["peer_subnet"] = 7;
    json["peer_mac"] = "a\nb";
    json["peer_fcm_token"] = std::string(4097, 'x');
    json["peer_android"] = Json::array();
    const PairIntroduction::Decoded decoded = PairIntroduction::decodeFrom("", asBytes(compactJson(json)), ownKey());
    PeerRecord expected = PairIntroduction::decode(asBytes(compactJson(whole())), ownKey());
    expected.peer_subnet = expected.peer_mac = expected.peer_fcm_token = expected.peer_android = "";
    EXPECT_EQ(decoded.record, expected);
    ASSERT_EQ(decoded.leftOut.size(), 4u);
    EXPECT_EQ(decoded.leftOut[1], "key \"peer_mac\": holds a control character");
    EXPECT_EQ(decoded.leftOut[2], "key \"peer_fcm_token\": longer than 4096 bytes");
}

TEST(PairIntroduction, HasTheConnectionsAddressIfItsOwnIsEmpty) {
    const auto decoded = [](const char* address, const std::string& connection) {
        return PairIntroduction::decodeFrom(connection, asBytes(compactJson(with("peer_ip", address))), ownKey());
    };
    for (const char* address : {"", " "}) {
        EXPECT_EQ(decoded(address, "192.168.1.9").record.peer_ip, "192.168.1.9");
        EXPECT_TRUE(decoded(address, "fe80::1%eth0").hasConnectionAddress);
        EXPECT_THROW(static_cast<void>(decoded(address, "")), PairIntroductionError);
    }
    EXPECT_EQ(decoded("192.168.1.7", "192.168.1.9").record.peer_ip, "192.168.1.7");
    EXPECT_FALSE(decoded("192.168.1.7", "192.168.1.9").hasConnectionAddress);
    EXPECT_THROW(static_cast<void>(decoded("0.0.0.0", "192.168.1.9")), PairIntroductionError);
}

TEST(PairIntroduction, MustHaveWhatIsRequired) {
    for (const char* key : {"peer_pubkey", "peer_ip", "peer_port", "peer_hostname"}) {
        EXPECT_EQ(objectionTo(without(key)), std::string("key \"") + key + "\" is missing");
        EXPECT_NE(objectionTo(with(key, nullptr)), "") << key;
    }
}

TEST(PairIntroduction, MustHaveFieldsOfTheRightTypes) {
    const Json all = whole();
    for (const auto& [key, good] : all.items()) {
        for (const Json& value : {Json(true), Json::array({good}), Json::object(), Json(-0.5),
                                  good.is_string() ? Json(7) : Json("40112")}) {
            EXPECT_NE(objectionTo(with(key.c_str(), value)) + leftOutOf(with(key.c_str(), value)), "")
                << key << " " << value;
        }
    }
}

TEST(PairIntroduction, IgnoresOtherMembersEvenThoseOfARecord) {
    Json json = with("colour", "blue");
    json["paired_at_epoch_ms"] = "yesterday";
    json["self_pubkey"] = 7;
    EXPECT_EQ(PairIntroduction::decode(asBytes(compactJson(json)), ownKey()),
              PairIntroduction::decode(asBytes(compactJson(whole())), ownKey()));
}

TEST(PairIntroduction, MustBeOneJsonObject) {
    const std::string good = compactJson(whole());
    EXPECT_EQ(objectionToText(" \n" + good + "\r\n "), "");
    EXPECT_EQ(objectionToText("[]"), "expected an object, found array");
    for (const std::string& text : {std::string(), std::string("null"), std::string("7"), std::string("\"{}\""),
                                    std::string("{}"), "[" + good + "]", good + good, good + "x",
                                    good + std::string(1, '\0'), good.substr(0, good.size() - 1), "\xFF" + good}) {
        EXPECT_NE(objectionToText(text), "") << text;
    }
}

TEST(PairIntroduction, MustBeWhole) {
    const std::string good = compactJson(whole());
    for (std::size_t length = 0; length < good.size(); ++length) {
        EXPECT_NE(objectionToText(good.substr(0, length)), "") << length;
    }
}

TEST(PairIntroduction, MustBeUtf8) {
    for (const char* broken : {"\xFF", "\xC0\x80", "\xED\xA0\x80", "\xE2\x82", "\xF4\x90\x80\x80"}) {
        std::string text = compactJson(whole());
        text.insert(text.find("phone"), broken);
        EXPECT_NE(objectionToText(text), "");
    }
    std::string loneSurrogate = compactJson(whole());
    loneSurrogate.insert(loneSurrogate.find("phone"), R"(\ud800)");
    EXPECT_NE(objectionToText(loneSurrogate), "");
}

TEST(PairIntroduction, MustNotNestDeeply) {
    std::string text = compactJson(whole());
    text.insert(1, "\"x\":" + std::string(20'000, '[') + std::string(20'000, ']') + ",");
    EXPECT_NE(objectionToText(text), "");
}

// --- field by field ---

TEST(PairIntroduction, NeedsAKeyInItsOneText) {
    const std::string good = phoneKey;
    const std::string notAKey = "key \"peer_pubkey\": not the Base64 of 32 bytes";
    std::string bitsBehindTheEnd = good;
    bitsBehindTheEnd[42] = 'p'; // of the last character before the padding, two bits are behind the end
    std::string urlAlphabet = good;
    urlAlphabet[urlAlphabet.find('/')] = '_';
    for (const std::string& text :
         {std::string(), good.substr(0, 43), good.substr(0, 40), bitsBehindTheEnd, urlAlphabet,
          " " + good.substr(0, 43), std::string(44, '='), base64Encode(Bytes(31)), base64Encode(Bytes(33))}) {
        EXPECT_EQ(objectionTo(with("peer_pubkey", text)), notAKey) << text;
    }
    EXPECT_NE(objectionTo(with("peer_pubkey", good + "\n")), "");
    EXPECT_NE(objectionTo(with("peer_pubkey", base64Encode(Bytes(34)))), "");
    EXPECT_NE(objectionTo(with("peer_pubkey", std::string(60'000, 'A'))), "");
}

TEST(PairIntroduction, NeedsAKeyThatIsSomebodyElses) {
    EXPECT_EQ(objectionTo(with("peer_pubkey", ownKey().base64())), "key \"peer_pubkey\": this computer's own key");
    EXPECT_EQ(objectionTo(with("peer_pubkey", base64Encode(Bytes(32)))), "key \"peer_pubkey\": a point of low order");
    EXPECT_EQ(objectionTo(with("peer_pubkey", base64Encode(Bytes(32, std::byte{0xFF})))),
              "key \"peer_pubkey\": not the canonical form of a key");
}

TEST(PairIntroduction, NeedsAPortFrom1To65535) {
    const std::string range = "key \"peer_port\": not between 1 and 65535";
    for (const Json& port : {Json(0), Json(-1), Json(65536), Json(INT64_MIN), Json(INT64_MAX), Json(65536 + 80)}) {
        EXPECT_EQ(objectionTo(with("peer_port", port)), range) << port;
    }
    for (const Json& port : {Json(UINT64_MAX), Json(80.5), Json(1e300), Json(-1e300)}) {
        EXPECT_NE(objectionTo(with("peer_port", port)), "") << port;
    }
    EXPECT_EQ(objectionTo(with("peer_port", 1)), "");
    EXPECT_EQ(objectionTo(with("peer_port", 65535)), "");
}

TEST(PairIntroduction, NeedsAnAddress) {
    EXPECT_EQ(objectionTo(with("peer_ip", "phone.local")), "key \"peer_ip\": not an IPv4 or IPv6 address");
    EXPECT_EQ(objectionTo(with("peer_ip", "")), "key \"peer_ip\": not an IPv4 or IPv6 address");
    EXPECT_EQ(objectionTo(with("peer_ip", "224.0.0.251")), "key \"peer_ip\": a multicast address");
    EXPECT_EQ(objectionTo(with("peer_ip", std::string("10.0.0.1\0", 9))), "key \"peer_ip\": holds a control character");
    EXPECT_EQ(objectionTo(with("peer_ip", "fe80::1%wlan0")), "");
}

TEST(PairIntroduction, NeedsAHostNameThatIsNotBlank) {
    for (const char* name : {"", " ", "   ", "\u00A0", "\u2003 \u3000", "\u2028"}) {
        EXPECT_EQ(objectionTo(with("peer_hostname", name)), "key \"peer_hostname\": blank") << name;
    }
    EXPECT_EQ(objectionTo(with("peer_hostname", "x")), "");
}

TEST(PairIntroduction, BoundsEveryText) {
    const auto isKept = [](const char* key, std::size_t bytes) {
        return leftOutOf(with(key, std::string(bytes, 'x'))).empty();
    };
    for (const auto& [key, limit] :
         {std::pair{"peer_hostname", 255}, std::pair{"peer_subnet", 64}, std::pair{"peer_mac", 64},
          std::pair{"peer_fcm_token", 4096}, std::pair{"peer_android", 64}}) {
        const auto bytes = static_cast<std::size_t>(limit);
        const Json tooLong = with(key, std::string(bytes + 1, 'x'));
        EXPECT_TRUE(isKept(key, bytes)) << key;
        EXPECT_EQ(isRequired(key) ? objectionTo(tooLong) : leftOutOf(tooLong),
                  std::string("key \"") + key + "\": longer than " + std::to_string(limit) + " bytes");
    }
    // Bytes, not characters: 128 of two bytes each are too many.
    std::string umlauts;
    for (int i = 0; i < 128; ++i) {
        umlauts += "ü";
    }
    EXPECT_NE(objectionTo(with("peer_hostname", umlauts)), "");
    EXPECT_EQ(objectionTo(with("peer_hostname", umlauts.substr(2))), "");
}

TEST(PairIntroduction, RefusesControlCharactersInEveryText) {
    for (const char* key : {"peer_ip", "peer_hostname", "peer_subnet", "peer_mac", "peer_fcm_token", "peer_android"}) {
        for (unsigned c = 0; c < 0xA0; c = c == 0x1F ? 0x7F : c + 1) {
            const std::string control =
                c < 0x80 ? std::string(1, static_cast<char>(c)) : std::string{'\xC2', static_cast<char>(c)};
            for (const std::string& text : {control, "a" + control + "b", "ab" + control}) {
                const Json json = with(key, text);
                EXPECT_EQ(isRequired(key) ? objectionTo(json) : leftOutOf(json),
                          std::string("key \"") + key + "\": holds a control character")
                    << c;
            }
        }
    }
}

TEST(PairIntroduction, TakesCharactersWhoseBytesLookLikeControls) {
    // U+00A0 and U+00A9 begin like C1; the other bytes of many a character are from 80 to 9F.
    for (const char* name : {"a\u00A0b", "\u00A9", "À", "📱", "\u4E00\u5000", "~"}) {
        EXPECT_EQ(objectionTo(with("peer_hostname", name)), "") << name;
    }
}

// --- keys ---

TEST(ObjectionToKey, IsNoneToAnotherComputersKey) {
    EXPECT_EQ(objectionToKey(PublicKey::fromBase64(phoneKey).value(), ownKey()), std::nullopt);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(objectionToKey(PrivateKey::generate().publicKey(), ownKey()), std::nullopt);
    }
    EXPECT_EQ(keyObjection("0900000000000000000000000000000000000000000000000000000000000000"), "");
}

TEST(ObjectionToKey, IsToOnesOwn) {
    EXPECT_EQ(objectionToKey(ownKey(), ownKey()), "this computer's own key");
}

TEST(ObjectionToKey, IsToEveryPointOfLowOrder) {
    for (const char* point : {"0000000000000000000000000000000000000000000000000000000000000000",
                              "0100000000000000000000000000000000000000000000000000000000000000",
                              "e0eb7a7c3b41b8ae1656e3faf19fc46ada098deb9c32b1fd866205165f49b800",
                              "5f9c95bca3508c24b1d0b1559c83ef5b04445cc4581c8e86d8224eddd09f1157",
                              "ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f"}) {
        EXPECT_EQ(keyObjection(point), "a point of low order") << point;
    }
}

TEST(ObjectionToKey, IsToPointsOfLowOrderInOtherForms) {
    for (const char* point : {// p and p + 1
                              "edffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
                              "eeffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
                              // the seven with the top bit
                              "0000000000000000000000000000000000000000000000000000000000000080",
                              "0100000000000000000000000000000000000000000000000000000000000080",
                              "e0eb7a7c3b41b8ae1656e3faf19fc46ada098deb9c32b1fd866205165f49b880",
                              "5f9c95bca3508c24b1d0b1559c83ef5b04445cc4581c8e86d8224eddd09f11d7",
                              "ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff",
                              "edffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff",
                              "eeffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff",
                              // 2p - 1, 2p, 2p + 1
                              "d9ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff",
                              "daffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff",
                              "dbffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff"}) {
        EXPECT_EQ(keyObjection(point), "not the canonical form of a key") << point;
    }
}

TEST(ObjectionToKey, IsToEveryFormButTheCanonicalOne) {
    // 2^255 - 20 is the largest (above, of low order); p - 2 is an ordinary one.
    EXPECT_EQ(keyObjection("ebffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f"), "");
    for (unsigned low = 0xED; low <= 0xFF; ++low) {
        Bytes raw(32, std::byte{0xFF});
        raw.front() = static_cast<std::byte>(low);
        raw.back() = std::byte{0x7F};
        EXPECT_EQ(keyObjection(hexEncode(raw).c_str()), "not the canonical form of a key") << low;
        raw[15] = std::byte{0xFE}; // and with this, below the prime
        EXPECT_EQ(keyObjection(hexEncode(raw).c_str()), "") << low;
    }
    Bytes topBit = toBytes(PublicKey::fromBase64(phoneKey).value().raw());
    topBit.back() |= std::byte{0x80};
    EXPECT_EQ(keyObjection(hexEncode(topBit).c_str()), "not the canonical form of a key");
}

// --- addresses ---

TEST(ObjectionToAddress, IsNoneToWhatAComputerCanHave) {
    for (const char* address :
         {"192.168.1.7", "10.0.0.1", "127.0.0.1", "169.254.1.1", "1.0.0.0", "223.255.255.255", "::1", "fe80::1",
          "fe80::1%eth0", "febf::1%wlan0", "fd00::1", "2001:db8::1", "FD00::ABCD", "::1:0:0:1"}) {
        EXPECT_EQ(addressObjection(address), "") << address;
    }
}

TEST(ObjectionToAddress, IsToWhatNoComputerCanHave) {
    for (const char* address : {"0.0.0.0", "0.1.2.3", "0.255.255.255", "::", "0:0:0:0:0:0:0:0"}) {
        EXPECT_EQ(addressObjection(address), "an unspecified address") << address;
    }
    for (const char* address : {"224.0.0.0", "224.0.0.251", "239.255.255.255", "ff02::fb", "ff02::1%eth0", "ff00::"}) {
        EXPECT_EQ(addressObjection(address), "a multicast address") << address;
    }
    EXPECT_EQ(addressObjection("255.255.255.255"), "the broadcast address");
    for (const char* address : {"::ffff:192.168.1.7", "::ffff:c0a8:107", "::FFFF:0.0.0.0", "::192.168.1.7", "::2"}) {
        EXPECT_EQ(addressObjection(address), "an IPv4 address in the form of IPv6") << address;
    }
}

TEST(ObjectionToAddress, IsToAnInterfaceOfAnAddressThatIsNotLinkLocal) {
    for (const char* address : {"fd00::1%eth0", "::1%lo", "2001:db8::1%eth0", "fec0::1%eth0"}) {
        EXPECT_EQ(addressObjection(address), "an interface is named, but the address is not link-local") << address;
    }
}

TEST(ObjectionToAddress, IsToEverythingThatIsNoLiteral) {
    for (const std::string& text : {std::string(), std::string("phone"), std::string("1.2.3"), std::string("1.2.3.04"),
                                    std::string("[::1]"), std::string("1.2.3.4:5"), std::string("1.2.3.4%eth0"),
                                    std::string("10.0.0.1\0", 9), std::string("fe80::1%")}) {
        EXPECT_EQ(addressObjection(text), "not an IPv4 or IPv6 address") << text;
    }
}

} // namespace
