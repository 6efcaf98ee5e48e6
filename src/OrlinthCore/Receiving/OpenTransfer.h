#pragma once

#include "OrlinthCore/SecureChannel/WireConnection.h"

namespace orlinth {

/// Stands for a file that a phone has offered and that does not lie under its final name yet. While it lives, the end
/// of the connection is a reset, whatever ends it: an error, a cancellation, an idle time-out, a signal, a kill. So a
/// sender that sees an orderly end behind its Done knows that the file was delivered.
///
/// Declared behind what closes the partial file, and so destroyed before that: the sender hears at once that it must
/// try again, and does not wait for the disk to take what is kept. A successor waits for the registry, not for the
/// reset.
class OpenTransfer {
public:
    /// `wire` outlives this.
    explicit OpenTransfer(WireConnection& wire) noexcept : wire_(wire) { wire_.resetOnClose(true); }
    OpenTransfer(const OpenTransfer&) = delete;
    OpenTransfer& operator=(const OpenTransfer&) = delete;
    ~OpenTransfer() {
        if (!isSettled_) {
            wire_.abort();
        }
    }

    /// The file was delivered, or the offer answered by a refusal: the connection may end in good order.
    void settle() noexcept {
        isSettled_ = true;
        wire_.resetOnClose(false);
    }

private:
    WireConnection& wire_;
    bool isSettled_ = false;
};

} // namespace orlinth
