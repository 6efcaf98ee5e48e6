#pragma once

#include "OrlinthHost/Outbox/OutboxState.h"
#include "OrlinthHost/Sending/Delivery.h"
#include "base/Progress.h"
#include "platform/FileSystem.h"

#include <cstdint>
#include <string>
#include <vector>

namespace orlinth::host {

/// What happens to the outbox, for whoever tells it to people and scripts. Called on the home's executor; no call
/// throws.
class OutboxEvents {
public:
    virtual ~OutboxEvents() = default;

    /// One file on its way to one phone.
    struct Transfer {
        BatchId batch;
        std::string file;
        std::string to;  ///< the phone's name
        PeerKey peerKey; ///< the phone's
    };

    /// At most twice a second.
    virtual void progress(const Transfer& transfer, const Progress& progress) = 0;
    virtual void sent(const Transfer& transfer, const Delivered& delivered) = 0;
    /// A phone has everything of a batch, but for what has failed.
    virtual void through(const BatchId& batch, const OutboxState::Phone& to, const std::vector<std::string>& files) = 0;
    /// Nothing of the batch is left to do.
    virtual void done(const BatchId& batch) = 0;
    /// An attempt has failed that is made again after `pause`: each time. `to` is empty where it is not about a
    /// phone.
    virtual void waiting(const BatchId& batch, const std::string& to, const std::string& message, Seconds pause) = 0;
    /// The same, only when the reason is another one than before, for the log.
    virtual void waitingLine(const OutboxState::Phone& to, const std::string& message) = 0;
    /// A file is not sent to a phone, whatever happens.
    virtual void failed(const Transfer& transfer, const std::string& message) = 0;
    /// Nothing more of a batch is sent to a phone.
    virtual void failed(const BatchId& batch, const OutboxState::Phone& to, const std::string& message) = 0;
    /// A batch was moved to `where`.
    virtual void setAside(const BatchId& batch, const std::string& message, const platform::Path& where) = 0;
    /// The same, but for `problem`, because of which it was left where it is.
    virtual void notSetAside(const BatchId& batch, const std::string& message, const std::string& problem) = 0;
    /// There is no outbox to look into, and none can be made.
    virtual void noOutbox(const std::string& problem) = 0;
    /// What was sent cannot be saved.
    virtual void notSaved(const std::string& problem) = 0;
};

} // namespace orlinth::host
