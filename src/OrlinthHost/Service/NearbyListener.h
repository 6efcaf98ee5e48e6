#pragma once

#include "platform/Network.h"
#include "platform/NetworkInterfaces.h"

#include <functional>
#include <memory>
#include <string>

namespace orlinth::host {

/// Lets in only those who are in a network of one's own (platform::isNearby()); the connections of all others are
/// closed before a byte is read from them.
class NearbyListener final : public platform::Listener {
public:
    /// `onFarAway` is told the endpoint of each one that was turned away, on the executor that accepts; may be empty.
    /// `interfaces` outlives this.
    NearbyListener(std::unique_ptr<platform::Listener> inner, const platform::NetworkInterfaces& interfaces,
                   std::function<void(const std::string& remoteEndpoint)> onFarAway)
        : inner_(std::move(inner)), interfaces_(interfaces), onFarAway_(std::move(onFarAway)) {}

    [[nodiscard]] Task<std::unique_ptr<platform::Stream>> accept(Executor executor) override;
    [[nodiscard]] std::uint16_t port() const noexcept override { return inner_->port(); }
    void close() noexcept override { inner_->close(); }

private:
    std::unique_ptr<platform::Listener> inner_;
    const platform::NetworkInterfaces& interfaces_;
    std::function<void(const std::string& remoteEndpoint)> onFarAway_;
};

} // namespace orlinth::host
