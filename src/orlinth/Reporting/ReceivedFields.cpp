#include "orlinth/Reporting/ReceivedFields.h"

#include "OrlinthHost/HumanText.h"
#include "base/Text.h"

namespace orlinth::cli {

Json receivedFields(const ReceivedFile& received) {
    Json fields;
    fields["saved_at"] = received.savedAt.string();
    fields["bytes_written"] = received.bytesWritten;
    fields["advertised_size"] = received.advertisedSize;
    fields["mime"] = received.mime;
    fields["resumed_from_offset"] = received.resumedFromOffset.bytesBefore();
    fields["bytes_received_this_session"] = received.bytesReceivedThisSession;
    fields["duration_seconds"] = received.durationSeconds.count();
    fields["remote_endpoint"] = received.remoteEndpoint;
    return fields;
}

std::string visiblePath(const ReceivedFile& received) {
    return (received.savedAt.parent_path() / madeVisible(received.savedAt.filename().string())).string();
}

std::string shortPath(const ReceivedFile& received) {
    return (received.savedAt.parent_path() / forDisplay(received.savedAt.filename().string())).string();
}

std::string receivedFigures(const ReceivedFile& received) {
    std::string text = host::humanSize(received.bytesWritten) + " in " + host::humanDuration(received.durationSeconds);
    if (received.durationSeconds > 0s && received.bytesReceivedThisSession > 0) {
        text += ", " + host::humanRate(static_cast<double>(received.bytesReceivedThisSession) /
                                       received.durationSeconds.count());
    }
    return text;
}

std::string remarkOnSize(const ReceivedFile& received) {
    if (received.bytesWritten == received.advertisedSize) {
        return {};
    }
    return "The file has " + std::to_string(received.bytesWritten) + " bytes instead of the " +
           std::to_string(received.advertisedSize) + " that were announced: it changed while it was sent.";
}

} // namespace orlinth::cli
