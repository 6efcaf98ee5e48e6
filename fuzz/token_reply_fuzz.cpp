#include "FuzzSupport.h"
#include "OrlinthCore/Sending/FcmWake.h"
#include "base/Json.h"

/// A reply either is refused with a JsonError, or says again what it said when it is written anew.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using orlinth::fuzzing::demand;
    try {
        const orlinth::OAuthResponse reply = orlinth::OAuthResponse::fromJson(std::as_bytes(std::span(data, size)));
        const std::string token = orlinth::toText(reply.access_token.reveal());
        const std::string written = orlinth::compactJson(
            orlinth::Json{{"access_token", token}, {"expires_in", reply.expires_in.count()}, {"token_type", "Bearer"}});
        const orlinth::OAuthResponse again = orlinth::OAuthResponse::fromJson(orlinth::asBytes(written));
        demand(orlinth::toText(again.access_token.reveal()) == token && again.expires_in == reply.expires_in,
               "the same reply");
    } catch (const orlinth::JsonError& error) {
        demand(!error.description().empty(), "a reason");
    }
    return 0;
}
