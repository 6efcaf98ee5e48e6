#include "OrlinthHost/Service/SocketPairing.h"

#include "OrlinthHost/Service/ControlLine.h"
#include "OrlinthHost/Service/PairingMessage.h"
#include "platform/Cancelled.h"

#include <asio/experimental/awaitable_operators.hpp>

namespace orlinth::host {

Task<> SocketPairing::run() {
    using namespace asio::experimental::awaitable_operators;
    const PairingView first = ticket_.view().value_or(PairingView{});
    co_await sendControlLine(stream_, home_.system.clock, encodePairing(first));
    co_await sendCode();
    Task<> telling = tellChanges(first);
    Task<> listening = listen();
    co_await (std::move(telling) || std::move(listening));
}

Task<> SocketPairing::sendCode() {
    const SecretBytes payload = ticket_.payload();
    co_await sendControlSecret(stream_, home_, payload.reveal());
}

Task<> SocketPairing::tellChanges(PairingView told) {
    while (!told.isOver()) {
        co_await api_.news().until([this, &told] { return ticket_.view() != told; });
        const std::optional<PairingView> view = ticket_.view();
        if (!view) {
            co_return; // another one has begun in its place
        }
        told = *view;
        co_await sendControlLine(stream_, home_.system.clock, encodePairing(told));
    }
}

/// Until the other end closes, or says what makes no sense.
Task<> SocketPairing::listen() {
    for (;;) {
        std::string line;
        try {
            line = co_await readControlLine(stream_);
            static_cast<void>(ticket_.confirm(decodeConfirmation(line)));
        } catch (const std::exception& error) {
            if (platform::isCancellation(error)) {
                throw;
            }
            co_return;
        }
    }
}

} // namespace orlinth::host
