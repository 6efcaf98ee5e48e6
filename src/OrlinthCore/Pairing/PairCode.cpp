#include "OrlinthCore/Pairing/PairCode.h"

#include "base/Hex.h"
#include "platform/Crypto.h"

#include <array>

namespace orlinth {
namespace {

constexpr std::size_t hashCharacters = 16;
constexpr std::uint32_t codes = 10000;
/// Draws from here on are thrown away: they would make the low codes likelier.
constexpr std::uint32_t fairDraws = 65536 / codes * codes;

} // namespace

std::string PairCode::generate() {
    std::uint32_t draw = fairDraws;
    while (draw >= fairDraws) {
        std::array<std::byte, 2> bytes{};
        platform::randomBytes(bytes);
        draw = std::to_integer<std::uint32_t>(bytes[0]) << 8 | std::to_integer<std::uint32_t>(bytes[1]);
    }
    std::string digits = std::to_string(draw % codes);
    digits.insert(0, 4 - digits.size(), '0');
    return digits;
}

std::string PairCode::hash(std::string_view code, std::string_view pubkey) {
    const platform::Sha256Digest digest =
        platform::sha256({asBytes("orlinth-pair:"), asBytes(code), asBytes(":"), asBytes(pubkey)});
    return hexEncode(digest).substr(0, hashCharacters);
}

} // namespace orlinth
