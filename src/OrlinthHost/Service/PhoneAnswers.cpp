#include "OrlinthHost/Service/PhoneAnswers.h"

#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Service/ControlLine.h"
#include "OrlinthHost/Service/ControlMessage.h"
#include "platform/Cancelled.h"

#include <string>
#include <utility>
#include <vector>

namespace orlinth::host {

namespace {

/// One of the requests that come to an end, or fail. What is referred to outlives the call.
Task<> act(Home& home, ServiceApi& api, platform::Stream& stream, PhoneRequest request) {
    PhoneRequests& phones = api.phoneRequests();
    if (auto* const rename = std::get_if<RenamePhoneRequest>(&request)) {
        co_await phones.rename(std::move(rename->phone), std::move(rename->name));
    } else if (auto* const remove = std::get_if<RemovePhoneRequest>(&request)) {
        co_await phones.remove(std::move(remove->phone));
    } else if (auto* const wake = std::get_if<WakePhoneRequest>(&request)) {
        co_await phones.wake(std::move(wake->phone));
    } else if (auto* const send = std::get_if<SendTextRequest>(&request)) {
        SecretBytes text =
            co_await withinLimit(home.system.clock, controlLineLimit,
                                 home.system.unixSockets.receiveSecret(stream, PhoneRequests::maxTextBytes));
        co_await phones.sendText(std::move(text), std::move(send->phones));
    } else {
        co_await api.history().clear();
    }
}

Task<> sendHistory(Home& home, platform::Stream& stream, std::vector<HistoryEntry> entries) {
    co_await sendControlLine(stream, home.system.clock, encodeControlReply(HistoryReply{entries.size()}));
    for (const HistoryEntry& entry : entries) {
        co_await sendControlLine(stream, home.system.clock, History::encode(entry));
    }
}

} // namespace

Task<> answerPhoneRequest(Home& home, ServiceApi& api, platform::Stream& stream, PhoneRequest request) {
    ControlReply reply = FoundReply{true};
    std::optional<std::vector<HistoryEntry>> entries;
    try {
        if (const auto* const history = std::get_if<HistoryRequest>(&request)) {
            entries = co_await api.history().page(history->before, history->count);
        } else {
            co_await act(home, api, stream, std::move(request));
        }
    } catch (const NoSuchPhone&) {
        reply = FoundReply{false};
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        reply = ErrorReply{describe(error)};
    }
    if (entries) {
        co_await sendHistory(home, stream, std::move(*entries));
    } else {
        co_await sendControlLine(stream, home.system.clock, encodeControlReply(reply));
    }
}

} // namespace orlinth::host
