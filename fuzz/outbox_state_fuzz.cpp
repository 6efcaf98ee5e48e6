#include "OrlinthHost/Outbox/OutboxState.h"

#include <cstdlib>

/// What decodes as the state of a batch is the same after writing and reading; all else is a JsonError.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using orlinth::host::OutboxState;
    try {
        const std::vector<OutboxState::Phone> phones = OutboxState::decode(std::as_bytes(std::span(data, size)));
        const std::string written = OutboxState::encode(phones);
        if (OutboxState::decode(orlinth::asBytes(written)) != phones) {
            std::abort();
        }
    } catch (const orlinth::JsonError& error) {
        if (error.description().empty()) {
            std::abort();
        }
    }
    return 0;
}
