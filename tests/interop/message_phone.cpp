// A phone that connects to the receive service, says one message, and waits until the service closes.
//
//     message_phone PORT COMPUTER_KEY < MESSAGE
//
// PORT: where the service listens, on this machine. COMPUTER_KEY: its key, in Base64. MESSAGE: one JSON object as in
// the protocol. The phone's own key is that of the data folder, as with every orlinth. Status 0 if the service has
// proved its key; a failure is one line on standard error, status 1.

#include "OrlinthCore/SecureChannel/KeyVault.h"
#include "OrlinthCore/SecureChannel/TransportFrame.h"
#include "OrlinthCore/Sending/ClipboardSender.h"
#include "platform/Spawn.h"
#include "platform/linux/LinuxSystem.h"

#include <cstdio>
#include <exception>
#include <iostream>
#include <iterator>
#include <stdexcept>

using namespace orlinth;

namespace {

constexpr Seconds timeToConnect = 30s;

PeerRecord computer(std::span<char*> words) {
    if (words.size() != 3) {
        throw std::invalid_argument("usage: message_phone PORT COMPUTER_KEY < MESSAGE");
    }
    PeerRecord record;
    record.peer_ip = "127.0.0.1";
    record.peer_port = std::stoi(words[1]);
    record.peer_pubkey = PeerKey(words[2]);
    return record;
}

/// `system` outlives the task.
Task<> say(platform::System& system, TransportMessage message, OneOffRequest request) {
    static_cast<void>(co_await sendOneOff(system, std::move(message), std::move(request)));
}

} // namespace

int main(int count, char** arguments) {
    try {
        const PeerRecord record = computer({arguments, static_cast<std::size_t>(count)});
        const std::string text(std::istreambuf_iterator<char>(std::cin), {});
        asio::io_context context(1);
        platform::LinuxSystem linux(context);
        platform::System system = linux.system();
        const platform::PrivateKey key = KeyVault(system.files, system.directories).loadOrCreate();
        OneOffRequest request{.peer = record,
                              .staticKey = key,
                              .warmConnectTimeout = timeToConnect,
                              .postWakeConnectTimeout = timeToConnect};
        std::exception_ptr failure;
        platform::spawn(context.get_executor(),
                        say(system, TransportMessage::fromJson(asBytes(text)), std::move(request)),
                        [&failure](const std::exception_ptr& error) { failure = error; });
        context.run();
        if (failure) {
            std::rethrow_exception(failure);
        }
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "message_phone: %s\n", error.what());
        return 1;
    }
}
