#include "OrlinthCore/Peers/PeerRecord.h"

#include <cstdlib>

namespace {

void check(bool holds) {
    if (!holds) {
        std::abort();
    }
}

/// What decodes is the same after writing and reading; all else is a JsonError.
template <typename T>
void roundTrip(const orlinth::Json& json) {
    try {
        const T value = T::fromJson(json);
        check(T::fromJson(orlinth::parseJson(orlinth::prettyJson(value.toJson()))) == value);
    } catch (const orlinth::JsonError& error) {
        check(!error.description().empty());
    }
}

} // namespace

/// The peer store's file, in its present and its older form.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    orlinth::Json json;
    try {
        json = orlinth::parseJson(std::as_bytes(std::span(data, size)));
    } catch (const orlinth::JsonError&) {
        return 0;
    }
    roundTrip<orlinth::PeerBook>(json);
    roundTrip<orlinth::PeerRecord>(json);
    return 0;
}
