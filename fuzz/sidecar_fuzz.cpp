#include "OrlinthCore/Receiving/PartialMeta.h"

#include <cstdlib>

/// What decodes as a sidecar is the same after writing and reading; all else is a JsonError.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        const orlinth::Json json = orlinth::parseJson(std::as_bytes(std::span(data, size)));
        const orlinth::PartialMeta meta = orlinth::PartialMeta::fromJson(json);
        const std::string written = orlinth::prettyJson(meta.toJson());
        if (orlinth::PartialMeta::fromJson(orlinth::parseJson(written)) != meta) {
            std::abort();
        }
    } catch (const orlinth::JsonError& error) {
        if (error.description().empty()) {
            std::abort();
        }
    }
    return 0;
}
