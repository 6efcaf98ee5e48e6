#include "FuzzSupport.h"
#include "OrlinthCore/Share/ShareOutbox.h"

/// The manifest of a batch: what decodes is the same after writing and reading, and says neither more nor less than the
/// text did; all else is a JsonError.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using orlinth::fuzzing::demand;
    try {
        const orlinth::Json json = orlinth::parseJson(std::as_bytes(std::span(data, size)));
        const auto manifest = orlinth::ShareOutbox::Manifest::fromJson(json);
        const orlinth::Json written = orlinth::parseJson(orlinth::compactJson(manifest.toJson()));
        demand(orlinth::ShareOutbox::Manifest::fromJson(written) == manifest, "what decodes encodes to the same value");
        demand(written.contains("targetPubkeys") == manifest.targetPubkeys.has_value(), "no choice, no key");
        demand(manifest.files.size() == json.at("files").size(), "no file is lost");
    } catch (const orlinth::JsonError& error) {
        demand(!error.description().empty(), "an error says what it is");
    }
    return 0;
}
