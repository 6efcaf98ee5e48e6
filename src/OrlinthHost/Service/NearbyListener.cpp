#include "OrlinthHost/Service/NearbyListener.h"

#include "platform/IpAddress.h"

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

} // namespace orlinth::host
