// Arbitrary bytes as the plaintext of an introduction.

#include "FuzzSupport.h"
#include "OrlinthCore/Pairing/PairIntroduction.h"
#include "base/Text.h"

using namespace orlinth;
using namespace orlinth::fuzzing;
using platform::PublicKey;

namespace {

/// A key that nobody has.
PublicKey ownKey() {
    return PublicKey(std::array<std::byte, PublicKey::size>{std::byte{9}});
}

/// A text that may be shown and stored as it is: no control character in it.
void demandHarmless(const std::string& text, std::size_t maxBytes) {
    demand(text.size() <= maxBytes, "texts are bounded");
    demand(isUtf8(text), "texts are UTF-8");
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const bool isC1 = byte == 0xC2 && static_cast<unsigned char>(text.at(i + 1)) < 0xA0;
        demand(byte >= 0x20 && byte != 0x7F && !isC1, "texts have no control characters");
    }
}

void demandSound(const PeerRecord& record) {
    const std::optional<PublicKey> key = PublicKey::fromBase64(record.peer_pubkey.text());
    demand(key && key->peerKey() == record.peer_pubkey && record.peer_pubkey.text().size() == 44, "a key has one text");
    demand(*key != ownKey() && (key->raw()[31] & std::byte{0x80}) == std::byte{0}, "the key is another's");
    demand(*key != PublicKey(std::array<std::byte, 32>{}), "the key is no point of low order");
    demand(!objectionToAddress(record.peer_ip), "the address is one");
    demand(record.peer_port >= 1 && record.peer_port <= 65535, "the port is one");
    demand(!trimmed(record.peer_hostname).empty(), "the phone has a name");
    demandHarmless(record.peer_ip, 64);
    demandHarmless(record.peer_hostname, 255);
    demandHarmless(record.peer_subnet, 64);
    demandHarmless(record.peer_mac, 64);
    demandHarmless(record.peer_fcm_token, 4096);
    demandHarmless(record.peer_android, 64);
    demand(record.self_pubkey == ownKey().peerKey() && record.paired_at_epoch_ms == EpochMilliseconds(),
           "the computer's own fields");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ByteView plaintext = std::as_bytes(std::span(data, size));
    try {
        const PeerRecord record = PairIntroduction::decode(plaintext, ownKey());
        demandSound(record);
        const Bytes written = PairIntroduction::encode(record);
        demand(PairIntroduction::decode(written, ownKey()) == record, "what decodes is the same once it is written");
        demand(PairIntroduction::encode(PairIntroduction::decode(written, ownKey())) == written,
               "and written the same");
    } catch (const PairIntroductionError& error) {
        demand(error.description().size() < 300, "error texts stay short");
        demandHarmless(error.description(), 300);
    }
    return 0;
}
