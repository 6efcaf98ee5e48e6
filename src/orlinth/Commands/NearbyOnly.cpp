#include "orlinth/Commands/NearbyOnly.h"

#include "OrlinthCore/Receiving/ReceivingLimits.h"
#include "OrlinthHost/LineLimit.h"
#include "OrlinthHost/Service/NearbyListener.h"

#include <asio/post.hpp>

namespace orlinth::cli {

std::unique_ptr<platform::Listener> nearbyOnly(Host& host, std::unique_ptr<platform::Listener> listener) {
    const Executor executor = host.executor;
    const auto lines = std::make_shared<host::LineLimit>(
        host.system.clock, executor, limits::linesOfStrangers, [&output = host.output](std::int64_t untold) {
            output.message("closed " + std::to_string(untold) + " more connections from outside your networks");
        });
    auto tell = [&output = host.output, executor, lines](const std::string& endpoint) {
        asio::post(executor, [&output, lines, endpoint] {
            if (lines->admits()) {
                output.message("closed a connection from outside your networks: " + endpoint +
                               "; `--listen-public` lets it in");
            }
        });
    };
    return std::make_unique<host::NearbyListener>(std::move(listener), host.system.interfaces, std::move(tell));
}

} // namespace orlinth::cli
