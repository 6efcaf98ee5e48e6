#pragma once

#include "base/Error.h"
#include "base/SecretBytes.h"
#include "base/Time.h"
#include "platform/Task.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orlinth::platform {

/// One POST. Header values and bodies may hold secrets; no implementation logs them.
struct HttpRequest {
    std::string url;
    std::vector<std::pair<std::string, SecretBytes>> headers; ///< name and value
    SecretBytes body;
    Seconds timeout = 60s; ///< for the whole exchange, from resolving the name to the last byte of the answer
};

struct HttpResponse {
    int status = 0; ///< 0 where what came back is not HTTP
    Bytes body;
    /// When the server made the answer, to a second and by its own clock (RFC 9110 §6.6.1); nothing if it does not say.
    std::optional<EpochMilliseconds> date = {};
};

/// The exchange failed before there was an answer. The text is the library's own and holds no part of the request.
class HttpError : public Error {
public:
    /// What went wrong, as far as a caller decides by it.
    enum class Kind {
        timedOut,
        cannotFindHost, ///< the name does not resolve
        cannotConnect,  ///< refused or unreachable
        connectionLost, ///< broken off, or closed without an answer
        notConnected,   ///< this computer has no network
        untrusted,      ///< certificate, host name or TLS
        invalidURL,     ///< not https (http is allowed to loopback addresses alone), or no URL at all
        tooLarge,       ///< the answer exceeds HttpsClient::maxResponseBytes
        other
    };

    HttpError(Kind kind, std::string text) : Error(std::move(text)), kind_(kind) {}
    [[nodiscard]] Kind kind() const noexcept { return kind_; }

private:
    Kind kind_;
};

/// HTTPS of this computer: certificate and host name are checked, the system's proxies are honoured, redirects are not
/// followed, nothing is kept between requests.
class HttpsClient {
public:
    /// Largest answer that is taken in.
    static constexpr std::size_t maxResponseBytes = 1 << 20;

    virtual ~HttpsClient() = default;
    /// Sends the request and returns the answer, whatever its status. No thread waits for it.
    /// Cancelling the task ends it at once. @throws HttpError, Cancelled
    [[nodiscard]] virtual Task<HttpResponse> post(HttpRequest request) = 0;
};

} // namespace orlinth::platform
