#pragma once

#include "OrlinthCore/Sending/ServiceAccount.h"
#include "base/CaseError.h"
#include "platform/AsyncMutex.h"
#include "platform/Clock.h"
#include "platform/Directories.h"
#include "platform/HttpsClient.h"
#include "platform/WorkQueues.h"

#include <cstdint>
#include <optional>
#include <string>

namespace orlinth {

/// What a token endpoint answers (RFC 6749 §5.1).
struct OAuthResponse {
    SecretBytes access_token;
    std::chrono::seconds expires_in{0}; ///< from the answer
    std::string token_type;             ///< must be there, and is not used

    /// @throws JsonError; its text quotes nothing of the reply
    [[nodiscard]] static OAuthResponse fromJson(ByteView text);
};

/// Wakes a sleeping phone by a high-priority data push of Firebase Cloud Messaging (HTTP v1 API).
///
/// Signs a JWT with the service account's key (RFC 7515, RS256), trades it for an access token (RFC 7523), keeps that
/// until a minute before it expires, and posts the message.
///
/// Threading: any executor may call; the object works on a serial queue of its own, so concurrent calls never race on
/// the token and mint one, not two. The object outlives its calls.
class FcmWake {
public:
    class Error;

    static constexpr const char* defaultBaseURL = "https://fcm.googleapis.com";
    static constexpr const char* scope = "https://www.googleapis.com/auth/firebase.messaging";
    static constexpr const char* serviceAccountFileName = "firebase-service-account.json";
    /// How much of an answer's body an error quotes; the rest is "… (N bytes)".
    static constexpr std::size_t maxQuotedBytes = 4096;

    /// What it works with; all of it outlives the object.
    struct System {
        platform::FileSystem& files;
        platform::Clock& clock;
        platform::HttpsClient& https;
        platform::WorkQueues& queues;
    };

    /// Where the account's key file is looked for: the folder "Orlinth" of the user's application data.
    [[nodiscard]] static platform::Path defaultServiceAccountURL(const platform::UserDirectories& directories);

    /// Reads the key file; touches no network. @throws Error::serviceAccountMissing, serviceAccountMalformed
    FcmWake(System system, const platform::Path& serviceAccountURL, std::string baseURL = defaultBaseURL);

    /// Sends one wake message to one registration token; three attempts, 0, 200 and 500 ms apart, where the network
    /// fails in passing. @throws Error; platform::HttpError for failures of the network that are not tried again
    [[nodiscard]] Task<> sendWake(std::string toToken);

    /// Signs something with the account's key and forgets it. Touches no network.
    /// @throws Error::privateKeyImport, sign
    void tryKey() const;
    /// Has the account's token endpoint take the key, and sends no message. @throws as sendWake()
    [[nodiscard]] Task<> tryAccess();
    /// How much this computer's clock was ahead of the token endpoint's when that last answered, whatever the answer
    /// was; below 0: behind. Nothing if it has not said. To be asked while no other call is under way.
    [[nodiscard]] std::optional<Seconds> clockError() const noexcept { return clockError_; }

private:
    struct AccessToken {
        SecretBytes token;
        EpochMilliseconds expiresAt;
    };

    [[nodiscard]] Task<> sendOnQueue(std::string toToken);
    [[nodiscard]] platform::HttpRequest messageRequest(const SecretBytes& accessToken, const SecretBytes& body) const;
    [[nodiscard]] Task<> fetchAccessToken(); ///< afterwards there is a cached token
    [[nodiscard]] SecretBytes mintJWT() const;

    System system_;
    ServiceAccount account_;
    std::string baseURL_;
    Executor queue_;
    platform::AsyncMutex tokenTurn_;
    std::optional<AccessToken> cachedAccessToken_; // on queue_ only
    std::optional<Seconds> clockError_;            // written on queue_ only
};

/// What FcmWake throws.
///
/// The body of an answer in the two HTTP cases comes from outside: "<binary N bytes>" where it is not UTF-8, at most
/// maxQuotedBytes of it, and without the tokens that the request carried. No case quotes the private key.
class FcmWake::Error : public CaseError<FcmWake::Error> {
public:
    enum class Case {
        serviceAccountMissing,
        serviceAccountMalformed,
        privateKeyImport,
        sign,
        oauthHTTP,
        fcmHTTP,
        transport
    };

    [[nodiscard]] static Error serviceAccountMissing(const std::string& path) {
        return {Case::serviceAccountMissing, "service account JSON missing at ", path};
    }
    [[nodiscard]] static Error serviceAccountMalformed(const std::string& text) {
        return {Case::serviceAccountMalformed, "service account JSON malformed: ", text};
    }
    [[nodiscard]] static Error privateKeyImport(const std::string& text) {
        return {Case::privateKeyImport, "RSA private key import failed: ", text};
    }
    [[nodiscard]] static Error sign(const std::string& text) { return {Case::sign, "JWT sign failed: ", text}; }
    [[nodiscard]] static Error oauthHTTP(int status, const std::string& body) {
        return {Case::oauthHTTP, "OAuth2 HTTP " + std::to_string(status) + ": ", body, status};
    }
    [[nodiscard]] static Error fcmHTTP(int status, const std::string& body) {
        return {Case::fcmHTTP, "FCM HTTP " + std::to_string(status) + ": ", body, status};
    }
    [[nodiscard]] static Error transport(const std::string& text) { return {Case::transport, "FCM transport: ", text}; }

    /// Of the two HTTP cases; 0 otherwise.
    [[nodiscard]] int status() const noexcept { return status_; }

private:
    Error(Case which, const std::string& prefix, const std::string& detail, int status = 0)
        : CaseError(which, prefix, detail), status_(status) {}
    int status_;
};

} // namespace orlinth
