#pragma once

#include "platform/HttpsClient.h"

#include <asio/io_context.hpp>

#include <memory>
#include <mutex>

namespace orlinth::platform {

/// HTTPS by libcurl, driven by the context's own waits: no thread is blocked by a request.
class LinuxHttpsClient final : public HttpsClient {
public:
    /// `context` must outlive the client; the client outlives its requests.
    explicit LinuxHttpsClient(asio::io_context& context);
    ~LinuxHttpsClient() override;
    LinuxHttpsClient(const LinuxHttpsClient&) = delete;
    LinuxHttpsClient& operator=(const LinuxHttpsClient&) = delete;

    [[nodiscard]] Task<HttpResponse> post(HttpRequest request) override;

private:
    struct Driver;
    [[nodiscard]] std::shared_ptr<Driver> driver();

    asio::io_context& context_;
    std::mutex lock_; ///< of driver_
    std::shared_ptr<Driver> driver_;
};

} // namespace orlinth::platform
