#include "OrlinthCore/Sending/InFlightJournal.h"

#include <cstdlib>

/// What decodes as a journal has the same entries after writing and reading; all else is a JsonError.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        const orlinth::Json json = orlinth::parseJson(std::as_bytes(std::span(data, size)));
        const auto entries = orlinth::InFlightJournal::decodeEntries(json);
        const std::string written = orlinth::prettyJson(orlinth::Json{{"entries", entries}});
        if (orlinth::InFlightJournal::decodeEntries(orlinth::parseJson(written)) != entries) {
            std::abort();
        }
    } catch (const orlinth::JsonError& error) {
        if (error.description().empty()) {
            std::abort();
        }
    }
    return 0;
}
