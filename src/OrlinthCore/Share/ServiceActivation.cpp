#include "OrlinthCore/Share/ServiceActivation.h"

#include "base/Json.h"
#include "platform/SystemError.h"

#include <asio/this_coro.hpp>

#include <memory>
#include <utility>

namespace orlinth {

platform::UserService ServiceActivation::service() {
    return {.busName = "com.tarvinex.orlinth1", .unit = "orlinth.service"};
}

Task<bool> ServiceActivation::isRunning(platform::UnixSockets& sockets, platform::Path socket, std::string version) {
    const Executor executor = co_await asio::this_coro::executor;
    bool isThere = false;
    try {
        const std::unique_ptr<platform::Stream> stream = co_await sockets.connect(std::move(socket), executor);
        isThere = true;
        const std::string line = compactJson({{"request", "port"}, {"version", version}}) + "\n";
        co_await stream->writeAll(asBytes(line)); // nobody waits for the answer
    } catch (const platform::SystemError&) {
        co_return isThere; // mostly, nobody listens
    }
    co_return isThere;
}

std::string ServiceActivation::startForOutbox(platform::UserServices& services,
                                              const platform::UserDirectories& directories) {
    using Outcome = platform::ServiceStart::Outcome;
    const platform::ServiceStart start = directories.areUsual() ? services.start(service()) : platform::ServiceStart();
    switch (start.outcome) {
    case Outcome::running:
        return "";
    case Outcome::failed:
        return "The Orlinth service cannot be started: " + start.problem +
               ". Files will be sent once it runs. To see what is wrong: `orlinth serve`";
    case Outcome::unknown:
        break;
    }
    return "The Orlinth service is not running. Files will be sent once it starts: `orlinth serve`";
}

} // namespace orlinth
