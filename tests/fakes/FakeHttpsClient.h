#pragma once

#include "platform/HttpsClient.h"

#include <deque>
#include <functional>
#include <optional>
#include <stdexcept>
#include <vector>

namespace orlinth::fakes {

/// Answers requests from a script and keeps what was asked.
class FakeHttpsClient : public platform::HttpsClient {
public:
    ~FakeHttpsClient() override;
    struct Seen {
        std::string url;
        std::vector<std::pair<std::string, std::string>> headers;
        std::string body;
        Seconds timeout{0};
    };
    using Answer = std::function<Task<platform::HttpResponse>(const Seen&)>;

    [[nodiscard]] Task<platform::HttpResponse> post(platform::HttpRequest request) override {
        Seen seen{.url = request.url, .headers = {}, .body = toText(request.body.reveal()), .timeout = request.timeout};
        for (const auto& [name, value] : request.headers) {
            seen.headers.emplace_back(name, toText(value.reveal()));
        }
        requests.push_back(seen);
        if (answers.empty()) {
            throw std::logic_error("a request came that no answer was prepared for");
        }
        const Answer answer = answers.front();
        answers.pop_front();
        co_return co_await answer(seen);
    }

    /// Prepares an answer with this status and body, and the server's time, if it says that.
    void willAnswer(int status, std::string body, std::optional<EpochMilliseconds> date = std::nullopt) {
        answers.emplace_back([status, body, date](const Seen&) { return respond(status, body, date); });
    }
    /// Prepares a failure before any answer.
    void willFail(platform::HttpError::Kind kind, std::string text) {
        answers.emplace_back([kind, text](const Seen&) { return fail(kind, text); });
    }

    std::deque<Answer> answers;
    std::vector<Seen> requests;

private:
    static Task<platform::HttpResponse> respond(int status, std::string body, std::optional<EpochMilliseconds> date) {
        co_return platform::HttpResponse{.status = status, .body = toBytes(body), .date = date};
    }
    static Task<platform::HttpResponse> fail(platform::HttpError::Kind kind, std::string text) {
        throw platform::HttpError(kind, std::move(text));
        co_return platform::HttpResponse{};
    }
};

} // namespace orlinth::fakes
