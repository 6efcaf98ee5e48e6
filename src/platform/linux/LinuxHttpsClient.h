#pragma once

#include "base/Mutex.h"
#include "platform/HttpsClient.h"

#include <asio/io_context.hpp>

#include <memory>

namespace orlinth::platform {

/// HTTPS by libcurl, driven by the context's own waits: no thread is blocked by a request. The library is loaded at the
/// first request, and if it is missing every request fails with Kind::other.
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
    Mutex lock_;
    std::shared_ptr<Driver> driver_ ORLINTH_GUARDED_BY(lock_);
};

} // namespace orlinth::platform
