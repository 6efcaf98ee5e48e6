#pragma once

#include "OrlinthCore/Peers/PeerRecord.h"
#include "OrlinthHost/Sending/Attempt.h"
#include "OrlinthHost/Sending/Delivery.h"
#include "base/Progress.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace orlinth::host {

/// What happens while files are sent, for whoever tells it to people and scripts. Called on the home's executor; no
/// call throws.
class SendEvents {
public:
    virtual ~SendEvents() = default;

    /// One file on its way to one phone, the same for all attempts. What it refers to outlives the run.
    struct Transfer {
        std::size_t number = 0;  ///< no two of a run have the same
        const std::string& path; ///< as it was named
        std::int64_t size = 0;   ///< bytes, as the file was when it was named
        const PeerRecord& phone;
    };

    /// The first call: what there is to do. Every file counts once for each phone that it goes to.
    virtual void expected(std::size_t transfers, std::int64_t bytes) = 0;
    /// An attempt begins, with this file.
    virtual void began(const Transfer& transfer, const std::string& name, std::int64_t size,
                       const std::string& mime) = 0;
    virtual void connected(const Transfer& transfer) = 0;
    /// The phone was found at another address than its record's, which the transfer's phone has now; connecting begins
    /// again there.
    virtual void moved(const Transfer& transfer) = 0;
    /// A push was delivered; connecting begins again.
    virtual void waking(const Transfer& transfer) = 0;
    /// The phone has proved its key.
    virtual void authenticated(const Transfer& transfer) = 0;
    /// Bytes that the phone has; the first call of a connection tells what it had before.
    virtual void progress(const Transfer& transfer, const Progress& progress) = 0;
    /// The end of the file was sent; what is open is how the phone takes its leave.
    virtual void endSent(const Transfer& transfer) = 0;
    /// The connection broke behind the end of the file, which is offered again now.
    virtual void again(const Transfer& transfer) = 0;
    /// The attempt has failed, perhaps only because there were others; the file gets another one.
    virtual void putBack(const Transfer& transfer) = 0;
    virtual void delivered(const Transfer& transfer, const Delivered& delivered) = 0;
    /// `isInDoubt` if the end of the file was sent once: it may be there all the same.
    virtual void failed(const Transfer& transfer, const EndedAttempt& attempt, bool isInDoubt) = 0;
};

} // namespace orlinth::host
