#include "FuzzSupport.h"
#include "OrlinthCore/Sending/FcmWake.h"
#include "base/Base64.h"

#include <optional>

namespace {

using namespace orlinth;
using fuzzing::demand;

/// What the call returns, or nothing where it threw the one error that it may throw.
template <typename Call>
std::optional<SecretBytes> unlessRefused(Call call) {
    try {
        return call();
    } catch (const FcmWake::Error& error) {
        demand(error.which() == FcmWake::Error::Case::privateKeyImport, "the case of the error");
        demand(error.description().size() > std::string_view("RSA private key import failed: ").size(), "a reason");
        return std::nullopt;
    }
}

} // namespace

/// The first byte chooses: PEM text, or DER. What comes out lies within what went in, also in another wrapping.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzing::Input input(data, size);
    const bool isPem = input.byte() % 2 == 0;
    const ByteView text = input.rest();
    if (isPem) {
        const std::optional<SecretBytes> der = unlessRefused([text] { return pkcs8DER(text); });
        if (der) {
            demand(der->size() <= text.size(), "no more bytes than characters");
            const std::string again = "-----BEGIN-----\r\n" + base64Encode(der->reveal()) + "\r\n-----END-----";
            const std::optional<SecretBytes> second = unlessRefused([&again] { return pkcs8DER(asBytes(again)); });
            demand(second && toText(second->reveal()) == toText(der->reveal()), "the same bytes");
        }
        return 0;
    }
    const std::optional<SecretBytes> key = unlessRefused([text] { return unwrapPKCS8(text); });
    if (key) {
        demand(key->size() <= text.size(), "no more than went in");
        demand(toText(text).find(toText(key->reveal())) != std::string::npos, "a part of what went in");
    }
    return 0;
}
