#include "FuzzSupport.h"
#include "OrlinthHost/Service/ControlMessage.h"
#include "OrlinthHost/Service/PairingMessage.h"
#include "OrlinthHost/Service/ServiceNews.h"
#include "base/Error.h"

namespace {

using orlinth::fuzzing::demand;

/// What decodes is the same after writing and reading, and what is written is one line; all else is an error that says
/// what it is.
template <typename Encode, typename Decode>
void demandTheSame(std::string_view line, Encode encode, Decode decode) {
    try {
        const auto message = decode(line);
        const std::string written = encode(message);
        demand(written.find('\n') == std::string::npos, "a message is one line");
        demand(decode(written) == message, "what decodes encodes to the same value");
    } catch (const orlinth::Error& error) {
        demand(!error.description().empty(), "an error says what it is");
    }
}

} // namespace

/// Lines of the control socket, as either of its ends reads them.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orlinth::host;
    const std::string_view line(reinterpret_cast<const char*>(data), size);
    demandTheSame(line, encodeControlRequest, decodeControlRequest);
    demandTheSame(line, encodeControlReply, decodeControlReply);
    demandTheSame(line, encodeServiceNews, decodeServiceNews);
    demandTheSame(line, encodePairing, decodePairing);
    demandTheSame(line, encodeConfirmation, decodeConfirmation);
    return 0;
}
