#include "orlinth/NearbyListener.h"

#include "OrlinthCore/Receiving/ReceivingLimits.h"
#include "orlinth/LineLimit.h"
#include "platform/IpAddress.h"

#include <asio/post.hpp>

namespace orlinth::host {

Task<std::unique_ptr<platform::Stream>> NearbyListener::accept(Executor executor) {
    for (;;) {
        std::unique_ptr<platform::Stream> stream = co_await inner_->accept(executor);
        const std::string endpoint = stream->remoteEndpoint();
        if (platform::isNearby(platform::addressOfEndpoint(endpoint), interfaces_)) {
            co_return stream;
        }
        stream->abort();
        if (onFarAway_) {
            onFarAway_(endpoint);
        }
    }
}

std::unique_ptr<platform::Listener> nearbyOnly(Host& host, std::unique_ptr<platform::Listener> listener) {
    const Executor executor = host.tasks.executor();
    const auto lines = std::make_shared<LineLimit>(
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
    return std::make_unique<NearbyListener>(std::move(listener), host.system.interfaces, std::move(tell));
}

} // namespace orlinth::host
