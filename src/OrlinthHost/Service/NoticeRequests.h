#pragma once

#include "OrlinthHost/Service/TransferList.h"
#include "base/StrongText.h"

namespace orlinth::host {

/// What the buttons of notifications ask of the service. Each may be asked for what is not there any more, and again.
/// On the home's executor; no call throws.
class NoticeRequests {
public:
    virtual ~NoticeRequests() = default;
    virtual void cancelTransfer(TransferNumber number) = 0;
    /// Tries now what this phone has not got of a batch, also what has failed.
    virtual void retryBatch(const BatchId& batch, const PeerKey& peerKey) = 0;
    /// Takes back what this phone has not got of a batch.
    virtual void dropBatch(const BatchId& batch, const PeerKey& peerKey) = 0;
};

} // namespace orlinth::host
