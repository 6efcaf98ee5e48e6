#include "OrlinthCore/Sending/FcmWake.h"

#include "base/Base64.h"
#include "base/Hex.h"
#include "base/Json.h"
#include "base/Text.h"
#include "platform/Cancelled.h"
#include "platform/Crypto.h"
#include "platform/Spawn.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <array>
#include <limits>
#include <string_view>
#include <utility>
#include <vector>

namespace orlinth {
namespace {

constexpr Seconds tokenTimeout = 60s;
constexpr Seconds sendTimeout = 4s;
constexpr std::array<Seconds, 3> delaysBeforeAttempts{0s, 200ms, 500ms};
constexpr std::chrono::seconds tokenMargin = 60s;
constexpr std::chrono::seconds jwtLife = 1h;
/// A key file has two or three kilobytes; what is much larger is something else.
constexpr std::size_t maxKeyFileBytes = std::size_t{1} << 20U;

constexpr std::string_view tokenRequestStart = "grant_type=urn:ietf:params:oauth:grant-type:jwt-bearer&assertion=";

/// Wipes the text it was taken from.
SecretBytes secretOf(std::string text) {
    SecretBytes secret(asBytes(text));
    wipe(std::as_writable_bytes(std::span(text.data(), text.size())));
    return secret;
}

SecretBytes secretOf(std::initializer_list<ByteView> pieces) {
    std::size_t total = 0;
    for (const ByteView piece : pieces) {
        total += piece.size();
    }
    SecretBytes all(total);
    auto into = all.revealMutable().begin();
    for (const ByteView piece : pieces) {
        into = std::ranges::copy(piece, into).out;
    }
    return all;
}

std::string_view viewOf(ByteView bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// RFC 4648 §5, without padding.
std::string base64url(ByteView bytes) {
    std::string text = base64Encode(bytes);
    std::ranges::replace(text, '+', '-');
    std::ranges::replace(text, '/', '_');
    while (text.ends_with('=')) {
        text.pop_back();
    }
    return text;
}

/// One segment of a URL's path (RFC 3986 §3.3): everything but unreserved characters as "%41".
std::string pathSegment(std::string_view text) {
    constexpr std::string_view unreserved = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
    std::string segment;
    for (const char character : text) {
        if (unreserved.find(character) != std::string_view::npos) {
            segment += character;
        } else {
            appendPercentEncoded(segment, static_cast<unsigned char>(character), HexCase::upper);
        }
    }
    return segment;
}

/// Wipes an answer that may hold a token, however its user leaves.
class AnswerWiper {
public:
    explicit AnswerWiper(platform::HttpResponse& response) : response_(response) {}
    AnswerWiper(const AnswerWiper&) = delete;
    AnswerWiper& operator=(const AnswerWiper&) = delete;
    ~AnswerWiper() { wipe(response_.body); }

private:
    platform::HttpResponse& response_;
};

void hide(std::string& text, std::string_view secret) {
    constexpr std::string_view standIn = "<secret>";
    if (secret.empty()) {
        return;
    }
    for (std::size_t at = 0; (at = text.find(secret, at)) != std::string::npos; at += standIn.size()) {
        text.replace(at, secret.size(), standIn);
    }
}

/// What an error quotes of an answer. A server may echo what it was told in confidence, so that is taken out.
std::string quoted(const Bytes& body, std::initializer_list<ByteView> secrets) {
    std::string text = toText(body);
    if (!isUtf8(text)) {
        return "<binary " + std::to_string(body.size()) + " bytes>";
    }
    for (const ByteView secret : secrets) {
        hide(text, viewOf(secret));
    }
    if (text.size() <= FcmWake::maxQuotedBytes) {
        return text;
    }
    std::size_t cut = FcmWake::maxQuotedBytes;
    while ((static_cast<unsigned char>(text[cut]) & 0xc0U) == 0x80U) {
        --cut; // not inside a character
    }
    text.resize(cut);
    return text + "… (" + std::to_string(body.size()) + " bytes)";
}

SecretBytes messageBody(const std::string& toToken) {
    const Json message{{"token", toToken}, {"data", Json{{"wake", "1"}}}, {"android", Json{{"priority", "high"}}}};
    return secretOf(compactJson(Json{{"message", message}}));
}

bool isSuccess(const platform::HttpResponse& response) {
    return response.status >= 200 && response.status <= 299;
}

/// An answer that is not HTTP has no status.
void requireHttp(const platform::HttpResponse& response) {
    if (response.status == 0) {
        throw FcmWake::Error::transport("non-HTTP response");
    }
}

/// Failures of the network that may be over in a moment.
bool isTransient(platform::HttpError::Kind kind) {
    using Kind = platform::HttpError::Kind;
    switch (kind) {
    case Kind::timedOut:
    case Kind::cannotFindHost:
    case Kind::cannotConnect:
    case Kind::connectionLost:
    case Kind::notConnected:
        return true;
    case Kind::untrusted:
    case Kind::invalidURL:
    case Kind::tooLarge:
    case Kind::other:
        return false;
    }
    return false;
}

SecretBytes readKeyFile(platform::FileSystem& files, const platform::Path& path) {
    const std::unique_ptr<platform::File> file = files.open(path, platform::OpenMode::read);
    SecretBytes content(maxKeyFileBytes + 1);
    const std::size_t size = file->read(content.revealMutable());
    if (size > maxKeyFileBytes) {
        throw platform::SystemError("larger than " + std::to_string(maxKeyFileBytes) + " bytes");
    }
    return SecretBytes(content.reveal().first(size));
}

ServiceAccount loadAccount(platform::FileSystem& files, const platform::Path& path) {
    if (!files.exists(path)) {
        throw FcmWake::Error::serviceAccountMissing(path.string());
    }
    try {
        const SecretBytes content = readKeyFile(files, path);
        return ServiceAccount::fromJson(content.reveal());
    } catch (const platform::SystemError& error) {
        throw FcmWake::Error::serviceAccountMalformed(describe(error));
    } catch (const JsonError& error) {
        throw FcmWake::Error::serviceAccountMalformed(describe(error));
    }
}

platform::RsaPrivateKey importKey(ByteView pem) {
    const SecretBytes pkcs8 = pkcs8DER(pem);
    const SecretBytes pkcs1 = unwrapPKCS8(pkcs8.reveal());
    try {
        return platform::RsaPrivateKey::fromPkcs1(pkcs1.reveal());
    } catch (const platform::CryptoError& error) {
        throw FcmWake::Error::privateKeyImport(describe(error));
    }
}

Bytes signRS256(ByteView pem, ByteView data) {
    const platform::RsaPrivateKey key = importKey(pem);
    try {
        return key.signSha256(data);
    } catch (const platform::CryptoError& error) {
        throw FcmWake::Error::sign(describe(error));
    }
}

/// `now` and `life` more, or the end of time.
EpochMilliseconds later(EpochMilliseconds now, std::chrono::seconds life) {
    constexpr auto longest = std::chrono::floor<std::chrono::seconds>(std::chrono::milliseconds::max() / 4);
    return now + std::clamp(life, -longest, longest);
}

} // namespace

OAuthResponse OAuthResponse::fromJson(ByteView text) {
    const Json json = parseJson(text, maxJsonMessageValues);
    OAuthResponse reply;
    reply.access_token = secretOf(requireString(json, "access_token"));
    reply.expires_in = std::chrono::seconds(requireInt64(json, "expires_in"));
    reply.token_type = requireString(json, "token_type");
    return reply;
}

platform::Path FcmWake::defaultServiceAccountURL(const platform::UserDirectories& directories) {
    return directories.data / "Orlinth" / serviceAccountFileName;
}

FcmWake::FcmWake(System system, const platform::Path& serviceAccountURL, std::string baseURL)
    : system_(system),
      account_(loadAccount(system.files, serviceAccountURL)),
      baseURL_(std::move(baseURL)),
      queue_(system.queues.makeSerialQueue("orlinth.wake")),
      tokenTurn_(queue_) {}

Task<> FcmWake::sendWake(std::string toToken) {
    return platform::runOn(queue_, sendOnQueue(std::move(toToken)));
}

void FcmWake::tryKey() const {
    static_cast<void>(mintJWT());
}

Task<> FcmWake::tryAccess() {
    return platform::runOn(queue_, fetchAccessToken());
}

Task<> FcmWake::sendOnQueue(std::string toToken) {
    co_await fetchAccessToken();
    const SecretBytes accessToken(cachedAccessToken_->token.reveal());
    const SecretBytes body = messageBody(toToken);
    const SecretBytes pushToken = secretOf(std::move(toToken));
    for (std::size_t attempt = 0; attempt < delaysBeforeAttempts.size(); ++attempt) {
        if (attempt > 0) {
            co_await system_.clock.sleep(delaysBeforeAttempts[attempt]);
        }
        platform::HttpResponse response;
        try {
            response = co_await system_.https.post(messageRequest(accessToken, body));
        } catch (const platform::HttpError& error) {
            if (!isTransient(error.kind())) {
                throw;
            }
            if (attempt + 1 == delaysBeforeAttempts.size()) {
                throw Error::transport("FCM transport (after retries): " + describe(error));
            }
            continue;
        }
        requireHttp(response);
        if (!isSuccess(response)) {
            throw Error::fcmHTTP(response.status, quoted(response.body, {accessToken.reveal(), pushToken.reveal()}));
        }
        co_return;
    }
}

platform::HttpRequest FcmWake::messageRequest(const SecretBytes& accessToken, const SecretBytes& body) const {
    platform::HttpRequest request;
    request.url = baseURL_ + "/v1/projects/" + pathSegment(account_.project_id) + "/messages:send";
    request.headers.emplace_back("Authorization", secretOf({asBytes("Bearer "), accessToken.reveal()}));
    request.headers.emplace_back("Content-Type", SecretBytes(asBytes("application/json; charset=UTF-8")));
    request.body = SecretBytes(body.reveal());
    request.timeout = sendTimeout;
    return request;
}

Task<> FcmWake::fetchAccessToken() {
    const platform::AsyncMutex::Guard turn = co_await tokenTurn_.lock();
    if (cachedAccessToken_ && cachedAccessToken_->expiresAt - tokenMargin > system_.clock.epochMilliseconds()) {
        co_return;
    }
    const SecretBytes jwt = mintJWT();
    platform::HttpRequest request;
    request.url = account_.token_uri;
    request.headers.emplace_back("Content-Type", SecretBytes(asBytes("application/x-www-form-urlencoded")));
    request.body = secretOf({asBytes(tokenRequestStart), jwt.reveal()});
    request.timeout = tokenTimeout;
    platform::HttpResponse response = co_await system_.https.post(std::move(request));
    const AnswerWiper wiper(response);
    requireHttp(response);
    if (response.date) {
        clockError_ = system_.clock.epochMilliseconds() - *response.date;
    }
    if (!isSuccess(response)) {
        throw Error::oauthHTTP(response.status, quoted(response.body, {jwt.reveal()}));
    }
    try {
        OAuthResponse reply = OAuthResponse::fromJson(response.body);
        cachedAccessToken_ = AccessToken{.token = std::move(reply.access_token),
                                         .expiresAt = later(system_.clock.epochMilliseconds(), reply.expires_in)};
    } catch (const JsonError& error) {
        throw Error::oauthHTTP(response.status, "bad token response: " + describe(error));
    }
}

SecretBytes FcmWake::mintJWT() const {
    const auto issuedAt = std::chrono::floor<std::chrono::seconds>(system_.clock.epochMilliseconds());
    const Json header{{"alg", "RS256"}, {"typ", "JWT"}, {"kid", account_.private_key_id}};
    const Json claims{{"iss", account_.client_email},
                      {"scope", scope},
                      {"aud", account_.token_uri},
                      {"iat", toNumber(issuedAt)},
                      {"exp", toNumber(issuedAt + jwtLife)}};
    const std::string signingInput =
        base64url(asBytes(compactJson(header))) + "." + base64url(asBytes(compactJson(claims)));
    const SecretBytes signature = secretOf(base64url(signRS256(account_.private_key.reveal(), asBytes(signingInput))));
    return secretOf({asBytes(signingInput), asBytes("."), signature.reveal()});
}

} // namespace orlinth
