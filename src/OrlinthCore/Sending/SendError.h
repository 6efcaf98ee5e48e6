#pragma once

#include "base/Error.h"

namespace orlinth {

/// What the senders throw for their own decisions.
class SendError : public Error {
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

    [[nodiscard]] static SendError fileMissing(const std::string& path) {
        return make(Case::fileMissing, "file missing: ", path);
    }
    [[nodiscard]] static SendError fileRead(const std::string& text) {
        return make(Case::fileRead, "file read: ", text);
    }
    [[nodiscard]] static SendError network(const std::string& text) { return make(Case::network, "network: ", text); }
    [[nodiscard]] static SendError noiseHandshakeFailed(const std::string& text) {
        return make(Case::noiseHandshakeFailed, "noise handshake: ", text);
    }
    [[nodiscard]] static SendError unexpectedFrame(const std::string& text) {
        return make(Case::unexpectedFrame, "unexpected frame: ", text);
    }
    [[nodiscard]] static SendError malformedResume(const std::string& text) {
        return make(Case::malformedResume, "malformed Resume: ", text);
    }
    [[nodiscard]] static SendError unauthorizedPeer() {
        return make(Case::unauthorizedPeer, "remote pubkey ≠ paired peer", "");
    }
    [[nodiscard]] static SendError cancelled() { return make(Case::cancelled, "cancelled by user", ""); }
    [[nodiscard]] static SendError peerRemoved() {
        return make(Case::peerRemoved, "the phone removed this Mac. Pair again to send to it.", "");
    }
    [[nodiscard]] static SendError declined() { return make(Case::declined, "the phone declined the file.", ""); }

    [[nodiscard]] Case which() const noexcept { return case_; }
    /// What is behind the prefix; empty for the cases without.
    [[nodiscard]] const std::string& detail() const noexcept { return detail_; }

private:
    [[nodiscard]] static SendError make(Case which, const std::string& prefix, const std::string& detail) {
        return {which, prefix + detail, detail};
    }
    SendError(Case which, std::string description, std::string detail)
        : Error(std::move(description)), case_(which), detail_(std::move(detail)) {}
    Case case_;
    std::string detail_;
};

} // namespace orlinth
