#pragma once

#include "OrlinthCore/SecureChannel/TransportFrame.h"

#include <cstdint>
#include <optional>
#include <variant>

namespace orlinth {

/// What the frames of one connection mean to whoever receives: an offer, its data, Done; or another message that ends
/// the conversation. Frames go in, what is to be done comes out. No socket, no file, no task: the receiving paths do
/// what it says.
///
///     waiting ──TokenUpdate──▶ updated
///        │                        │
///        └───────FileOffer────────┴──▶ offered ──accept()──▶ receiving ──Done──▶ over
///                                         └─────refuse()───────────────────────▶ over
///     any but over ──last message, or a violation──▶ over
///
/// Not thread-safe. Once it is over, nothing may be taken any more.
class IncomingTransfer {
public:
    /// Who receives.
    enum class Scope {
        oneFile,   ///< a receive of one file: any other message but a push token is a violation
        everything ///< the service: other messages are taken too, and end the conversation
    };

    enum class State {
        waiting,   ///< nothing has come
        updated,   ///< a push token has come and nothing else: the phone may hang up
        offered,   ///< an offer waits for accept() or refuse()
        receiving, ///< a file has been accepted: its data, and then Done
        over       ///< the conversation has ended, well or by a violation
    };

    /// The offer is to be answered: by accept(), or by refuse().
    struct Answer {
        TransportMessage::FileOffer offer;
        bool operator==(const Answer&) const = default;
    };
    /// The phone's push token is to be kept.
    struct Update {
        TransportMessage::TokenUpdate token;
        bool operator==(const Update&) const = default;
    };
    /// The file is complete.
    struct Finish {
        bool operator==(const Finish&) const = default;
    };
    /// The message is what the conversation comes to, whatever has come of a file.
    struct Conclude {
        bool operator==(const Conclude&) const = default;
    };
    using Action = std::variant<Answer, Update, Finish, Conclude>;

    explicit IncomingTransfer(Scope scope) noexcept : scope_(scope) {}

    /// What a message asks for. @throws ReceiveError::protocolViolation, and then it is over
    [[nodiscard]] Action take(const TransportMessage& message);

    /// So many bytes of data have come, which are to be written behind those that are here. With an approved size (see
    /// accept()) there are never more than that and one frame.
    /// @throws ReceiveError::protocolViolation, and then it is over
    void takeData(std::int64_t bytes);

    /// The offer is accepted, and the data goes on from `offset`. `approvedSize`: the size that somebody has
    /// agreed to, which then is a bound, give or take a frame; without one, whoever writes has limits of its own.
    /// @throws ReceiveError::protocolViolation if more than that is here already, and then it is over
    void accept(ByteOffset offset, std::optional<std::int64_t> approvedSize = std::nullopt);
    /// The offer is refused; that ends the conversation.
    void refuse();

    [[nodiscard]] State state() const noexcept { return state_; }
    /// Whether a phone that hangs up between two frames has done nothing wrong: it had come for its token alone.
    [[nodiscard]] bool mayHangUp() const noexcept { return state_ == State::updated && scope_ == Scope::everything; }

private:
    [[nodiscard]] Action actionOf(const TransportMessage& message);
    [[noreturn]] void violate(const std::string& text);
    void requireState(State state) const;
    void requireApproved();

    Scope scope_;
    State state_ = State::waiting;
    ByteOffset dataEnd_; ///< of what is here
    std::optional<std::int64_t> approvedSize_;
};

/// "waiting" and so on.
[[nodiscard]] std::string_view name(IncomingTransfer::State state) noexcept;

} // namespace orlinth
