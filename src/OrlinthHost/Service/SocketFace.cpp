#include "OrlinthHost/Service/SocketFace.h"

#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Service/ControlLine.h"
#include "OrlinthHost/Service/PhoneAnswers.h"
#include "OrlinthHost/Service/SocketPairing.h"
#include "base/Counted.h"
#include "platform/Cancelled.h"
#include "platform/SystemError.h"

#include <asio/experimental/awaitable_operators.hpp>
#include <asio/this_coro.hpp>

#include <algorithm>
#include <optional>
#include <span>
#include <string>
#include <utility>

namespace orlinth::host {

namespace {

/// Connections at once; whoever comes further waits.
constexpr std::size_t maxConversations = 16;
/// After the system was short of something.
constexpr Seconds restInShortage = 100ms;

} // namespace

void SocketFace::start(std::uint16_t port) {
    aboutPort_ = {.port = port, .since = home_.system.clock.epochMilliseconds()};
    accepting_.add(run(), [](const std::exception_ptr&) {
        // a failure was reported when it happened; else it was cancelled
    });
}

Task<> SocketFace::finish() {
    accepting_.cancelAll();
    co_await accepting_.join();
}

Task<> SocketFace::run() {
    std::exception_ptr cancelled;
    try {
        co_await acceptAll();
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            cancelled = std::current_exception();
        } else {
            events_.controlFailed(describe(error));
        }
    }
    if (!cancelled) { // the service goes on, and those who are connected with it: one of them may have its port
        try {
            co_await conversations_.join();
        } catch (...) {
            cancelled = std::current_exception();
        }
    }
    if (cancelled) {
        co_await asio::this_coro::reset_cancellation_state(asio::disable_cancellation());
        conversations_.cancelAll();
        co_await conversations_.join(); // they refer to this object
        std::rethrow_exception(cancelled);
    }
}

/// Ends by an exception only, and nobody listens then.
Task<> SocketFace::acceptAll() {
    const Executor executor = co_await asio::this_coro::executor;
    const std::unique_ptr<platform::Listener> listener =
        home_.system.unixSockets.listen(controlSocket(home_), executor);
    for (;;) {
        Seconds rest{0};
        try {
            std::unique_ptr<platform::Stream> stream = co_await listener->accept(executor);
            begin(std::move(stream));
        } catch (const platform::SystemError& error) {
            if (!platform::isShortage(error.code())) {
                throw;
            }
            rest = restInShortage; // that passes
        }
        if (rest > 0s) {
            co_await home_.system.clock.sleep(rest);
        }
        co_await conversations_.untilFewerThan(maxConversations);
    }
}

void SocketFace::begin(std::unique_ptr<platform::Stream> stream) {
    conversations_.add(answer(std::move(stream)), [this](const std::exception_ptr& error) {
        if (error && !loan_.isLent()) {
            // somebody went away in the middle of a sentence, or we are ending: nobody to tell
            home_.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "control", describe(error));
        }
    });
}

Task<> SocketFace::answer(std::unique_ptr<platform::Stream> stream) {
    Conversation conversation;
    try {
        ControlRequest request = co_await receiveRequest(*stream);
        const auto begins = [this](auto&& one) { return on(std::forward<decltype(one)>(one)); };
        conversation = co_await std::visit(begins, std::move(request));
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        conversation = replying(ErrorReply{describe(error)});
    }
    co_await conversation(*stream);
}

SocketFace::Conversation SocketFace::replying(ControlReply reply) {
    return [this, line = encodeControlReply(reply)](platform::Stream& stream) {
        return sendControlLine(stream, home_.system.clock, line);
    };
}

Task<ControlRequest> SocketFace::receiveRequest(platform::Stream& stream) {
    const std::string line = co_await readControlLine(stream, home_.system.clock, controlLineLimit);
    const ControlRequest request = decodeControlRequest(line);
    const std::string version = decodeClientVersion(line);
    if (!version.empty() && version != home_.version) {
        api_.metOtherVersion();
    }
    co_return request;
}

// What a request gets

Task<SocketFace::Conversation> SocketFace::on(PortRequest /*request*/) {
    co_return replying(aboutPort());
}

Task<SocketFace::Conversation> SocketFace::on(LendPortRequest request) {
    if (request.port.value_or(aboutPort_.port) != aboutPort_.port) {
        co_return replying(NotLentReply{aboutPort_.port});
    }
    if (api_.isPairing()) {
        throw HostError(loan_.isLent() ? "the port is lent already" : "another pairing is under way");
    }
    co_return [this](platform::Stream& stream) { return loan_.lend(stream, aboutPort_.port); };
}

Task<SocketFace::Conversation> SocketFace::on(OutboxRetryRequest request) {
    co_return replying(FoundReply{api_.retry(request.batch)});
}

Task<SocketFace::Conversation> SocketFace::on(OutboxDropRequest request) {
    const bool isFound = co_await api_.cancelBatch(std::move(request.batch));
    co_return replying(FoundReply{isFound});
}

Task<SocketFace::Conversation> SocketFace::on(PresenceRequest /*request*/) {
    co_return replying(presence());
}

Task<SocketFace::Conversation> SocketFace::on(CancelRequest request) {
    co_return replying(FoundReply{api_.cancelTransfer(TransferNumber{request.transfer})});
}

Task<SocketFace::Conversation> SocketFace::on(AnswerOfferRequest request) {
    co_return replying(FoundReply{api_.answerOffer(OfferNumber{request.offer}, request.isAccepted)});
}

Task<SocketFace::Conversation> SocketFace::on(PairRequest request) {
    ServicePairing::Ticket begun = co_await api_.pair(std::move(request.options));
    // shared, as a conversation can be copied
    const auto ticket = std::make_shared<ServicePairing::Ticket>(std::move(begun));
    co_return [this, ticket](platform::Stream& stream) { return pair(stream, std::move(*ticket)); };
}

Task<SocketFace::Conversation> SocketFace::on(StatusRequest /*request*/) {
    co_return [this](platform::Stream& stream) { return sendStatus(stream); };
}

Task<SocketFace::Conversation> SocketFace::on(WatchRequest /*request*/) {
    if (watchers_ == maxWatchers) {
        throw HostError("too many programs are watching");
    }
    co_return [this](platform::Stream& stream) { return watch(stream); };
}

Task<SocketFace::Conversation> SocketFace::on(LastTextRequest /*request*/) {
    co_return [this](platform::Stream& stream) { return sendLastText(stream); };
}

Task<SocketFace::Conversation> SocketFace::on(ForgetTextRequest /*request*/) {
    co_return replying(FoundReply{api_.lastText().forget()});
}

Task<SocketFace::Conversation> SocketFace::on(RestartRequest /*request*/) {
    api_.restart();
    co_return replying(FoundReply{true});
}

Task<SocketFace::Conversation> SocketFace::on(SettingsRequest /*request*/) {
    co_return [this](platform::Stream& stream) { return sendSettings(stream); };
}

Task<SocketFace::Conversation> SocketFace::on(SetRequest request) {
    co_await api_.setSetting(std::move(request.setting), std::move(request.value));
    co_return replying(FoundReply{true});
}

Task<SocketFace::Conversation> SocketFace::on(PhoneRequest request) {
    co_return [this, request = std::move(request)](platform::Stream& stream) {
        return answerPhoneRequest(home_, api_, stream, request);
    };
}

// What is said then

PortReply SocketFace::aboutPort() const {
    PortReply reply = aboutPort_;
    reply.downloads = api_.service().downloads.string();
    return reply;
}

Task<> SocketFace::sendStatus(platform::Stream& stream) {
    NewsReader reader(api_);
    co_await sendNews(stream, reader, true);
}

Task<> SocketFace::pair(platform::Stream& stream, ServicePairing::Ticket ticket) {
    SocketPairing conversation(home_, api_, stream, std::move(ticket));
    co_await conversation.run();
}

Task<> SocketFace::sendLastText(platform::Stream& stream) {
    const std::shared_ptr<const LastText::Text> text = api_.lastText().get(); // also if it is forgotten meanwhile
    const ControlReply reply =
        text ? ControlReply(TextReply{.from = text->from, .received = text->received, .bytes = text->bytes.size()})
             : ControlReply(FoundReply{false});
    co_await sendControlLine(stream, home_.system.clock, encodeControlReply(reply));
    if (text) {
        co_await sendControlSecret(stream, home_, text->bytes.reveal());
    }
}

Task<> SocketFace::sendSettings(platform::Stream& stream) {
    for (const SettingView& setting : api_.settings()) {
        co_await sendControlLine(stream, home_.system.clock, encodeServiceNews(setting));
    }
    co_await sendControlLine(stream, home_.system.clock, encodeServiceNews(CurrentLine{}));
}

/// Those that were paired last: the reply is one line.
PresenceReply SocketFace::presence() const {
    PresenceReply reply;
    const std::vector<PhoneView> phones = api_.phones();
    const std::size_t left = phones.size() - std::min(phones.size(), PresenceReply::maxPhones);
    for (const PhoneView& phone : std::span(phones).subspan(left)) {
        reply.phones.push_back(phone.presence);
    }
    return reply;
}

Task<> SocketFace::watch(platform::Stream& stream) {
    const Counted counted(watchers_);
    const std::shared_ptr<const void> onlooker = api_.onlooker();
    NewsReader reader(api_);
    bool hasEnded = false;
    std::optional<platform::Clock::Instant> lookedAt; // at the phones
    while (!hasEnded) {
        const platform::Clock::Instant now = home_.system.clock.now();
        const bool isTimeToLook = !lookedAt || now - *lookedAt >= phonesInterval;
        if (isTimeToLook) {
            lookedAt = now;
        }
        co_await sendNews(stream, reader, isTimeToLook);
        co_await untilNews(stream, reader, hasEnded);
        if (!hasEnded) {
            co_await home_.system.clock.sleep(newsInterval); // what comes meanwhile comes together
        }
    }
}

Task<> SocketFace::sendNews(platform::Stream& stream, NewsReader& reader, bool isTimeToLook) {
    for (const ServiceNews& news : reader.next(isTimeToLook)) {
        co_await sendControlLine(stream, home_.system.clock, encodeServiceNews(news));
    }
}

/// Or until it is time to look at the phones, or the other end has closed.
Task<> SocketFace::untilNews(platform::Stream& stream, const NewsReader& reader, bool& hasEnded) {
    using namespace asio::experimental::awaitable_operators;
    Task<bool> waiting = api_.news().until([&reader] { return reader.isBehind(); }, home_.system.clock, phonesInterval);
    Task<> ending = stream.untilEnded();
    const auto first = co_await (std::move(waiting) || std::move(ending));
    hasEnded = first.index() == 1;
}

} // namespace orlinth::host
