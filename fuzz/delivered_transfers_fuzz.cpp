#include "FuzzSupport.h"
#include "OrlinthCore/Receiving/DeliveredTransfers.h"

/// Whatever the file holds, reading it yields a bounded list, which is the same after writing and reading.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using orlinth::DeliveredTransfers;
    const auto deliveries = DeliveredTransfers::decode(std::as_bytes(std::span(data, size)));
    orlinth::fuzzing::demand(deliveries.size() <= DeliveredTransfers::maxEntries, "a bounded list");
    std::string written;
    for (const DeliveredTransfers::Delivery& delivery : deliveries) {
        orlinth::fuzzing::demand(delivery.path.is_absolute(), "an absolute path");
        const std::string line = DeliveredTransfers::encode(delivery);
        orlinth::fuzzing::demand(line.size() <= DeliveredTransfers::maxLineBytes, "a bounded line");
        written += line;
    }
    orlinth::fuzzing::demand(DeliveredTransfers::decode(orlinth::asBytes(written)) == deliveries, "the same again");
    return 0;
}
