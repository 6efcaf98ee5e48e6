#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Service/PhoneMessages.h"
#include "OrlinthHost/Service/ServiceApi.h"
#include "platform/Network.h"

namespace orlinth::host {

/// Answers one request about phones, texts or the history over the control socket; what goes wrong is its answer.
/// What is referred to outlives the call. On the home's executor. @throws platform::SystemError, HostError if the other
/// end does not listen; platform::Cancelled
[[nodiscard]] Task<> answerPhoneRequest(Home& home, ServiceApi& api, platform::Stream& stream, PhoneRequest request);

} // namespace orlinth::host
