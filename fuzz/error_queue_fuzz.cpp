#include "Demand.h"
#include "platform/linux/SocketErrorQueue.h"

/// Any control messages are read; a report that is there is there as well if more follows it, and no ICMP message comes
/// from an address with a zone.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orlinth;
    using namespace orlinth::platform;
    using fuzzing::demand;
    const ByteView control = std::as_bytes(std::span(data, size));
    const std::optional<SocketErrorReport> report = parseErrorQueueControl(control);
    if (!report) {
        return 0;
    }
    constexpr std::size_t leastBytes = 32; // a header and the error
    demand(size >= leastBytes, "a report is as long as a report");
    demand(parseErrorQueueControl(concatenate({control, control})) == report, "the first report counts");
    if (report->icmp) {
        const auto* const v6 = std::get_if<Ipv6Address>(&report->icmp->from);
        demand(v6 == nullptr || v6->zone.empty(), "a sender has no zone");
    }
    return 0;
}
