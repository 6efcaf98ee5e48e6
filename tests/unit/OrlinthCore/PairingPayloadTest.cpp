#include "OrlinthCore/Pairing/PairingPayload.h"

#include "base/Base64.h"
#include "base/Json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <functional>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <memory>
#include <new>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace orlinth {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* allKeys[] = {"pairing_secret", "peer_hostname", "peer_ip",     "peer_mac",
                                   "peer_port",      "peer_pubkey",   "peer_subnet", "version"};

platform::PublicKey someKey(std::byte filling = std::byte{0xFF}) {
    std::array<std::byte, platform::PublicKey::size> raw{};
    raw.fill(filling);
    return platform::PublicKey(raw);
}

DeviceInfo someDevice() {
    return {.interface = "enp3s0",
            .ipv4 = "192.168.1.7",
            .subnetCIDR = "192.168.1.0/24",
            .macAddress = "3c:22:fb:01:02:0a",
            .hostname = "Küche 台所 🍳"};
}

PairingPayload example() {
    PairingPayload payload;
    payload.peer_pubkey = "//////////////////////////////////////////8=";
    payload.peer_ip = "192.168.1.7";
    payload.peer_port = 40112;
    payload.peer_subnet = "192.168.1.0/24";
    payload.peer_hostname = "desk";
    payload.peer_mac = "3c:22:fb:01:02:0a";
    payload.pairing_secret = "/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+8=";
    return payload;
}

constexpr std::string_view exampleText = R"({"pairing_secret":"/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+8=",)"
                                         R"("peer_hostname":"desk","peer_ip":"192.168.1.7",)"
                                         R"("peer_mac":"3c:22:fb:01:02:0a","peer_port":40112,)"
                                         R"("peer_pubkey":"//////////////////////////////////////////8=",)"
                                         R"("peer_subnet":"192.168.1.0/24","version":1})";

PairingPayload decodeText(std::string_view text) {
    return PairingPayload::decode(asBytes(text));
}

/// What is wrong with a text that must not decode.
std::string decodingFailure(std::string_view text) {
    try {
        (void)decodeText(text);
    } catch (const PairingError& error) {
        EXPECT_EQ(error.which(), PairingError::Case::decodingFailed);
        return error.description();
    }
    ADD_FAILURE() << "decoded: " << text;
    return "";
}

TEST(PairingPayload, IsMintedFromTheKeyTheDeviceAndThePort) {
    const PairingPayload payload = PairingPayload::mint(someKey(), someDevice(), 65535);
    EXPECT_EQ(payload.version, 1);
    EXPECT_EQ(payload.peer_pubkey, "//////////////////////////////////////////8=");
    EXPECT_EQ(payload.peer_ip, "192.168.1.7");
    EXPECT_EQ(payload.peer_port, 65535);
    EXPECT_EQ(payload.peer_subnet, "192.168.1.0/24");
    EXPECT_EQ(payload.peer_hostname, "Küche 台所 🍳");
    EXPECT_EQ(payload.peer_mac, "3c:22:fb:01:02:0a");
    EXPECT_EQ(payload.pairing_secret.size(), 44U);
    EXPECT_EQ(payload.secret().size(), 32U);
}

TEST(PairingPayload, TwoMintsDifferInTheSecretAlone) {
    const PairingPayload first = PairingPayload::mint(someKey(), someDevice(), 40112);
    PairingPayload second = PairingPayload::mint(someKey(), someDevice(), 40112);
    EXPECT_NE(first.pairing_secret, second.pairing_secret);
    EXPECT_FALSE(first == second);
    second.pairing_secret = first.pairing_secret;
    EXPECT_TRUE(first == second);
}

TEST(PairingPayload, IsEqualFieldByField) {
    using Change = void (*)(PairingPayload&);
    for (const Change change : std::initializer_list<Change>{
             [](PairingPayload& payload) { payload.version = 2; },
             [](PairingPayload& payload) { payload.peer_pubkey += 'x'; },
             [](PairingPayload& payload) { payload.peer_ip += 'x'; },
             [](PairingPayload& payload) { payload.peer_port = 1; },
             [](PairingPayload& payload) { payload.peer_subnet += 'x'; },
             [](PairingPayload& payload) { payload.peer_hostname += 'x'; },
             [](PairingPayload& payload) { payload.peer_mac += 'x'; },
             [](PairingPayload& payload) { payload.pairing_secret += 'x'; },
         }) {
        PairingPayload changed = example();
        EXPECT_TRUE(changed == example());
        change(changed);
        EXPECT_FALSE(changed == example());
        EXPECT_TRUE(decodeText(changed.jsonString()) == changed);
    }
}

// --- the secret ---

TEST(PairingPayload, GeneratesSecretsOfAnyLength) {
    EXPECT_EQ(PairingPayload::generatePairingSecret(0).size(), 0U);
    EXPECT_EQ(PairingPayload::generatePairingSecret(1).size(), 1U);
    const SecretBytes first = PairingPayload::generatePairingSecret(1000);
    const SecretBytes second = PairingPayload::generatePairingSecret(1000);
    EXPECT_EQ(first.size(), 1000U);
    EXPECT_FALSE(std::ranges::equal(first.reveal(), second.reveal()));
}

TEST(PairingPayloadDeathTest, ANegativeLengthOfASecretIsAProgrammingError) {
    EXPECT_DEATH((void)PairingPayload::generatePairingSecret(-1), "programming error");
    EXPECT_DEATH((void)PairingPayload::generatePairingSecret(INT64_MIN), "programming error");
}

/// From now on the kernel has no randomness for this thread, for good (seccomp(2)).
void loseRandomness() {
    std::array<sock_filter, 4> program = {{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_getrandom, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EIO),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    }};
    const sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
    ASSERT_EQ(0, ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0));
    ASSERT_EQ(0, ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &filter));
}

void expectNoSecret(const std::function<void()>& make) {
    std::thread([&make] {
        loseRandomness();
        try {
            make();
            ADD_FAILURE() << "made a secret of nothing";
        } catch (const PairingError& error) {
            EXPECT_EQ(error.which(), PairingError::Case::randomBytesFailed);
            EXPECT_EQ(error.description(), "SecRandomCopyBytes failed (-1)");
        }
    }).join();
}

TEST(PairingPayload, FailsWithoutRandomness) {
    expectNoSecret([] { static_cast<void>(PairingPayload::generatePairingSecret(32)); });
    expectNoSecret([] { static_cast<void>(PairingPayload::mint(someKey(), someDevice(), 1)); });
}

TEST(PairingPayload, GivesTheSecretsBytes) {
    PairingPayload payload;
    std::array<std::byte, 32> raw{};
    for (std::size_t i = 0; i < raw.size(); ++i) {
        raw[i] = static_cast<std::byte>(i * 9);
    }
    payload.pairing_secret = base64Encode(raw);
    EXPECT_TRUE(std::ranges::equal(payload.secret().reveal(), raw));
}

TEST(PairingPayload, ASecretIsTheBase64OfThirtyTwoBytesOrNone) {
    const std::string good = example().pairing_secret;
    const std::string wrong[] = {
        "",
        "hello",
        good + "A",
        good + "\n",
        good.substr(1),
        good.substr(0, 43),
        base64Encode(Bytes(31)),
        base64Encode(Bytes(33)),
    };
    for (const std::string& text : wrong) {
        PairingPayload payload = example();
        payload.pairing_secret = text;
        try {
            (void)payload.secret();
            ADD_FAILURE() << text;
        } catch (const PairingError& error) {
            EXPECT_EQ(error.which(), PairingError::Case::decodingFailed);
            EXPECT_THAT(error.description(), StartsWith("JSON decode failed: pairing_secret "));
            EXPECT_TRUE(text.empty() || error.description().find(text) == std::string::npos) << "tells the secret";
        }
    }
}

/// Whether the memory of a text, all that it has room for, holds nothing but zeros.
bool isWiped(const std::string& text) {
    const char* memory = text.data();
    return text.empty() && std::all_of(memory, memory + text.capacity(), [](char c) { return c == '\0'; });
}

constexpr const char* secretsOfEachKind[] = {"short secret", "/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+/+8="};

TEST(PairingPayload, LeavesNoSecretBehindWhenItIsMoved) {
    for (const char* secret : secretsOfEachKind) {
        PairingPayload source = example();
        source.pairing_secret = secret;
        PairingPayload moved = std::move(source);
        EXPECT_EQ(moved.pairing_secret, secret);
        EXPECT_EQ(moved.peer_hostname, "desk");
        EXPECT_EQ(moved.peer_port, 40112);
        EXPECT_TRUE(isWiped(source.pairing_secret)); // NOLINT(bugprone-use-after-move): what is left is the question

        for (const char* before : secretsOfEachKind) {
            PairingPayload from = moved;
            PairingPayload target = example();
            target.pairing_secret = before;
            target = std::move(from);
            EXPECT_TRUE(target == moved);
            EXPECT_TRUE(isWiped(from.pairing_secret)); // NOLINT(bugprone-use-after-move): as above
        }
    }
}

TEST(PairingPayload, LeavesNoSecretBehindWhenAnotherIsAssigned) {
    PairingPayload target = example();
    const PairingPayload other;
    target = other;
    EXPECT_TRUE(isWiped(target.pairing_secret));
    EXPECT_TRUE(target == other);

    PairingPayload same = example();
    const PairingPayload& alias = same;
    same = alias;
    EXPECT_TRUE(same == example());
    PairingPayload& itself = same;
    same = std::move(itself);
    EXPECT_TRUE(same == example()); // NOLINT(bugprone-use-after-move): it was not moved anywhere
}

TEST(PairingPayload, LeavesNoSecretBehindWhenItIsDestroyed) {
    constexpr std::string_view secret = "short secret"; // which the object itself holds
    alignas(PairingPayload) std::array<std::byte, sizeof(PairingPayload)> memory{};
    auto* payload = new (memory.data()) PairingPayload();
    payload->pairing_secret = secret;
    EXPECT_NE(std::ranges::search(memory, asBytes(secret)).size(), 0U);
    std::destroy_at(payload);
    EXPECT_EQ(std::ranges::search(memory, asBytes(secret)).size(), 0U);
}

// --- JSON ---

TEST(PairingPayload, IsWrittenWithSortedKeysWithoutSpaceOrEscapedSlashes) {
    EXPECT_EQ(example().jsonString(), exampleText);
    EXPECT_EQ(toText(example().jsonData().reveal()), exampleText);
}

TEST(PairingPayload, DecodesToAnEqualPayload) {
    EXPECT_TRUE(decodeText(exampleText) == example());
    for (int i = 0; i < 50; ++i) {
        const PairingPayload payload = PairingPayload::mint(someKey(std::byte(i)), someDevice(), std::uint16_t(i));
        EXPECT_TRUE(PairingPayload::decode(payload.jsonData().reveal()) == payload);
    }
}

TEST(PairingPayload, KeepsAnyTextAndNumber) {
    PairingPayload payload;
    payload.version = INT64_MIN;
    payload.peer_port = INT64_MAX;
    constexpr std::string_view odd("\"\\/\b\f\n\r\t\0\x7f ä 台所 🍳 \u2028", 29); // with the zero byte in it
    payload.peer_hostname = odd;
    payload.peer_mac = "</script>";
    EXPECT_TRUE(decodeText(payload.jsonString()) == payload);
    EXPECT_TRUE(decodeText(PairingPayload().jsonString()) == PairingPayload());
}

TEST(PairingPayload, WritesUnicodeAsItIs) {
    PairingPayload payload = example();
    payload.peer_hostname = "Küche 台所 🍳";
    EXPECT_THAT(payload.jsonString(), HasSubstr(R"("peer_hostname":"Küche 台所 🍳")"));
}

TEST(PairingPayload, FailsToEncodeATextThatIsNotUtf8) {
    std::string PairingPayload::* const texts[] = {
        &PairingPayload::peer_pubkey,   &PairingPayload::peer_ip,  &PairingPayload::peer_subnet,
        &PairingPayload::peer_hostname, &PairingPayload::peer_mac, &PairingPayload::pairing_secret,
    };
    for (const auto text : texts) {
        for (const char* bad : {"caf\xE9", "\xED\xA0\x80", "\xC0\xAF", "\xF0\x9F\x8D"}) {
            PairingPayload payload = example();
            payload.*text = bad;
            try {
                (void)payload.jsonData();
                ADD_FAILURE() << "encoded";
            } catch (const PairingError& error) {
                EXPECT_EQ(error.which(), PairingError::Case::encodingFailed);
                EXPECT_THAT(error.description(), StartsWith("JSON encode failed: "));
                EXPECT_THAT(error.description(), EndsWith(" is not UTF-8"));
            }
            EXPECT_THROW((void)payload.jsonString(), PairingError);
        }
    }
}

TEST(PairingPayload, NeedsEveryKey) {
    for (const char* key : allKeys) {
        Json json = parseJson(exampleText);
        ASSERT_EQ(json.erase(key), 1U);
        EXPECT_EQ(decodingFailure(compactJson(json)),
                  "JSON decode failed: key \"" + std::string(key) + "\" is missing");
    }
}

TEST(PairingPayload, NeedsEveryValueToBeOfItsType) {
    for (const char* key : allKeys) {
        for (const Json& wrong : {Json(), Json(true), Json::array(), Json::object(), Json(1.5)}) {
            Json json = parseJson(exampleText);
            json[key] = wrong;
            decodingFailure(compactJson(json));
        }
        Json json = parseJson(exampleText);
        json[key] = json[key].is_string() ? Json(1) : Json("40112");
        decodingFailure(compactJson(json));
    }
}

TEST(PairingPayload, IgnoresOtherKeys) {
    Json json = parseJson(exampleText);
    json["interface"] = "enp3s0";
    json["peer"] = Json::array({1, 2});
    EXPECT_TRUE(decodeText(compactJson(json)) == example());
    EXPECT_TRUE(decodeText("\n " + prettyJson(json) + "\n") == example());
}

TEST(PairingPayload, DoesNotLookIntoTheValues) {
    Json json = parseJson(exampleText);
    json["version"] = 99;
    json["peer_port"] = -1;
    json["peer_ip"] = "nonsense";
    json["pairing_secret"] = "";
    const PairingPayload payload = decodeText(compactJson(json));
    EXPECT_EQ(payload.version, 99);
    EXPECT_EQ(payload.peer_port, -1);
}

TEST(PairingPayload, DecodesNothingThatIsNotItsJson) {
    const std::string whole(exampleText);
    const std::string wrong[] = {"",
                                 "null",
                                 "[]",
                                 "\"\"",
                                 "{}",
                                 whole + "x",
                                 whole + whole,
                                 "[" + whole + "]",
                                 "caf\xE9",
                                 "http://example.com/",
                                 std::string(100'000, '[')};
    for (const std::string& text : wrong) {
        EXPECT_THAT(decodingFailure(text), StartsWith("JSON decode failed: "));
    }
    for (std::size_t size = 0; size < whole.size(); ++size) {
        decodingFailure(whole.substr(0, size));
    }
    std::string notUtf8 = whole;
    notUtf8.replace(notUtf8.find("desk"), 4, "d\xE9sk");
    decodingFailure(notUtf8);
}

TEST(PairingPayload, TellsNoSecretInAnError) {
    std::string text(exampleText);
    const std::size_t secret = text.find("/+/+");
    for (std::size_t i = secret; i < secret + 44; ++i) {
        for (const char breaking : {'\x01', '"', '\n', '\xFF'}) {
            std::string broken = text;
            broken[i] = breaking;
            EXPECT_EQ(decodingFailure(broken).find("+/"), std::string::npos);
        }
    }
}

TEST(PairingErrorPayload, IsApartFromTheText) {
    EXPECT_EQ(PairingError::randomBytesFailed(-7).status(), -7);
    EXPECT_EQ(PairingError::randomBytesFailed(-7).description(), "SecRandomCopyBytes failed (-7)");
    EXPECT_EQ(PairingError::decodingFailed("why").detail(), "why");
}

} // namespace
} // namespace orlinth
