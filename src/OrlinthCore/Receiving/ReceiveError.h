#pragma once

#include "base/CaseError.h"

namespace orlinth {

/// What the receiving paths throw.
class ReceiveError : public CaseError<ReceiveError> {
public:
    enum class Case {
        listenerStartFailed,
        wire,
        noiseHandshakeFailed,
        protocolViolation,
        fileWriteFailed, ///< the disk or the folder does not take the file
        fileNotTaken,    ///< the folder is as it should be, and this file still cannot be written there; told the same
        timedOut,
        noConnection,
        unauthorizedPeer
    };

    [[nodiscard]] static ReceiveError listenerStartFailed(const std::string& text) {
        return {Case::listenerStartFailed, "listener start failed: ", text};
    }
    [[nodiscard]] static ReceiveError wire(const std::string& text) { return {Case::wire, "wire: ", text}; }
    [[nodiscard]] static ReceiveError noiseHandshakeFailed(const std::string& text) {
        return {Case::noiseHandshakeFailed, "noise handshake failed: ", text};
    }
    [[nodiscard]] static ReceiveError protocolViolation(const std::string& text) {
        return {Case::protocolViolation, "protocol violation: ", text};
    }
    [[nodiscard]] static ReceiveError fileWriteFailed(const std::string& text) {
        return {Case::fileWriteFailed, "file write failed: ", text};
    }
    [[nodiscard]] static ReceiveError fileNotTaken(const std::string& text) {
        return {Case::fileNotTaken, "file write failed: ", text};
    }
    [[nodiscard]] static ReceiveError timedOut() { return {Case::timedOut, "timed out"}; }
    [[nodiscard]] static ReceiveError noConnection() { return {Case::noConnection, "no connection arrived"}; }
    [[nodiscard]] static ReceiveError unauthorizedPeer() {
        return {Case::unauthorizedPeer, "remote pubkey ≠ paired peer"};
    }

private:
    ReceiveError(Case which, const std::string& prefix, const std::string& detail = {})
        : CaseError(which, prefix, detail) {}
};

} // namespace orlinth
