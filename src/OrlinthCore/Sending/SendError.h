#pragma once

#include "base/CaseError.h"

namespace orlinth {

/// What the senders throw for their own decisions.
///
/// Callers decide by the case and, for `network`, by the reason. The text is for people: parts of it come from the
/// operating system, which may speak any language.
class SendError : public CaseError<SendError> {
public:
    enum class Case {
        fileMissing,
        fileRead,
        network,
        noiseHandshakeFailed,
        unexpectedFrame,
        malformedResume,
        unauthorizedPeer,
        cancelled,
        peerRemoved,
        declined
    };

    /// Why the network failed.
    enum class Reason {
        timedOut,           ///< no answer before the deadline, or before the system gave up
        refused,            ///< the other side is there, but nothing listens on the port
        hostUnreachable,    ///< nothing answers at the address
        networkUnreachable, ///< this computer has no way to the address's network
        unknownName,        ///< the name does not resolve
        pushFailed,         ///< the wake push could not be sent
        stalled,            ///< the phone was there, and then nothing moved for too long
        other
    };

    [[nodiscard]] static SendError fileMissing(const std::string& path) {
        return {Case::fileMissing, "file missing: ", path};
    }
    [[nodiscard]] static SendError fileRead(const std::string& text) { return {Case::fileRead, "file read: ", text}; }
    /// `cause` is the failure behind this one, if there is one: the last try before a deadline, or the failed push.
    [[nodiscard]] static SendError network(const std::string& text, Reason reason = Reason::other,
                                           std::exception_ptr cause = nullptr) {
        SendError error(Case::network, "network: ", text);
        error.reason_ = reason;
        error.cause_ = std::move(cause);
        return error;
    }
    [[nodiscard]] static SendError noiseHandshakeFailed(const std::string& text) {
        return {Case::noiseHandshakeFailed, "noise handshake: ", text};
    }
    [[nodiscard]] static SendError unexpectedFrame(const std::string& text) {
        return {Case::unexpectedFrame, "unexpected frame: ", text};
    }
    [[nodiscard]] static SendError malformedResume(const std::string& text) {
        return {Case::malformedResume, "malformed Resume: ", text};
    }
    [[nodiscard]] static SendError unauthorizedPeer() {
        return {Case::unauthorizedPeer, "remote pubkey ≠ paired peer"};
    }
    [[nodiscard]] static SendError cancelled() { return {Case::cancelled, "cancelled by user"}; }
    [[nodiscard]] static SendError peerRemoved() {
        return {Case::peerRemoved, "the phone removed this Mac. Pair again to send to it."};
    }
    [[nodiscard]] static SendError declined() { return {Case::declined, "the phone declined the file."}; }

    /// Of `network`; `other` for every other case.
    [[nodiscard]] Reason reason() const noexcept { return reason_; }
    /// Of `network`; null if nothing more is known.
    [[nodiscard]] const std::exception_ptr& cause() const noexcept { return cause_; }

private:
    SendError(Case which, const std::string& prefix, const std::string& detail = {})
        : CaseError(which, prefix, detail) {}
    Reason reason_ = Reason::other;
    std::exception_ptr cause_;
};

} // namespace orlinth
