#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Service/ControlMessage.h"
#include "OrlinthHost/Service/NewsReader.h"
#include "OrlinthHost/Service/PortLoan.h"
#include "OrlinthHost/Service/ServiceApi.h"
#include "OrlinthHost/Service/ServiceEvents.h"
#include "platform/TaskGroup.h"

#include <cstdint>
#include <functional>
#include <memory>

namespace orlinth::host {

/// The face of ServiceApi on the control socket. Answers those who reach the running service by the socket in its data
/// folder: one request a connection, several connections side by side. ControlMessage.h has what they may say; nonsense
/// is answered by an error.
///
/// Threading: on the home's executor.
class SocketFace {
public:
    /// Those who watch at once; whoever comes further is told that there are too many.
    static constexpr std::size_t maxWatchers = 8;
    /// Between two looks at what is new, for one who watches.
    static constexpr Seconds newsInterval = 250ms;
    /// A phone of which nothing is heard is not here any more after a while: so often that is looked at, as long as
    /// somebody watches.
    static constexpr Seconds phonesInterval = 15s;

    /// What is referred to outlives this.
    SocketFace(Home& home, ServiceApi& api, PortLoan& loan, ServiceEvents& events)
        : home_(home),
          api_(api),
          loan_(loan),
          events_(events),
          accepting_(home.executor),
          conversations_(home.executor) {}
    SocketFace(const SocketFace&) = delete;
    SocketFace& operator=(const SocketFace&) = delete;

    /// Answers requests from now on. Once, when the receiver listens on this port. A service whose socket cannot be
    /// opened does its work without, which is reported.
    void start(std::uint16_t port);
    /// Ends what start() has begun, and returns when it has ended. The last call; start() need not have been called.
    [[nodiscard]] Task<> finish();

private:
    /// What is said to the one who asked, once it is clear that it can be done. The stream outlives it.
    using Conversation = std::function<Task<>(platform::Stream&)>;

    [[nodiscard]] Task<> run();
    [[nodiscard]] Task<> acceptAll();
    void begin(std::unique_ptr<platform::Stream> stream);
    [[nodiscard]] Task<> answer(std::unique_ptr<platform::Stream> stream);
    [[nodiscard]] Task<ControlRequest> receiveRequest(platform::Stream& stream);
    [[nodiscard]] Conversation replying(ControlReply reply);
    [[nodiscard]] PresenceReply presence() const;
    [[nodiscard]] PortReply aboutPort() const;

    /// Does what is asked for. @throws what the one who asked is to be told
    [[nodiscard]] Task<Conversation> on(PortRequest request);
    [[nodiscard]] Task<Conversation> on(LendPortRequest request);
    [[nodiscard]] Task<Conversation> on(OutboxRetryRequest request);
    [[nodiscard]] Task<Conversation> on(OutboxDropRequest request);
    [[nodiscard]] Task<Conversation> on(PresenceRequest request);
    [[nodiscard]] Task<Conversation> on(CancelRequest request);
    [[nodiscard]] Task<Conversation> on(AnswerOfferRequest request);
    [[nodiscard]] Task<Conversation> on(PairRequest request);
    [[nodiscard]] Task<Conversation> on(StatusRequest request);
    [[nodiscard]] Task<Conversation> on(WatchRequest request);
    [[nodiscard]] Task<Conversation> on(LastTextRequest request);
    [[nodiscard]] Task<Conversation> on(ForgetTextRequest request);
    [[nodiscard]] Task<Conversation> on(RestartRequest request);
    [[nodiscard]] Task<Conversation> on(SettingsRequest request);
    [[nodiscard]] Task<Conversation> on(SetRequest request);
    [[nodiscard]] Task<Conversation> on(PhoneRequest request);

    [[nodiscard]] Task<> pair(platform::Stream& stream, ServicePairing::Ticket ticket);
    /// Tells what there is.
    [[nodiscard]] Task<> sendStatus(platform::Stream& stream);
    /// Sends what is set, a line each.
    [[nodiscard]] Task<> sendSettings(platform::Stream& stream);
    /// Sends the text, if there is one, behind the line that says so.
    [[nodiscard]] Task<> sendLastText(platform::Stream& stream);
    /// Tells what there is, and what changes until the other end closes. `stream` outlives the call.
    [[nodiscard]] Task<> watch(platform::Stream& stream);
    [[nodiscard]] Task<> sendNews(platform::Stream& stream, NewsReader& reader, bool isTimeToLook);
    [[nodiscard]] Task<> untilNews(platform::Stream& stream, const NewsReader& reader, bool& hasEnded);

    Home& home_;
    ServiceApi& api_;
    PortLoan& loan_;
    ServiceEvents& events_;
    std::size_t watchers_ = 0;
    PortReply aboutPort_;
    platform::TaskGroup accepting_;     ///< run(), if it runs
    platform::TaskGroup conversations_; ///< one for each connection
};

} // namespace orlinth::host
