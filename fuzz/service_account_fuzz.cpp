#include "FuzzSupport.h"
#include "OrlinthCore/Sending/ServiceAccount.h"
#include "base/Json.h"

/// A key file either is refused with a JsonError, or says again what it said when it is written anew.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using orlinth::fuzzing::demand;
    try {
        const orlinth::ServiceAccount account = orlinth::ServiceAccount::fromJson(std::as_bytes(std::span(data, size)));
        const std::string key = orlinth::toText(account.private_key.reveal());
        const std::string written = orlinth::compactJson(orlinth::Json{{"project_id", account.project_id},
                                                                       {"private_key", key},
                                                                       {"private_key_id", account.private_key_id},
                                                                       {"client_email", account.client_email},
                                                                       {"token_uri", account.token_uri}});
        const orlinth::ServiceAccount again = orlinth::ServiceAccount::fromJson(orlinth::asBytes(written));
        demand(again.project_id == account.project_id && again.private_key_id == account.private_key_id &&
                   again.client_email == account.client_email && again.token_uri == account.token_uri &&
                   orlinth::toText(again.private_key.reveal()) == key,
               "the same account");
    } catch (const orlinth::JsonError& error) {
        demand(!error.description().empty(), "a reason");
    }
    return 0;
}
